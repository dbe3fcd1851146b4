// Own packet transport: packet layout, the jitter buffers, sender and receiver.
#include "sonrajbuf.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"

#include "shared.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <climits>
#include <cstring>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

using namespace ombrel;
using sonratest::Frame;

namespace {

Frame bytes(std::vector<char> contents)
{
    return boost::make_shared<std::vector<char> >(std::move(contents));
}

// A payload that names its frame, so that what comes out can be told apart.
Frame payload(unsigned seqNum, char copy = 0)
{
    return bytes({static_cast<char>(seqNum & 0xff), static_cast<char>((seqNum >> 8) & 0xff), copy});
}

uint32_t readU32(const std::vector<char>& data, std::size_t offset)
{
    uint32_t value;
    std::memcpy(&value, data.data() + offset, 4);
    return value;
}

std::string regexEscaped(const std::string& text)
{
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// What an assertion of the jitter buffer prints.
std::string jbufAssertion(const std::string& expression, const std::string& function)
{
    return regexEscaped("Assertion \"" + expression + "\" failed in function \"" + function +
                        "\" of \"multimedia/audio2/audio2components/src/sonrajbuf\"");
}

// Captures the records of one debug category while alive.
class LogCapture {
public:
    explicit LogCapture(const std::string& category) : m_category(category)
    {
        std::vector<std::string>* texts = &m_texts;
        setLogSink([texts, category](const LogRecord& record) {
            if (record.category == category)
                texts->push_back(record.text);
        });
        setDebugEnabled(category, true);
    }
    ~LogCapture()
    {
        setDebugEnabled(m_category, false);
        setLogSink(LogSink());
    }
    const std::vector<std::string>& texts() const { return m_texts; }
    std::size_t countContaining(const std::string& part) const
    {
        std::size_t count = 0;
        for (const std::string& text : m_texts)
            count += text.find(part) != std::string::npos;
        return count;
    }

private:
    std::string m_category;
    std::vector<std::string> m_texts;
};

// A jitter buffer on a clock the test moves by hand.
struct JbufRig {
    explicit JbufRig(unsigned frameDuration = 20) : jbuf(frameDuration)
    {
        unsigned* clock = &now;
        jbuf.setTimeHandler([clock]() { return *clock; });
    }
    void put(unsigned seqNum, char copy = 0) { jbuf.putFrame(payload(seqNum, copy), seqNum, seqNum * 20); }
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
    std::vector<unsigned> gets(unsigned count)
    {
        std::vector<unsigned> played;
        for (unsigned i = 0; i < count; ++i)
            played.push_back(get());
        return played;
    }

    unsigned now = 0; // ms
    SonraJbuf jbuf;
};

typedef std::vector<unsigned> Seqs;

} // namespace

// ---------------------------------------------------------------- packet

TEST(Packet, BuildsTheHeaderInPlaceInFrontOfThePayload)
{
    std::vector<char> contents(40);
    for (std::size_t i = 0; i < contents.size(); ++i)
        contents[i] = static_cast<char>(i * 7 + 1);
    Frame frame = bytes(contents);
    const SonraPacket packet(frame, 0x01020304u, 0xA0B0C0D0u);

    EXPECT_EQ(frame.get(), packet.m_data.get());
    ASSERT_EQ(52u, frame->size());
    const std::vector<char> head(frame->begin(), frame->begin() + 4);
    EXPECT_EQ((std::vector<char>{0x01, 0x00, 0x34, 0x00}), head);
    EXPECT_EQ((std::vector<char>{0x04, 0x03, 0x02, 0x01}), std::vector<char>(frame->begin() + 4, frame->begin() + 8));
    EXPECT_EQ(0xA0B0C0D0u, readU32(*frame, 8));
    EXPECT_EQ(contents, std::vector<char>(frame->begin() + 12, frame->end()));
    EXPECT_EQ(static_cast<void*>(frame->data()), static_cast<void*>(packet.m_header));
    EXPECT_EQ(frame->data() + 12, packet.m_payload);
    EXPECT_EQ(52, packet.m_header->length);
}

TEST(Packet, EmptyAndHugePayloads)
{
    Frame empty = bytes({});
    const SonraPacket small(empty, 1, 0);
    EXPECT_EQ(12u, empty->size());
    EXPECT_EQ(12, small.m_header->length);
    EXPECT_EQ(1, small.m_header->format);
    EXPECT_EQ(0, small.m_header->reserved);

    Frame wraps = bytes(std::vector<char>(65524, 'x'));
    const SonraPacket big(wraps, 2, 0);
    EXPECT_EQ(65536u, wraps->size());
    EXPECT_EQ(0, big.m_header->length);
    Frame wrapsMore = bytes(std::vector<char>(65530, 'x'));
    EXPECT_EQ(6, SonraPacket(wrapsMore, 3, 0).m_header->length);
}

TEST(Packet, ParsesWithoutCopyingAndNeverPointsPastAShortBuffer)
{
    Frame wire = bytes({1, 0, 14, 0, 7, 0, 0, 0, 40, 0, 0, 0, 'a', 'b'});
    const SonraPacket packet(wire);
    EXPECT_EQ(wire.get(), packet.m_data.get());
    EXPECT_EQ(7u, packet.m_header->seqNum);
    EXPECT_EQ(40u, packet.m_header->timeStamp);
    EXPECT_EQ('a', packet.m_payload[0]);

    const SonraPacket headerOnly(bytes(std::vector<char>(12)));
    EXPECT_EQ(headerOnly.m_data->data() + 12, headerOnly.m_payload);
    const SonraPacket tooShort(bytes(std::vector<char>(11)));
    EXPECT_EQ(nullptr, tooShort.m_header);
    EXPECT_EQ(nullptr, tooShort.m_payload);
}

TEST(PacketDeathTest, NullFrameBuffer)
{
    EXPECT_DEATH(SonraPacket{Frame()}, "px != 0");
    EXPECT_DEATH(SonraPacket(Frame(), 1, 2), "px != 0");
}

TEST(Packet, SequenceNumberOrder)
{
    struct Case {
        unsigned left, right;
        bool less;
    };
    for (const Case& c : {Case{10, 20, true}, Case{20, 10, false}, Case{300, 100, true}, Case{300, 200, false},
                          Case{256, 100, false}, Case{257, 127, true}, Case{257, 128, false},
                          Case{257, 256, false}, Case{5, 5, false}, Case{UINT_MAX, 0, true}})
        EXPECT_EQ(c.less, SonraPacket::seqNumLeftLessRight(c.left, c.right)) << c.left << " < " << c.right;
}

// ---------------------------------------------------------------- jitter buffer orderings

TEST(Jbuf, PlaysInOrderUnderrunsThenReanchorsAndRefusesTheOld)
{
    JbufRig rig; // 20 ms, depth 3, lead 18, ring 21
    rig.put(1);
    rig.put(2);
    rig.put(3);
    EXPECT_EQ((Seqs{1, 2, 3, 0}), rig.gets(4));
    rig.put(7); // the dry queue's head (4) moves to 7
    EXPECT_EQ(7u, rig.get());
    rig.put(5);
    EXPECT_EQ(0u, rig.get());

    const SonraJbufStatistics stats = rig.jbuf.statistics();
    EXPECT_EQ(5u, stats.framesPut);
    EXPECT_EQ(4u, stats.framesPlayed);
    EXPECT_EQ(1u, stats.framesTooOld);
    EXPECT_EQ(2u, stats.underruns);
    EXPECT_EQ(0u, stats.queuedFrames);
    EXPECT_EQ(7u, stats.lastSeqNum);
    EXPECT_EQ(140u, stats.lastTimeStamp);
}

TEST(Jbuf, TheFirstFrameAnchorsTheHead)
{
    JbufRig rig;
    rig.put(3);
    rig.put(1);
    rig.put(2);
    EXPECT_EQ((Seqs{3, 0}), rig.gets(2));
    EXPECT_EQ(2u, rig.jbuf.statistics().framesTooOld);
}

TEST(Jbuf, FramesArePlacedBySequenceNumber)
{
    JbufRig rig;
    rig.put(1);
    rig.put(3);
    rig.put(2);
    EXPECT_EQ((Seqs{1, 2, 3, 0}), rig.gets(4));
}

TEST(Jbuf, AFarAheadFramePushesTheHeadToTheMaximumLead)
{
    JbufRig rig;
    rig.put(1);
    rig.put(26); // 25 ahead: the head moves 7 times, dropping frame 1
    Seqs expected(18, 0);
    expected.push_back(26);
    EXPECT_EQ(expected, rig.gets(19));
    const SonraJbufStatistics stats = rig.jbuf.statistics();
    EXPECT_EQ(1u, stats.framesDropped);
    EXPECT_EQ(18u, stats.underruns);
}

TEST(Jbuf, ADuplicateReplacesItsSlotAndCountsTwice)
{
    JbufRig rig;
    rig.put(1, 'a');
    rig.put(1, 'b');
    EXPECT_EQ(2u, rig.jbuf.statistics().queuedFrames);
    EXPECT_EQ(1u, rig.jbuf.statistics().duplicates);
    Frame frame;
    ASSERT_EQ(0u, rig.jbuf.getFrame(frame, nullptr, nullptr));
    EXPECT_EQ('b', frame->at(2));
    EXPECT_EQ(1u, rig.jbuf.statistics().queuedFrames);
}

TEST(Jbuf, UnderrunLeavesTheCallersFrameAndNullPointersAreSkipped)
{
    JbufRig rig;
    Frame mine = payload(99);
    EXPECT_EQ(1u, rig.jbuf.getFrame(mine, nullptr, nullptr));
    EXPECT_EQ(payload(99)->at(0), mine->at(0));
    rig.put(5);
    EXPECT_EQ(0u, rig.jbuf.getFrame(mine, nullptr, nullptr));
    EXPECT_EQ(5, mine->at(0));
}

// Keeps four frames queued, each played 80 ms after it was put, once the
// first four (put together at time 0) are through.
void runSteadyStream(JbufRig& rig, unsigned gets, std::vector<unsigned>* played)
{
    for (unsigned seqNum = 1; seqNum <= 4; ++seqNum)
        rig.put(seqNum);
    for (unsigned n = 1; n <= gets; ++n) {
        rig.now += 20;
        played->push_back(rig.get());
        rig.put(n + 4);
    }
}

TEST(Jbuf, DepthDecreasesAfterAWholeObservationPeriodOfLongWaits)
{
    LogCapture log("audio2jbuf");
    JbufRig rig;
    std::vector<unsigned> played;
    // Get 1 sets the shortest wait (20 ms, too short to cut); get 151 ends
    // that period; get 152 sets 80 ms; get 302 ends the next period and cuts.
    runSteadyStream(rig, 301, &played);
    EXPECT_EQ(0u, rig.jbuf.statistics().depthDecreases);
    EXPECT_EQ(0u, log.countContaining("JBuf decrease buffer depth"));
    rig.now += 20;
    EXPECT_EQ(303u, rig.get()); // frame 302 is skipped
    const SonraJbufStatistics stats = rig.jbuf.statistics();
    EXPECT_EQ(1u, stats.depthDecreases);
    EXPECT_EQ(1u, stats.framesDropped);
    EXPECT_EQ(2u, stats.queuedFrames);
    EXPECT_EQ(1u, log.countContaining("JBuf decrease buffer depth"));
    EXPECT_EQ("JBuf after decrease m_dynMinBufTime=80, m_dynReferenceBufDepth=3, m_framesCount=2, "
              "m_bufDelayFrames=3, dynBufDelay=60",
              log.texts().back());

    // Three queued frames are the nominal depth: no further cut.
    played.clear();
    for (unsigned n = 0; n < 600; ++n) {
        rig.put(n + 306);
        rig.now += 20;
        played.push_back(rig.get());
    }
    EXPECT_EQ(1u, rig.jbuf.statistics().depthDecreases);
    EXPECT_EQ(304u, played.front());
    EXPECT_EQ(903u, played.back());
}

TEST(Jbuf, AClockStuckAtZeroNeverDecreasesTheDepth)
{
    LogCapture log("audio2jbuf");
    JbufRig rig;
    rig.jbuf.setTimeHandler(boost::function<unsigned ()>()); // no clock: reads 0
    std::vector<unsigned> played;
    for (unsigned seqNum = 1; seqNum <= 4; ++seqNum)
        rig.put(seqNum);
    for (unsigned n = 1; n <= 1000; ++n) {
        played.push_back(rig.get());
        rig.put(n + 4);
    }
    EXPECT_EQ(0u, rig.jbuf.statistics().depthDecreases);
    EXPECT_EQ(1000u, played.back());
    EXPECT_EQ(1000u, log.countContaining("New minBufTime=0"));
}

TEST(Jbuf, LogRecordsOfPutAndGet)
{
    JbufRig rig;
    LogCapture log("audio2jbuf");
    rig.now = 20;
    for (unsigned seqNum = 1; seqNum <= 5; ++seqNum)
        rig.put(seqNum);
    rig.now = 60;
    rig.get();
    const std::vector<std::string> expected = {
        "Jbuf 20 put frame ", "Jbuf 20 put frame ", "Jbuf 20 put frame ", "Jbuf 20 put frame ",
        "Jbuf 20 put frame ", "Jbuf 60 get frame ", "JBuf new m_dynReferenceBufDepth=4", "New minBufTime=40",
        "JBuf m_dynMinBufTime=40, m_dynReferenceBufDepth=4, m_framesCount=4, m_bufDelayFrames=3, "
        "m_dynCounter=0, dynCountPeriod=150, dynBufDelay=80"};
    EXPECT_EQ(expected, log.texts());
}

// ---------------------------------------------------------------- configuration

TEST(Jbuf, FiveCandidateQueuesPlayTheOneOfTheInitialDelay)
{
    JbufRig rig;
    rig.jbuf.setDelays(40, 20, 100, 60); // depths 1 to 5, lead depth + 3, ring 13
    LogCapture log("audio2jbuf");
    rig.put(1);
    rig.put(10); // the played queue (depth 2, lead 5) keeps it 5 ahead
    EXPECT_EQ(10u, log.countContaining("put frame"));
    EXPECT_EQ((Seqs{0, 0, 0, 0, 0, 10}), rig.gets(6));
    EXPECT_EQ(30u, log.countContaining("get frame"));
}

TEST(Jbuf, DelaysBelowTheFrameDurationAreRaised)
{
    JbufRig rig;
    rig.jbuf.setDelays(10, 10, 10, 0); // 20, 20, 20, 0: depth 1, lead 1, ring 2
    LogCapture log("audio2jbuf");
    rig.put(1);
    rig.put(5);
    EXPECT_EQ((Seqs{0, 5, 0}), rig.gets(3));
    EXPECT_EQ(3u, log.countContaining("get frame"));
}

TEST(Jbuf, SixtyMillisecondPeriod)
{
    JbufRig rig(60); // depth 1, lead 6, ring 7
    rig.put(1);
    rig.put(9);
    EXPECT_EQ((Seqs{0, 0, 0, 0, 0, 0, 9}), rig.gets(7));
}

TEST(Jbuf, ConfigurationChangesDropWhatIsBuffered)
{
    JbufRig rig;
    rig.put(1);
    rig.jbuf.setDelayRecalcPeriods(1000, 2000);
    EXPECT_EQ(0u, rig.get());
    rig.put(2);
    rig.jbuf.setFrameDuration(20);
    EXPECT_EQ(0u, rig.get());
    EXPECT_EQ(0u, rig.jbuf.statistics().framesPut);
}

TEST(JbufDeathTest, ConfigurationAssertionsInOrder)
{
    EXPECT_DEATH(SonraJbuf(0), jbufAssertion("frameDuration>0", "SonraJbuf"));
    EXPECT_DEATH(SonraJbuf(20).setFrameDuration(0), jbufAssertion("frameDuration>0", "setFrameDuration"));
    EXPECT_DEATH(SonraJbuf(20).setFrameDuration(40),
                 jbufAssertion("(d->m_initialDelay%d->m_frameDuration)==0", "reset"));
    EXPECT_DEATH(SonraJbuf(10).setDelays(60, 40, 50, 0), jbufAssertion("d->m_maxDelay>=d->m_initialDelay", "reset"));
    EXPECT_DEATH(SonraJbuf(10).setDelays(40, 50, 60, 0), jbufAssertion("d->m_initialDelay>=d->m_minDelay", "reset"));
    EXPECT_DEATH(SonraJbuf(20).setDelays(60, 30, 60, 0),
                 jbufAssertion("(d->m_minDelay%d->m_frameDuration)==0", "reset"));
    EXPECT_DEATH(SonraJbuf(20).setDelays(60, 60, 70, 0),
                 jbufAssertion("(d->m_maxDelay%d->m_frameDuration)==0", "reset"));
    EXPECT_DEATH(SonraJbuf(20).setDelays(60, 60, 60, 30),
                 jbufAssertion("(d->m_extraJitterDelay%d->m_frameDuration)==0", "reset"));
    // Unordered and not a multiple: the order of the checks decides.
    EXPECT_DEATH(SonraJbuf(20).setDelays(70, 60, 50, 0), jbufAssertion("d->m_maxDelay>=d->m_initialDelay", "reset"));
}

// ---------------------------------------------------------------- hostile input

TEST(Jbuf, SequenceNumbersWithoutAPlaceAreRefused)
{
    JbufRig rig;
    rig.put(0);
    rig.put(0x80000000u);
    rig.put(UINT_MAX);
    EXPECT_EQ(0u, rig.get());
    EXPECT_EQ(3u, rig.jbuf.statistics().framesUnnumbered);
    rig.put(0x7fffffffu);
    EXPECT_EQ(0x7fffffffu, rig.get());
}

TEST(Jbuf, AHugeJumpCostsOneTurnOfTheRingAndThenOnlyOldNumbersAreRefused)
{
    JbufRig rig;
    rig.put(1);
    rig.put(2);
    const auto start = std::chrono::steady_clock::now();
    rig.put(UINT_MAX); // four billion numbers ahead
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 0.5);
    Seqs expected(18, 0);
    expected.push_back(UINT_MAX);
    EXPECT_EQ(expected, rig.gets(19));
    // The head went on one number per get while the far frame waited: 22
    // is the lowest number still playable.
    rig.put(21);
    rig.put(23);
    EXPECT_EQ(23u, rig.get());
    EXPECT_EQ(1u, rig.jbuf.statistics().framesTooOld);
    EXPECT_EQ(2u, rig.jbuf.statistics().framesDropped);
}

