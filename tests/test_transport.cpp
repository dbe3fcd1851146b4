// Own packet transport: packet layout, the jitter buffers, sender and receiver.
#include "sonrajbuf.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"
#include "sonranetsimmodel.h"
#include "testutil.h"

#include <climits>
#include <cmath>
#include <ctime>
#include <map>
#include <numeric>

using namespace ombrel;
using namespace sonratest;

namespace {

typedef std::vector<unsigned> Seqs;
typedef std::vector<uint64_t> Counts;

// A payload that names its frame, so that what comes out can be told apart.
Frame payload(unsigned seqNum, char copy = 0) { return bytesFrame({char(seqNum), char(seqNum >> 8), copy}); }

// A jitter buffer on a clock the test moves by hand.
struct JbufRig {
    explicit JbufRig(unsigned frameDuration = 20) : jbuf(frameDuration) { jbuf.setTimeHandler([this] { return now; }); }
    void put(unsigned seqNum, char copy = 0) { jbuf.putFrame(payload(seqNum, copy), seqNum, seqNum * 20); }
    void puts(const Seqs& seqNums)
    {
        for (unsigned seqNum : seqNums)
            put(seqNum);
    }
    // The sequence number delivered, or 0 for nothing.
    unsigned get()
    {
        Frame frame;
        unsigned seqNum = 0, timeStamp = 0;
        if (jbuf.getFrame(frame, &seqNum, &timeStamp) != 0)
            return 0;
        EXPECT_EQ(payload(seqNum)->at(0), frame->at(0));
        EXPECT_EQ(seqNum * 20, timeStamp);
        return seqNum;
    }
    Seqs gets(unsigned count)
    {
        Seqs played;
        while (count-- > 0)
            played.push_back(get());
        return played;
    }
    unsigned now = 0; // ms
    SonraJbuf jbuf;
};

Seqs silentThen(unsigned silent, unsigned seqNum) { return concat(Seqs(silent, 0), Seqs{seqNum}); }

// `count` numbers from `first` on.
Seqs range(unsigned first, unsigned count)
{
    Seqs seqs(count);
    std::iota(seqs.begin(), seqs.end(), first);
    return seqs;
}

} // namespace

TEST(PacketDeathTest, BuildsTheHeaderInPlaceParsesWithoutCopyingAndOrdersNumbers)
{
    Frame frame = bytesFrame({'p', 'a', 'y'});
    const SonraPacket packet(frame, 0x01020304u, 0xA0B0C0D0u);
    EXPECT_EQ(frame.get(), packet.m_data.get());
    EXPECT_EQ((std::vector<char>{1, 0, 15, 0, 4, 3, 2, 1, char(0xD0), char(0xC0), char(0xB0), char(0xA0), 'p', 'a', 'y'}),
              *frame);
    EXPECT_EQ(static_cast<void*>(frame->data()), static_cast<void*>(packet.m_header));
    EXPECT_EQ(frame->data() + 12, packet.m_payload);
    EXPECT_EQ(12, SonraPacket(bytesFrame(std::vector<char>()), 1, 0).m_header->length);
    EXPECT_EQ(6, SonraPacket(bytesFrame(std::vector<char>(65530)), 3, 0).m_header->length); // wraps at 64 KiB

    Frame wire = bytesFrame({1, 0, 14, 0, 7, 0, 0, 0, 40, 0, 0, 0, 'a', 'b'});
    const SonraPacket parsed(wire);
    EXPECT_EQ(wire.get(), parsed.m_data.get());
    EXPECT_EQ((Counts{7, 40}), (Counts{parsed.m_header->seqNum, parsed.m_header->timeStamp}));
    EXPECT_EQ(wire->data() + 12, parsed.m_payload);
    const SonraPacket tooShort(bytesFrame(std::vector<char>(11)));
    EXPECT_TRUE(tooShort.m_header == nullptr && tooShort.m_payload == nullptr);
    EXPECT_DEATH(SonraPacket{Frame()}, "px != 0");

    const unsigned cases[][3] = {{10, 20, 1},  {20, 10, 0},  {300, 100, 1}, {300, 200, 0}, {256, 100, 0},
                                 {257, 127, 1}, {257, 128, 0}, {257, 256, 0}, {5, 5, 0},     {UINT_MAX, 0, 1}};
    for (const auto& c : cases)
        EXPECT_EQ(c[2] != 0, SonraPacket::seqNumLeftLessRight(c[0], c[1])) << c[0] << " < " << c[1];
}

