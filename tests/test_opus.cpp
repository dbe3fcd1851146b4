// The Opus nodes against bare libopus, and round trips through both in one
// graph. (The decoder on malformed packets, gaps, other durations and resets
// is held to bare libopus by the opusdec fuzz target's corpus.)
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
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