TEST(Jbuf, AClockThatGoesBackwardsCountsTheWaitAsZero)
{
    JbufRig rig;
    rig.now = 5000;
    rig.put(1);
    rig.put(2);
    rig.now = 0; // the owner moved to a younger clock
    EXPECT_EQ(1u, rig.get());
    EXPECT_EQ(0u, rig.jbuf.statistics().lastResidenceTime);
    rig.now = 20;
    EXPECT_EQ(2u, rig.get());
}

TEST(Jbuf, RandomTrafficKeepsTheBooksBalanced)
{
    std::mt19937 random(12345);
    for (const unsigned initial : {20u, 60u, 100u}) {
        JbufRig rig;
        rig.jbuf.setDelays(initial, 20, 100, 60);
        unsigned next = 1;
        for (unsigned step = 0; step < 20000; ++step) {
            rig.now += random() % 3 == 0 ? 0 : 20;
            const unsigned choice = random() % 10;
            unsigned seqNum = next;
            if (choice == 0)
                seqNum = random();          // anywhere
            else if (choice == 1)
                seqNum = next + random() % 40; // ahead
            else if (choice == 2)
                seqNum = next > 30 ? next - random() % 30 : next; // behind
            else
                ++next;
            rig.jbuf.putFrame(payload(seqNum), seqNum, 0);
            if (random() % 2 == 0) {
                Frame frame;
                rig.jbuf.getFrame(frame, nullptr, nullptr);
            }
        }
        const SonraJbufStatistics stats = rig.jbuf.statistics();
        EXPECT_EQ(20000u, stats.framesPut);
        EXPECT_GT(stats.framesPlayed, 0u);
        EXPECT_LE(stats.framesPlayed + stats.framesTooOld + stats.framesUnnumbered + stats.framesDropped +
                      stats.duplicates,
                  stats.framesPut);
    }
}