TEST(Jbuf, PlaysInOrderUnderrunsThenReanchorsAndRefusesTheOld)
{
    JbufRig rig; // 20 ms, depth 3, lead 18, ring 21
    rig.puts({1, 2, 3});
    EXPECT_EQ((Seqs{1, 2, 3, 0}), rig.gets(4));
    rig.put(7); // the dry queue's head (4) moves to 7
    EXPECT_EQ(7u, rig.get());
    rig.put(5);
    EXPECT_EQ(0u, rig.get());
    const SonraJbufStatistics s = rig.jbuf.statistics();
    EXPECT_EQ((Counts{5, 4, 1, 2, 0, 7, 140}), (Counts{s.framesPut, s.framesPlayed, s.framesTooOld, s.underruns,
                                                       s.queuedFrames, s.lastSeqNum, s.lastTimeStamp}));
    JbufRig ahead;
    ahead.puts(concat(range(1, 19), Seqs{30}));
    EXPECT_EQ(11u, ahead.jbuf.statistics().framesDropped); // 30 moves the head to 12 exactly (lead 18)
    ahead.jbuf.setDelayRecalcPeriods(1, 2); // unused, yet it resets like every setting
    EXPECT_EQ((Counts{0, 0}), (Counts{ahead.jbuf.statistics().framesPut, ahead.get()}));
}

