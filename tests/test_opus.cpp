// The Opus nodes against bare libopus, and round trips through both in one
// graph. (The decoder on malformed packets, gaps, other durations and resets
// is held to bare libopus by the opusdec fuzz target's corpus.)
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "testutil.h"

#include <opus.h>

#include <memory>

using namespace ombrel;
using namespace sonratest;
typedef Bytes Packet;

namespace {

// libopus used directly, set up as the nodes promise to set it up.
struct Bare {
    explicit Bare(unsigned rate)
        : encoder(opus_encoder_create(rate, 1, OPUS_APPLICATION_VOIP, &error), opus_encoder_destroy),
          decoder(opus_decoder_create(rate, 1, &error), opus_decoder_destroy) {}
    Packet encode(const Samples& pcm)
    {
        Packet packet(4000);
        packet.resize(std::max(0, opus_encode(encoder.get(), pcm.data(), int(pcm.size()), packet.data(), 4000)));
        return packet;
    }
    Samples decode(const Packet& packet, unsigned samples)
    {
        Samples pcm(samples);
        pcm.resize(std::max(0, opus_decode(decoder.get(), packet.data(), int(packet.size()), pcm.data(), samples, 0)));
        return pcm;
    }

    int error = OPUS_OK;
    std::unique_ptr<OpusEncoder, void (*)(OpusEncoder*)> encoder;
    std::unique_ptr<OpusDecoder, void (*)(OpusDecoder*)> decoder;
};

} // namespace

// Both nodes at 16 kHz with 20 ms frames, beside bare libopus.
class OpusNodes : public ::testing::Test {
protected:
    static constexpr unsigned RATE = 16000; // Hz
    static constexpr unsigned N = 320;      // samples per frame
    Samples frame(unsigned k) const { return slice(signal, k * N, N); }
    Samples decoded(const Packet& packet) { return samplesOf(decoder.step(bytesFrame(packet))); }

    OpusNodes()
    {
        Bare source(RATE);
        for (unsigned k = 0; k < 8; ++k)
            packets.push_back(source.encode(frame(k)));
    }

    NodeGraph<SonraOpusEncNode> encoder{20, RATE};
    NodeGraph<SonraOpusDecNode> decoder{20, RATE};
    Bare bare{RATE};
    Samples signal = speechLike(RATE, 8 * N);
    std::vector<Packet> packets; // of the signal, from a fresh encoder
};

TEST_F(OpusNodes, EncoderGivesTheBarePacketsOfWholeFramesOnly)
{
    EXPECT_EQ(bare.encode(frame(0)), bytesOf(encoder.step(frameOf(frame(0)))));
    const Packet first = bare.encode(frame(1));
    EXPECT_EQ(concat(first, bare.encode(frame(2))), bytesOf(encoder.step(frameOf(concat(frame(1), frame(2))))));
    const Frame oneAndAHalf = frameOf(concat(frame(3), slice(frame(4), 0, N / 2)));
    EXPECT_EQ(bare.encode(frame(3)), bytesOf(encoder.step(oneAndAHalf))); // the tail is dropped
    // None of these touches the encoder: the stream goes on as if they never came.
    Frame oddBytes = frameOf(frame(4));
    oddBytes->pop_back();
    for (const Frame& nothing : {Frame(), bytesFrame(Bytes()), frameOf(slice(frame(4), 0, N - 1)), oddBytes})
        EXPECT_FALSE(encoder.step(nothing));
    EXPECT_EQ(bare.encode(frame(4)), bytesOf(encoder.step(frameOf(frame(4)))));
    encoder.pipe->reset(0); // restarts the stream
    EXPECT_EQ(Bare(RATE).encode(frame(5)), bytesOf(encoder.step(frameOf(frame(5)))));
}

TEST(OpusNodesDeathTest, ThirtyMillisecondFramesGiveNothingAndRatesOpusRefusesFail)
{
    for (unsigned rate : {8000u, 16000u, 48000u})
        EXPECT_FALSE(NodeGraph<SonraOpusEncNode>(30, rate).step(frameOf(speechLike(rate, rate * 30 / 1000)))) << rate;
    EXPECT_DEATH(SonraOpusEncNode(ioService(), 20, 44100), assertion("d->m_encoderPtr", "SonraOpusEncNode", "sonraopusencnode"));
    EXPECT_DEATH(SonraOpusDecNode(ioService(), 20, 22050), assertion("d->m_decoderPtr", "SonraOpusDecNode", "sonraopusdecnode"));
}