// ---------------------------------------------------------------- sender

namespace {

struct SenderRig {
    SenderRig() : pipe(boost::make_shared<SonraPipe>(20)), sender(boost::make_shared<SonraSenderNode>(
                                                               sonratest::ioService(), 20, 16000))
    {
        pipe->connect(source.node(20, 16000), sender);
    }
    ~SenderRig() { pipe->clear(); }
    void install()
    {
        std::vector<Frame>* sent = &packets;
        sender->setSendHandler([sent](Frame packet) { sent->push_back(packet); });
    }
    void frame(std::vector<char> contents)
    {
        source.push(bytes(std::move(contents)));
        pipe->processFrame();
    }

    sonratest::QueueSource source;
    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<SonraSenderNode> sender;
    std::vector<Frame> packets;
};

} // namespace

TEST(Sender, NumbersEveryNonEmptyFrameWithOrWithoutAHandler)
{
    SenderRig rig;
    rig.frame({1});
    rig.frame({2});
    rig.frame({3});
    rig.install();
    rig.frame({});            // empty: no number consumed
    rig.source.push(Frame()); // none at all
    rig.pipe->processFrame();
    rig.frame({4, 4});
    ASSERT_EQ(1u, rig.packets.size());
    EXPECT_EQ(4u, readU32(*rig.packets[0], 4));
    EXPECT_EQ(100u, readU32(*rig.packets[0], 8)); // five ticks before it
    EXPECT_FALSE(rig.sender->outputData());

    rig.sender->reset(1000);
    rig.frame({5});
    rig.sender->clearSendHandler();
    rig.frame({6});
    rig.install();
    rig.frame({7});
    ASSERT_EQ(3u, rig.packets.size());
    EXPECT_EQ(1120u, readU32(*rig.packets[1], 8));
    EXPECT_EQ(7u, readU32(*rig.packets[2], 4));
}