// Each case: its configuration, the frames put, what the gets deliver, how many queues log each put and get.
TEST(Jbuf, OrderingsAndConfigurations)
{
    struct Case {
        const char* name;
        unsigned frameDuration;
        std::vector<unsigned> delays; // initial, min, max, extra (ms); empty: defaults
        Seqs put, played;
        unsigned queues;
    } const cases[] = {
        {"first frame anchors the head", 20, {}, {3, 1, 2}, {3, 0}, 1},
        {"placed by number", 20, {}, {1, 3, 2}, {1, 2, 3, 0}, 1},
        {"25 ahead: head moves to lead 18, dropping 1", 20, {}, {1, 26}, silentThen(18, 26), 1},
        {"five queues, the played one keeps lead 5", 20, {40, 20, 100, 60}, {1, 10}, silentThen(5, 10), 5},
        {"delays below the frame are raised: lead 1", 20, {10, 10, 10, 0}, {1, 5}, {0, 5, 0}, 1},
        {"60 ms: depth 1, lead 6", 60, {}, {1, 9}, silentThen(6, 9), 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        JbufRig rig(c.frameDuration);
        if (!c.delays.empty())
            rig.jbuf.setDelays(c.delays[0], c.delays[1], c.delays[2], c.delays[3]);
        LogCapture log("audio2jbuf");
        rig.puts(c.put);
        EXPECT_EQ(c.played, rig.gets(c.played.size()));
        EXPECT_EQ(long(c.queues * c.put.size()), log.count("put frame"));
        EXPECT_EQ(long(c.queues * c.played.size()), log.count("get frame"));
    }
}

TEST(Jbuf, ADuplicateReplacesItsSlotAndCountsTwice)
{
    JbufRig rig;
    Frame mine = payload(99);
    EXPECT_EQ(1u, rig.jbuf.getFrame(mine, nullptr, nullptr)); // an underrun leaves the caller's frame
    EXPECT_EQ(99, mine->at(0));
    rig.put(1, 'a');
    rig.put(1, 'b');
    EXPECT_EQ((Counts{2, 1}), (Counts{rig.jbuf.statistics().queuedFrames, rig.jbuf.statistics().duplicates}));
    ASSERT_EQ(0u, rig.jbuf.getFrame(mine, nullptr, nullptr));
    EXPECT_EQ('b', mine->at(2));
    EXPECT_EQ(1u, rig.jbuf.statistics().queuedFrames);
}

TEST(Jbuf, DepthDecreasesAfterAWholeObservationPeriodOfLongWaits)
{
    LogCapture log("audio2jbuf");
    JbufRig rig;
    // Four frames queued, each played 80 ms after it was put. Get 1 sets the shortest wait (20 ms, too short to cut);
    // get 151 ends that period; get 152 sets 80 ms; get 302 ends the next period and cuts, skipping 302.
    rig.puts({1, 2, 3, 4});
    for (unsigned n = 1; n <= 302; ++n) {
        rig.now += 20;
        ASSERT_EQ(n == 302 ? 303 : n, rig.get());
        ASSERT_EQ(n == 302, log.count("JBuf decrease buffer depth") == 1);
        rig.put(n + 4);
    }
    const SonraJbufStatistics s = rig.jbuf.statistics();
    EXPECT_EQ((Counts{1, 1, 3}), (Counts{s.depthDecreases, s.framesDropped, s.queuedFrames}));
    const std::vector<std::string> texts = log.texts();
    EXPECT_EQ("JBuf after decrease m_dynMinBufTime=80, m_dynReferenceBufDepth=3, m_framesCount=2, "
              "m_bufDelayFrames=3, dynBufDelay=60",
              texts[texts.size() - 2]);
    for (unsigned n = 304; n < 904; ++n) { // three queued frames are the nominal depth: no further cut
        rig.now += 20;
        ASSERT_EQ(n, rig.get());
        rig.put(n + 3);
    }
    EXPECT_EQ(1u, rig.jbuf.statistics().depthDecreases);
    rig.jbuf.setRecovery(true); // a stream restarted from 1, re-anchored at 4: its first period cuts too
    for (unsigned n = 1; n <= 170; ++n, rig.now += 20) {
        rig.put(n);
        if (n < 4 || n > 7) // 4 to 7 are put ahead, so each frame waits 80 ms
            rig.get();
    }
    EXPECT_EQ((Counts{2, 1}), (Counts{rig.jbuf.statistics().depthDecreases, rig.jbuf.statistics().resyncs}));
}

TEST(Jbuf, AClockStuckAtZeroNeverDecreasesTheDepth)
{
    LogCapture log("audio2jbuf");
    JbufRig rig;
    rig.jbuf.setTimeHandler(boost::function<unsigned()>()); // no clock: reads 0
    rig.puts({1, 2, 3, 4});
    for (unsigned n = 1; n <= 1000; ++n) {
        ASSERT_EQ(n, rig.get());
        rig.put(n + 4);
    }
    EXPECT_EQ(0u, rig.jbuf.statistics().depthDecreases);
    EXPECT_EQ(1000, log.count("New minBufTime=0"));
}

TEST(Jbuf, LogRecordsOfPutAndGet)
{
    JbufRig rig;
    LogCapture log("audio2jbuf");
    rig.now = 20;
    rig.puts({1, 2, 3, 4, 5});
    rig.now = 60;
    rig.get();
    std::vector<std::string> expected(5, "Jbuf 20 put frame ");
    expected.insert(expected.end(),
                    {"Jbuf 60 get frame ", "JBuf new m_dynReferenceBufDepth=4", "New minBufTime=40",
                     "JBuf m_dynMinBufTime=40, m_dynReferenceBufDepth=4, m_framesCount=4, m_bufDelayFrames=3, "
                     "m_dynCounter=0, dynCountPeriod=150, dynBufDelay=80"});
    EXPECT_EQ(expected, log.texts());
    JbufRig fine(1); // watches 3000 frames of 1 ms
    fine.puts({1, 2});
    fine.get();
    EXPECT_EQ(1, log.count("dynCountPeriod=3000,"));
}

TEST(JbufDeathTest, ConfigurationAssertionsInOrder)
{
    const auto failed = [](const char* expression, const char* in) { return assertion(expression, in, "sonrajbuf"); };
    EXPECT_DEATH(SonraJbuf(0), failed("frameDuration>0", "SonraJbuf"));
    EXPECT_DEATH(SonraJbuf(20).setFrameDuration(0), failed("frameDuration>0", "setFrameDuration"));
    const std::string initialDivides = failed("(d->m_initialDelay%d->m_frameDuration)==0", "reset");
    EXPECT_DEATH(SonraJbuf(20).setFrameDuration(40), initialDivides);
    EXPECT_DEATH(SonraReceiverNode(ioService(), 20, 16000).setPacketDuration(40), initialDivides);
    EXPECT_DEATH(SonraReceiverNode(ioService(), 40, 16000), initialDivides);
    const std::string maxNotBelowInitial = failed("d->m_maxDelay>=d->m_initialDelay", "reset");
    EXPECT_DEATH(SonraJbuf(10).setDelays(60, 40, 50, 0), maxNotBelowInitial);
    EXPECT_DEATH(SonraJbuf(20).setDelays(70, 60, 50, 0), maxNotBelowInitial); // checked before the multiples
    EXPECT_DEATH(SonraJbuf(10).setDelays(40, 50, 60, 0), failed("d->m_initialDelay>=d->m_minDelay", "reset"));
    EXPECT_DEATH(SonraJbuf(20).setDelays(60, 30, 60, 0), failed("(d->m_minDelay%d->m_frameDuration)==0", "reset"));
    EXPECT_DEATH(SonraJbuf(20).setDelays(60, 60, 70, 0), failed("(d->m_maxDelay%d->m_frameDuration)==0", "reset"));
    EXPECT_DEATH(SonraJbuf(20).setDelays(60, 60, 60, 30),
                 failed("(d->m_extraJitterDelay%d->m_frameDuration)==0", "reset"));
}

TEST(Jbuf, HostileSequenceNumbers)
{
    JbufRig rig;
    rig.puts({0, 0x80000000u, UINT_MAX}); // no place in the ring
    EXPECT_EQ(0u, rig.get());
    EXPECT_EQ(3u, rig.jbuf.statistics().framesUnnumbered);
    rig.put(0x7fffffffu);
    EXPECT_EQ(0x7fffffffu, rig.get());

    JbufRig far;
    far.puts({1, 2});
    const std::clock_t start = std::clock(); // processor time: a busy host does not count
    far.put(UINT_MAX); // four billion numbers ahead: costs one turn of the ring
    EXPECT_LT(double(std::clock() - start) / CLOCKS_PER_SEC, 0.5);
    EXPECT_EQ(silentThen(18, UINT_MAX), far.gets(19));
    far.puts({21, 23}); // the head went on one number per get while the far frame waited: 22 is the lowest playable
    EXPECT_EQ(23u, far.get());
    EXPECT_EQ((Counts{1, 2}), (Counts{far.jbuf.statistics().framesTooOld, far.jbuf.statistics().framesDropped}));
}

TEST(Sender, NumbersEveryNonEmptyFrameAndInsertsTheHeaderInPlace)
{
    NodeGraph<SonraSenderNode> graph(boost::make_shared<SonraSenderNode>(ioService(), 20, 16000));
    std::vector<Frame> packets;
    const auto install = [&] { graph.node->setSendHandler([&](Frame packet) { packets.push_back(packet); }); };
    const auto frame = [&](Frame contents) { graph.queue.push(contents), graph.pipe->processFrame(); };
    frame(bytesFrame({1})), frame(bytesFrame({2})), frame(bytesFrame({3})); // numbered without a handler
    install();
    frame(bytesFrame(std::vector<char>())), frame(Frame()); // no number consumed
    Frame encoded = bytesFrame({'o', 'p', 'u', 's'});
    frame(encoded);
    ASSERT_EQ(1u, packets.size());
    EXPECT_EQ(encoded.get(), packets[0].get());
    EXPECT_EQ((std::vector<char>{1, 0, 16, 0, 4, 0, 0, 0, 100, 0, 0, 0, 'o', 'p', 'u', 's'}), *encoded);
    EXPECT_FALSE(graph.node->outputData());

    graph.node->reset(1000);
    frame(bytesFrame({5}));
    graph.node->clearSendHandler();
    frame(bytesFrame({6}));
    install();
    frame(bytesFrame({7}));
    ASSERT_EQ(3u, packets.size());
    EXPECT_EQ((std::vector<char>{0x60, 4, 0, 0}), slice(*packets[1], 8, 4)); // 1120 ms
    EXPECT_EQ((std::vector<char>{7, 0, 0, 0}), slice(*packets[2], 4, 4));
}

namespace {

Frame datagram(unsigned seqNum, unsigned timeStamp, std::vector<char> body)
{
    Frame frame = bytesFrame(body);
    SonraPacket(frame, seqNum, timeStamp);
    return frame;
}

struct ReceiverRig {
    ReceiverRig() { pipe->addNode(receiver); }
    ~ReceiverRig() { pipe->clear(); }
    void send(Seqs seqNums)
    {
        for (unsigned seqNum : seqNums)
            receiver->dataReceived(datagram(seqNum, seqNum * 20, {char(seqNum), 'x'}));
    }
    // First payload byte of each frame's output, 0 for an empty one, -1 for nothing.
    std::vector<int> frames(unsigned count)
    {
        std::vector<int> out;
        while (count-- > 0) {
            pipe->processFrame();
            const Frame output = receiver->outputData();
            out.push_back(output ? (output->empty() ? 0 : output->at(0)) : -1);
        }
        return out;
    }
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(20);
    boost::shared_ptr<SonraReceiverNode> receiver = boost::make_shared<SonraReceiverNode>(ioService(), 20, 16000);
};

} // namespace

TEST(Receiver, PlaysOnePacketPerFrameIgnoresShortDatagramsAndCopiesThePayloadOnly)
{
    ReceiverRig rig;
    rig.send({1, 3});
    EXPECT_EQ((std::vector<int>{1, -1, 3, -1}), rig.frames(4));
    rig.send({4, 5, 6});
    EXPECT_EQ((std::vector<int>{4, 5, 6}), rig.frames(3));
    EXPECT_EQ((std::vector<char>{6, 'x'}), *rig.receiver->outputData());

    rig.receiver->dataReceived(Frame());
    rig.receiver->dataReceived(bytesFrame(std::vector<char>(11, 1)));
    EXPECT_EQ(5u, rig.receiver->statistics().framesPut);
    rig.receiver->dataReceived(datagram(7, 0, {})); // a header alone is an empty payload
    Frame wire = datagram(8, 20, {'a', 'b', 'c'});
    (*wire)[0] = (*wire)[1] = (*wire)[2] = 99; // format, reserved, length
    rig.receiver->dataReceived(wire);
    (*wire)[12] = 'z';
    EXPECT_EQ((std::vector<int>{0, 'a'}), rig.frames(2));
    EXPECT_EQ((std::vector<char>{'a', 'b', 'c'}), *rig.receiver->outputData());

    ReceiverRig ladder; // the policy reaches the jitter buffer: from empty its queue waits depth - 1 periods
    ladder.receiver->setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    ladder.send({1, 2});
    EXPECT_EQ((std::vector<int>{-1, -1, 1, 2}), ladder.frames(4));
}

TEST(Receiver, LongerPacketsTakeFromTheBufferOncePerPacketPeriod)
{
    ReceiverRig rig;
    rig.receiver->setPacketDuration(60); // one queue of depth 1, lead 6, at 60 ms
    rig.send({1, 2, 3});
    EXPECT_EQ((std::vector<int>{1, -1, -1, 2, -1, -1, 3, -1}), rig.frames(8));
    rig.receiver->reset(0);
    rig.send({4});
    EXPECT_EQ((std::vector<int>{4, -1, -1}), rig.frames(3)); // phase restarted
    rig.send({5, 13}); // 8 ahead: the queue keeps it 6 periods ahead
    EXPECT_EQ(concat(std::vector<int>(18, -1), {13, -1, -1}), rig.frames(21));
}

TEST(Receiver, UsesThePipesClockAndSurvivesAMoveToAYoungerPipe)
{
    ReceiverRig rig;
    rig.send({1, 2, 3});
    rig.frames(3);
    EXPECT_EQ(40u, rig.receiver->statistics().lastResidenceTime);
    rig.frames(50); // the pipe's clock is at 1060 ms
    rig.send({4, 5});
    rig.pipe->removeNode(rig.receiver);
    boost::weak_ptr<SonraPipe> old = rig.pipe;
    rig.pipe = boost::make_shared<SonraPipe>(20);
    EXPECT_TRUE(old.expired()); // detaching released it
    rig.pipe->addNode(rig.receiver);
    EXPECT_EQ((std::vector<int>{4}), rig.frames(1));
    EXPECT_EQ(0u, rig.receiver->statistics().lastResidenceTime); // the clock went back: no wait counted
    EXPECT_EQ((std::vector<int>{5}), rig.frames(1));
}

TEST(Jbuf, RecoveryResumesAfterStrayRestartedOrRenumberedStreams)
{
    // A lead-in, a disturbance, then 100 frames judged: how many of them play, recovery off and on.
    // On, RECOVERY_RUN_FRAMES (4) refused frames that agree re-anchor: 3 go unplayed. Strays, resyncs when on.
    struct Case { Seqs leadIn; long played[2]; Seqs judged; Counts on; };
    const Case cases[] = {
        {concat(range(1, 50), Seqs{0x7fffffffu}), {0, 100}, range(51, 100), {1, 0}}, // a stray far ahead
        {concat(range(1, 50), Seqs{50, 1000}), {0, 100}, range(51, 100), {1, 0}},    // a duplicate, then a stray
        {range(1, 300), {0, 97}, range(1, 100), {0, 1}},                       // the sender restarts
        {concat(range(1, 300), Seqs{300}), {0, 97}, range(1, 100), {0, 1}},          // ... after a duplicate
        {{}, {64, 100}, range(0x7fffffc0u, 100), {0, 0}},                      // a stream crossing 2^31
        {{}, {35, 97}, range(0xffffffc0u, 100), {0, 1}},                       // ... and 2^32
    };
    for (const Case& c : cases) {
        for (bool recovery : {false, true}) {
            JbufRig rig;
            rig.jbuf.setRecovery(recovery);
            for (std::size_t i = 0; i < c.leadIn.size(); ++i) { // a repeated number comes in the same period
                rig.put(c.leadIn[i]);
                if (i + 1 == c.leadIn.size() || c.leadIn[i + 1] != c.leadIn[i])
                    rig.get();
            }
            long played = 0;
            for (unsigned seqNum : c.judged) {
                rig.put(seqNum);
                const unsigned got = rig.get(); // 0: nothing
                played += got != 0 && std::count(c.judged.begin(), c.judged.end(), got);
            }
            EXPECT_EQ(c.played[recovery], played) << c.judged[0] << (recovery ? " on" : " off");
            const SonraJbufStatistics s = rig.jbuf.statistics();
            EXPECT_EQ(recovery ? c.on : (Counts{0, 0}), (Counts{s.framesStray, s.resyncs})) << c.judged[0];
            EXPECT_EQ(s.framesPut, s.framesTooOld + s.framesUnnumbered + s.framesStray + s.framesPlayed +
                                       s.framesDropped + s.queuedFrames);
        }
    }
}

namespace {

// 30 s of a seeded network, one packet per 20 ms: 20 ms + Pareto jitter (minimum 30 ms, shape 2), 2% loss,
// and a spike at 4 s that adds 300 ms and drains at 1 ms per ms. Arrivals are put before each get.
Seqs playThroughSpike(JbufRig& rig)
{
    rig.jbuf.setDelays(60, 20, 200, 300);
    sonranetsim::Random random(7); // the network model's own generator: the same draws on every library
    std::multimap<double, unsigned> inFlight;
    Seqs played;
    for (unsigned n = 1; n <= 1500; ++n) {
        const double sent = 20.0 * n, spike = sent < 4000 ? 0 : std::max(0.0, 4300 - sent);
        const double arrival = sent + 20 + 30 / std::sqrt(random.uniformOpen()) - 30 + spike;
        if (random.next() % 50 != 0)
            inFlight.emplace(arrival, n);
        for (rig.now = 20 * n; !inFlight.empty() && inFlight.begin()->first <= rig.now; inFlight.erase(inFlight.begin()))
            rig.put(inFlight.begin()->second);
        played.push_back(rig.get());
    }
    return played;
}

// The frames played, in order, without the gets that delivered nothing.
Seqs playedThroughSpike(JbufRig& rig, SonraJbuf::PlayoutPolicy policy)
{
    rig.jbuf.setPlayoutPolicy(policy);
    Seqs frames = playThroughSpike(rig);
    frames.erase(std::remove(frames.begin(), frames.end(), 0u), frames.end());
    EXPECT_TRUE(std::is_sorted(frames.begin(), frames.end(), std::less_equal<unsigned>())); // no repeat, no reorder
    EXPECT_EQ(frames.size(), rig.jbuf.statistics().framesPlayed);
    return frames;
}

} // namespace

TEST(Jbuf, AdaptivePlayoutFollowsASpikeWithoutRepeatingAndFixedIsTheDefault)
{
    JbufRig untouched, fixed, adaptive;
    fixed.jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    fixed.jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_INITIAL_DELAY);
    EXPECT_EQ(playThroughSpike(untouched), playThroughSpike(fixed));
    playedThroughSpike(adaptive, SonraJbuf::PLAYOUT_ADAPTIVE);
    const SonraJbufStatistics f = fixed.jbuf.statistics(), a = adaptive.jbuf.statistics();
    EXPECT_EQ(0u, f.switchesDeeper + f.switchesShallower + f.framesHeld + f.framesSkipped);
    EXPECT_EQ(3u, f.playedDepth);
    EXPECT_EQ((Counts{81, 23}), (Counts{f.framesTooOld, a.framesTooOld}));
    // Climbs 3 -> 5 at 2.5 s, comes down to 4 at 17.9 s skipping 1, climbs 4 -> 6 at 20.5 s; holds 2 frames.
    EXPECT_EQ((Counts{3, 1, 2, 1, 6}), (Counts{a.switchesDeeper, a.switchesShallower, a.framesHeld, a.framesSkipped,
                                               a.playedDepth}));
    EXPECT_EQ(1500u, a.framesPlayed + a.framesHeld + a.underruns); // every get: played, held or dry

    // A descent before the stream's first frame passes over nothing.
    JbufRig early;
    early.jbuf.setDelays(40, 20, 100, 300);
    early.jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    for (unsigned get = 1; get < SonraJbuf::PLAYOUT_DESCENT_HOLD_MS / 20; ++get)
        early.now += 20, early.get();
    early.put(50);
    EXPECT_EQ(50u, early.get()); // the descent's get
    const SonraJbufStatistics e = early.jbuf.statistics();
    EXPECT_EQ((Counts{1, 0, 1}), (Counts{e.switchesShallower, e.framesSkipped, e.playedDepth}));

    // Without memory the share is the last frame's alone: one too-old frame climbs, punctual ones come back down.
    const unsigned memory = SonraJbuf::PLAYOUT_SHARE_FRAMES;
    SonraJbuf::PLAYOUT_SHARE_FRAMES = 0;
    JbufRig forgetful;
    forgetful.jbuf.setDelays(20, 20, 100, 300);
    forgetful.jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    forgetful.puts({1, 2, 4});
    forgetful.gets(3); // 3 is due and missing: the head passes it
    forgetful.put(3);  // too old for depth 1 only
    forgetful.get();
    const unsigned climbed = forgetful.jbuf.statistics().playedDepth;
    for (unsigned n = 5; n < 400; ++n)
        forgetful.put(n), forgetful.get();
    SonraJbuf::PLAYOUT_SHARE_FRAMES = memory;
    EXPECT_EQ((Counts{2, 1}), (Counts{climbed, forgetful.jbuf.statistics().playedDepth}));
}