// source -> encoder -> decoder in one pipe at every rate and duration:
// each packet is bare libopus's for the frame, each decoded frame bare
// libopus's for the packet.
TEST(OpusRoundTrip, GraphGivesBareLibopusAtEveryRateAndDuration)
{
    for (unsigned rate : {8000u, 16000u, 48000u}) {
        for (unsigned duration : {10u, 20u, 40u, 60u}) { // ms
            const unsigned n = rate * duration / 1000;  // samples per frame
            const Samples signal = speechLike(rate, n * 10);
            NodeGraph<SonraOpusEncNode> graph(duration, rate);
            auto decoder = boost::make_shared<SonraOpusDecNode>(ioService(), duration, rate);
            graph.pipe->connect(graph.node, decoder);
            Bare bare(rate);
            for (unsigned k = 0; k < 10; ++k) {
                const Packet packet = bytesOf(graph.step(frameOf(slice(signal, k * n, n))));
                ASSERT_EQ(bare.encode(slice(signal, k * n, n)), packet) << rate << " Hz, " << duration << " ms";
                ASSERT_EQ(bare.decode(packet, n), samplesOf(decoder->outputData())) << rate << " Hz, " << k;
            }
        }
    }
}

TEST_F(OpusNodes, ConcealmentFillsAStartedGapUpToItsLimit)
{
    decoder.node->setConcealment(50); // ms: two whole 20 ms frames
    EXPECT_FALSE(decoder.step(Frame())); // the stream has not started
    EXPECT_EQ(bare.decode(packets[0], N), decoded(packets[0]));
    for (unsigned k = 0; k < 2; ++k)
        EXPECT_EQ(bare.decode(Packet(), N), samplesOf(decoder.step(Frame()))) << "frame " << k;
    EXPECT_FALSE(decoder.step(bytesFrame({}))); // beyond the limit: silence
    EXPECT_EQ(bare.decode(packets[1], N), decoded(packets[1]));
    EXPECT_EQ(bare.decode(Packet(), N), samplesOf(decoder.step(Frame()))); // a new gap
    decoder.pipe->reset(0);
    EXPECT_FALSE(decoder.step(Frame()));
}

// Packet 8 of 12 lost: the decoder that holds packets back a frame gives
// every frame one frame late and rebuilds the lost one from packet 9's FEC
// data, closer to what packet 8 decodes to than concealment comes.
TEST(OpusFec, RebuildsALostFrameBetterThanConcealment)
{
    const unsigned RATE = 16000, N = 320, LOST = 8; // Hz, samples per frame
    const std::vector<int16_t> signal = speechLike(RATE, (LOST + 2) * N);
    NodeGraph<SonraOpusEncNode> encoder(20, RATE);
    EXPECT_EQ(OPUS_BAD_ARG, encoder.node->setInbandFec(101));
    ASSERT_EQ(0, encoder.node->setInbandFec(20));
    NodeGraph<SonraOpusDecNode> fec(20, RATE), concealing(20, RATE);
    fec.node->setFecRecovery(true);
    concealing.node->setConcealment(20);
    Bare clean(RATE);
    std::vector<std::vector<int16_t> > whole, late, concealed; // by graph frame
    for (unsigned k = 0; k < LOST + 2; ++k) {
        const Frame packet = encoder.step(frameOf(slice(signal, k * N, N)));
        whole.push_back(clean.decode(bytesOf(packet), N));
        late.push_back(samplesOf(fec.step(k == LOST ? Frame() : packet)));
        concealed.push_back(samplesOf(concealing.step(k == LOST ? Frame() : packet)));
    }
    EXPECT_TRUE(late[0].empty());
    for (unsigned k = 1; k <= LOST; ++k)
        EXPECT_EQ(whole[k - 1], late[k]) << "frame " << k;
    const double fromFec = bestAlignment(whole[LOST], late[LOST + 1], 0, 0, 0).correlation;
    const double fromConcealment = bestAlignment(whole[LOST], concealed[LOST], 0, 0, 0).correlation;
    EXPECT_GT(fromFec, fromConcealment + 0.3) << fromFec << " " << fromConcealment;
}