TEST(Sender, InsertsTheHeaderIntoTheUpstreamBuffer)
{
    SenderRig rig;
    rig.install();
    Frame encoded = bytes({'o', 'p', 'u', 's'});
    rig.source.push(encoded);
    rig.pipe->processFrame();
    ASSERT_EQ(1u, rig.packets.size());
    EXPECT_EQ(encoded.get(), rig.packets[0].get());
    EXPECT_EQ((std::vector<char>{1, 0, 16, 0, 1, 0, 0, 0, 0, 0, 0, 0, 'o', 'p', 'u', 's'}), *encoded);
}

TEST(Sender, AThrowingHandlerDoesNotConsumeTheNumber)
{
    SenderRig rig;
    bool fail = true;
    std::vector<unsigned> seen;
    rig.sender->setSendHandler([&](Frame packet) {
        seen.push_back(readU32(*packet, 4));
        if (fail)
            throw std::runtime_error("socket gone");
    });
    rig.source.push(bytes({1}));
    EXPECT_THROW(rig.pipe->processFrame(), std::runtime_error);
    fail = false;
    rig.frame({2});
    EXPECT_EQ((std::vector<unsigned>{1, 1}), seen);
}

// ---------------------------------------------------------------- receiver

namespace {

Frame datagram(unsigned seqNum, unsigned timeStamp, std::vector<char> body)
{
    Frame frame = bytes(std::move(body));
    SonraPacket(frame, seqNum, timeStamp);
    return frame;
}

struct ReceiverRig {
    explicit ReceiverRig(unsigned frameDuration = 20)
        : pipe(boost::make_shared<SonraPipe>(frameDuration)),
          receiver(boost::make_shared<SonraReceiverNode>(sonratest::ioService(), frameDuration, 16000))
    {
        pipe->addNode(receiver);
    }
    ~ReceiverRig() { pipe->clear(); }
    void send(unsigned seqNum) { receiver->dataReceived(datagram(seqNum, seqNum * 20, {char(seqNum), 'x'})); }
    // First payload byte of each frame's output, or -1 for nothing.
    std::vector<int> frames(unsigned count)
    {
        std::vector<int> out;
        for (unsigned i = 0; i < count; ++i) {
            pipe->processFrame();
            const Frame output = receiver->outputData();
            out.push_back(output ? (output->empty() ? 0 : output->at(0)) : -1);
        }
        return out;
    }

    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<SonraReceiverNode> receiver;
};

} // namespace