// 60 s of packets every 20 ms over 20 ms of delay; every 8 s, three packets 100 ms apart take 150 ms more.
SonraJbufStatistics throughRecurringSpikes(SonraJbuf::PlayoutPolicy policy)
{
    JbufRig rig;
    rig.jbuf.setDelays(60, 20, 400, 300);
    rig.jbuf.setPlayoutPolicy(policy);
    std::multimap<unsigned, unsigned> inFlight; // arrival (ms), sequence number
    for (unsigned n = 1; n <= 3000; ++n) {
        const unsigned sent = 20 * n, sincePeak = sent % 8000;
        inFlight.emplace(sent + 20 + (sincePeak <= 200 && sincePeak % 100 == 0 ? 150 : 0), n);
        for (rig.now = sent; !inFlight.empty() && inFlight.begin()->first <= rig.now; inFlight.erase(inFlight.begin()))
            rig.put(inFlight.begin()->second);
        rig.get();
    }
    return rig.jbuf.statistics();
}

TEST(Jbuf, HistogramPlayoutHoldsTheDepthOfRecurringSpikesWithoutRepeating)
{
    JbufRig tail;
    playedThroughSpike(tail, SonraJbuf::PLAYOUT_HISTOGRAM);
    const SonraJbufStatistics t = tail.jbuf.statistics();
    EXPECT_EQ(1500u, t.framesPlayed + t.framesHeld + t.underruns);
    const SonraJbufStatistics a = throughRecurringSpikes(SonraJbuf::PLAYOUT_ADAPTIVE),
                              h = throughRecurringSpikes(SonraJbuf::PLAYOUT_HISTOGRAM);
    // Both climb to 180 ms at the first burst. The adaptive policy comes down again before each of the seven and
    // loses frames to every one; the histogram policy holds 180 ms once the bursts recur (after the second).
    EXPECT_EQ((Counts{16, 6, 7, 2, 9, 9}), (Counts{a.framesTooOld, h.framesTooOld, a.switchesShallower,
                                                   h.switchesShallower, a.playedDepth, h.playedDepth}));
    EXPECT_EQ((Counts{22, 4, 2, 6}), (Counts{t.framesTooOld, t.switchesDeeper, t.switchesShallower, t.playedDepth}));

    // A zero tail still lets it come down over the depths no frame ever came late for.
    const double usualTail = SonraJbuf::PLAYOUT_HISTOGRAM_TAIL;
    SonraJbuf::PLAYOUT_HISTOGRAM_TAIL = 0;
    JbufRig punctual;
    punctual.jbuf.setDelays(60, 20, 400, 300);
    punctual.jbuf.setPlayoutPolicy(SonraJbuf::PLAYOUT_HISTOGRAM);
    for (unsigned n = 1; n <= 400; ++n) {
        punctual.now = 20 * n;
        punctual.put(n);
        punctual.get();
    }
    SonraJbuf::PLAYOUT_HISTOGRAM_TAIL = usualTail;
    EXPECT_EQ(1u, punctual.jbuf.statistics().playedDepth);
}