namespace {

// 40 frames of a 200 Hz tone through a receiver and a decoder: packet 4 comes two frames late, after 6, and the
// jitter buffer (adaptive from 20 to 60 ms, deciding on the last frame alone, descending after 200 ms) climbs two
// frames, then comes back down one at a time.
// Each graph frame's output, empty for none.
std::vector<Samples> throughAClimbAndADescent(bool stretching, SonraJbufStatistics& statistics)
{
    const unsigned memory = SonraJbuf::PLAYOUT_SHARE_FRAMES, hold = SonraJbuf::PLAYOUT_DESCENT_HOLD_MS;
    SonraJbuf::PLAYOUT_SHARE_FRAMES = 0;
    SonraJbuf::PLAYOUT_DESCENT_HOLD_MS = 200;
    const unsigned rate = 16000, n = 320; // Hz, samples per frame
    auto receiver = boost::make_shared<SonraReceiverNode>(ioService(), 20, rate);
    auto decoder = boost::make_shared<SonraOpusDecNode>(ioService(), 20, rate);
    auto pipe = boost::make_shared<SonraPipe>(20);
    pipe->connect(receiver, decoder);
    receiver->setDelays(20, 20, 60, 300);
    receiver->setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    receiver->setTimeStretching(stretching);
    decoder->setTimeStretching(stretching ? receiver : boost::shared_ptr<SonraReceiverNode>());
    Bare source(rate);
    const Samples tone = sine(200, rate, 41 * n);
    std::vector<Samples> out;
    for (unsigned k = 0; k < 40; ++k) {
        for (unsigned seqNum : k == 3 ? std::vector<unsigned>{} : k == 5 ? std::vector<unsigned>{6, 4} : std::vector<unsigned>{k + 1}) {
            Frame datagram = bytesFrame(source.encode(slice(tone, (seqNum - 1) * n, n)));
            SonraPacket(datagram, seqNum, seqNum * 20);
            receiver->dataReceived(datagram);
        }
        pipe->processFrame();
        out.push_back(samplesOf(decoder->outputData()));
    }
    statistics = receiver->statistics();
    pipe->clear();
    SonraJbuf::PLAYOUT_SHARE_FRAMES = memory;
    SonraJbuf::PLAYOUT_DESCENT_HOLD_MS = hold;
    return out;
}

unsigned zeroCrossings(const Samples& pcm)
{
    unsigned count = 0;
    for (std::size_t i = 1; i < pcm.size(); ++i)
        count += (pcm[i - 1] < 0) != (pcm[i] < 0);
    return count;
}

} // namespace

// The frame before the climb plays on over the first period the climb holds, and the frames the descents pass
// over play with the next: the tone keeps its pitch and no step breaks it.
TEST(OpusStretch, ClimbsAndDescentsPlaySlowerAndFasterInsteadOfHoldingAndSkipping)
{
    SonraJbufStatistics plainCounts, counts;
    const std::vector<Samples> plain = throughAClimbAndADescent(false, plainCounts);
    const std::vector<Samples> stretched = throughAClimbAndADescent(true, counts);
    std::vector<unsigned> silent, plainSilent;
    for (unsigned k = 0; k < 40; ++k) {
        if (stretched[k].empty())
            silent.push_back(k);
        if (plain[k].empty())
            plainSilent.push_back(k);
    }
    // Packet 4 missing at its period; the climb of two depths holds two periods, the first one covered.
    EXPECT_EQ((std::vector<unsigned>{3, 5, 6}), plainSilent);
    EXPECT_EQ((std::vector<unsigned>{3, 7}), silent);
    typedef std::vector<uint64_t> Counts;
    EXPECT_EQ((Counts{1, 2, 1, 2}), (Counts{counts.switchesDeeper, counts.switchesShallower, counts.framesExpanded,
                                           counts.framesAccelerated}));
    EXPECT_EQ((Counts{0, 0, 2}), (Counts{plainCounts.framesExpanded, plainCounts.framesAccelerated,
                                        plainCounts.framesSkipped}));
    int largestStep = 0; // within runs of periods that played
    for (unsigned k = 4; k < 40; ++k) {
        if (stretched[k].empty())
            continue;
        EXPECT_NEAR(8, int(zeroCrossings(stretched[k])), 2) << "frame " << k; // 4 or 16 if the pitch moved
        const Samples& before = stretched[k - 1];
        const Samples run = before.empty() ? stretched[k] : concat(Samples{before.back()}, stretched[k]);
        for (std::size_t i = 1; i < run.size(); ++i)
            largestStep = std::max(largestStep, std::abs(run[i] - run[i - 1]));
    }
    EXPECT_LT(largestStep, 2000); // the tone itself moves up to 785 a sample
}