TEST(Receiver, PlaysOnePacketPerFrameAndNothingForALostOne)
{
    ReceiverRig rig;
    rig.send(1);
    rig.send(3);
    EXPECT_EQ((std::vector<int>{1, -1, 3, -1}), rig.frames(4));
    rig.send(4);
    rig.send(5);
    rig.send(6);
    EXPECT_EQ((std::vector<int>{4, 5, 6}), rig.frames(3));
    const Frame output = rig.receiver->outputData();
    EXPECT_EQ((std::vector<char>{6, 'x'}), *output);
}

TEST(Receiver, ShortDatagramsAreIgnoredAndAHeaderAloneIsAnEmptyPayload)
{
    ReceiverRig rig;
    rig.receiver->dataReceived(Frame());
    rig.receiver->dataReceived(bytes(std::vector<char>(11, 1)));
    EXPECT_EQ(0u, rig.receiver->statistics().framesPut);
    rig.receiver->dataReceived(datagram(1, 0, {}));
    EXPECT_EQ(1u, rig.receiver->statistics().framesPut);
    rig.pipe->processFrame();
    ASSERT_TRUE(rig.receiver->outputData());
    EXPECT_TRUE(rig.receiver->outputData()->empty());
}

TEST(Receiver, CopiesThePayloadAndIgnoresTheOtherHeaderFields)
{
    ReceiverRig rig;
    Frame wire = datagram(1, 0, {'a', 'b', 'c'});
    (*wire)[0] = 9;  // format
    (*wire)[1] = 9;  // reserved
    (*wire)[2] = 99; // length
    rig.receiver->dataReceived(wire);
    (*wire)[12] = 'z';
    rig.pipe->processFrame();
    EXPECT_EQ((std::vector<char>{'a', 'b', 'c'}), *rig.receiver->outputData());
}