// With time stretching, a climb whose new queue has nothing to deliver at once delivers the left queue's frame, to
// be played over the period the climb then holds; a descent hands over the frame it passes over first. Nothing
// repeats or comes out of order.
TEST(Jbuf, TimeStretchingExpandsBeforeAHoldAndHandsOverWhatADescentPassesOver)
{
    for (SonraJbuf::PlayoutPolicy policy : {SonraJbuf::PLAYOUT_ADAPTIVE, SonraJbuf::PLAYOUT_HISTOGRAM}) {
        JbufRig plain, rig;
        plain.jbuf.setPlayoutPolicy(policy);
        playThroughSpike(plain);
        rig.jbuf.setPlayoutPolicy(policy);
        rig.jbuf.setTimeStretching(true);
        rig.jbuf.setDelays(60, 20, 200, 300);
        // playThroughSpike's network, with the requests read after each get.
        sonranetsim::Random random(7);
        std::multimap<double, unsigned> inFlight;
        Seqs heard; // every frame delivered or handed over, in order
        unsigned expandsHeld = 0, expands = 0;
        bool heldNext = false;
        for (unsigned n = 1; n <= 1500; ++n) {
            const double sent = 20.0 * n, spike = sent < 4000 ? 0 : std::max(0.0, 4300 - sent);
            const double arrival = sent + 20 + 30 / std::sqrt(random.uniformOpen()) - 30 + spike;
            if (random.next() % 50 != 0)
                inFlight.emplace(arrival, n);
            for (rig.now = 20 * n; !inFlight.empty() && inFlight.begin()->first <= rig.now;
                 inFlight.erase(inFlight.begin()))
                rig.put(inFlight.begin()->second);
            const unsigned got = rig.get();
            expandsHeld += heldNext && got == 0;
            const SonraJbufStretchRequest& request = rig.jbuf.stretchRequest();
            heldNext = request.expand;
            expands += request.expand;
            EXPECT_TRUE(got != 0 || (!request.expand && !request.passedOver));
            if (request.passedOver) {
                EXPECT_EQ(payload(request.passedOverSeqNum)->at(0), request.passedOver->at(0));
                EXPECT_EQ(heard.back() + 1, request.passedOverSeqNum);
                heard.push_back(request.passedOverSeqNum);
            }
            if (got)
                heard.push_back(got);
        }
        EXPECT_TRUE(std::is_sorted(heard.begin(), heard.end(), std::less<unsigned>())) << policy;
        const SonraJbufStatistics p = plain.jbuf.statistics(), s = rig.jbuf.statistics();
        // The same moves as without stretching. A climb whose new queue plays at once, or whose left queue has
        // nothing due, expands nothing; every descent passes over one frame and hands it over.
        EXPECT_EQ((Counts{p.switchesDeeper, p.switchesShallower, p.framesSkipped}),
                  (Counts{s.switchesDeeper, s.switchesShallower, s.framesSkipped}));
        EXPECT_EQ(policy == SonraJbuf::PLAYOUT_ADAPTIVE ? (Counts{3, 1, 1, 1, 1}) : (Counts{4, 2, 1, 1, 2}),
                  (Counts{s.switchesDeeper, s.switchesShallower, s.framesExpanded, expandsHeld, s.framesAccelerated}));
        EXPECT_EQ(s.switchesShallower, s.framesSkipped);
        EXPECT_EQ(expands, s.framesExpanded);
        EXPECT_EQ(heard.size(), s.framesPlayed + s.framesAccelerated);
        EXPECT_EQ((Counts{0, 0}), (Counts{p.framesExpanded, p.framesAccelerated}));
    }
}