TEST(Receiver, LongerPacketsTakeFromTheBufferOncePerPacketPeriod)
{
    ReceiverRig rig;
    rig.receiver->setPacketDuration(60); // one queue of depth 1, lead 6, at 60 ms
    for (unsigned seqNum = 1; seqNum <= 3; ++seqNum)
        rig.send(seqNum);
    EXPECT_EQ((std::vector<int>{1, -1, -1, 2, -1, -1, 3, -1}), rig.frames(8));
    rig.receiver->reset(0);
    rig.send(4);
    EXPECT_EQ((std::vector<int>{4, -1, -1}), rig.frames(3)); // phase restarted
    rig.send(5);
    rig.send(13); // 8 ahead: the queue keeps it 6 periods ahead
    std::vector<int> expected(21, -1);
    expected[18] = 13;
    EXPECT_EQ(expected, rig.frames(21));
}

TEST(Receiver, UsesThePipesClockAndSurvivesAMoveToAYoungerPipe)
{
    ReceiverRig rig;
    for (unsigned seqNum = 1; seqNum <= 3; ++seqNum)
        rig.send(seqNum);
    rig.frames(3);
    EXPECT_EQ(40u, rig.receiver->statistics().lastResidenceTime);

    rig.frames(50); // the pipe's clock is at 1060 ms
    rig.send(4);
    rig.send(5);
    rig.pipe->removeNode(rig.receiver);
    boost::shared_ptr<SonraPipe> younger = boost::make_shared<SonraPipe>(20);
    younger->addNode(rig.receiver);
    younger->processFrame();
    EXPECT_EQ(4, rig.receiver->outputData()->at(0));
    EXPECT_EQ(0u, rig.receiver->statistics().lastResidenceTime);
    younger->processFrame();
    EXPECT_EQ(5, rig.receiver->outputData()->at(0));
    younger->clear();
}

TEST(Receiver, DetachingReleasesThePipe)
{
    boost::weak_ptr<SonraPipe> watched;
    auto receiver = boost::make_shared<SonraReceiverNode>(sonratest::ioService(), 20, 16000);
    {
        auto pipe = boost::make_shared<SonraPipe>(20);
        watched = pipe;
        pipe->addNode(receiver);
        pipe->removeNode(receiver);
    }
    EXPECT_TRUE(watched.expired());
    // Unattached, the clock reads 0 and frames still play.
    receiver->dataReceived(datagram(1, 0, {'q'}));
    EXPECT_EQ('q', receiver->doProcess()->at(0));
}

TEST(ReceiverDeathTest, PacketDurationsThatDoNotDivideTheDelays)
{
    const std::string expected = jbufAssertion("(d->m_initialDelay%d->m_frameDuration)==0", "reset");
    EXPECT_DEATH(SonraReceiverNode(sonratest::ioService(), 20, 16000).setPacketDuration(40), expected);
    EXPECT_DEATH(SonraReceiverNode(sonratest::ioService(), 40, 16000), expected);
}

TEST(Receiver, DelaysCanBeChangedBeforeALongerPacketDuration)
{
    ReceiverRig rig;
    rig.receiver->setDelays(80, 40, 120, 40);
    rig.receiver->setPacketDuration(40); // depth 2, lead 3 at 40 ms
    rig.send(1);
    rig.send(10);
    EXPECT_EQ((std::vector<int>{-1, -1, -1, -1, -1, -1, 10}), rig.frames(7));
}

TEST(Receiver, SenderToReceiverRoundTrip)
{
    sonratest::QueueSource source;
    auto pipe = boost::make_shared<SonraPipe>(20);
    auto sender = boost::make_shared<SonraSenderNode>(sonratest::ioService(), 20, 16000);
    auto receiver = boost::make_shared<SonraReceiverNode>(sonratest::ioService(), 20, 16000);
    pipe->connect(source.node(20, 16000), sender);
    pipe->addNode(receiver);
    std::vector<Frame> inFlight;
    sender->setSendHandler([&inFlight](Frame packet) { inFlight.push_back(packet); });
    std::vector<std::vector<char> > received;
    for (unsigned n = 0; n < 40; ++n) {
        source.push(bytes(std::vector<char>(n % 7 + 1, char(n))));
        pipe->processFrame();
        if (Frame out = receiver->outputData())
            received.push_back(*out);
        for (const Frame& packet : inFlight)
            receiver->dataReceived(packet);
        inFlight.clear();
    }
    ASSERT_EQ(39u, received.size());
    for (unsigned n = 0; n < received.size(); ++n)
        EXPECT_EQ(std::vector<char>(n % 7 + 1, char(n)), received[n]) << n;
    EXPECT_EQ(760u, receiver->statistics().lastTimeStamp); // packet 39 is still in flight
    pipe->clear();
}

TEST(Receiver, RandomDatagramsNeverHurt)
{
    ReceiverRig rig;
    std::mt19937 random(99);
    for (unsigned n = 0; n < 20000; ++n) {
        std::vector<char> wire(random() % 40);
        for (char& byte : wire)
            byte = static_cast<char>(random());
        rig.receiver->dataReceived(bytes(wire));
        if (n % 3 == 0)
            rig.pipe->processFrame();
    }
    const SonraJbufStatistics stats = rig.receiver->statistics();
    EXPECT_GT(stats.framesPut, 10000u);
    EXPECT_LT(stats.framesPut, 20000u);
}
