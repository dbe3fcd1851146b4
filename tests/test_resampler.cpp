// The resampler node judged against sox and SpeexDSP itself.
#include "sonraresamplernode.h"
#include "testutil.h"

#include <speex/speex_resampler.h>

using namespace ombrel;
using namespace sonratest;

namespace {

const double TONE = 1000.0;       // Hz
const double AMPLITUDE = 10000.0; // of the test tone, 16-bit scale

// A resampler from `inRate` to `outRate` fed in its own pipe.
NodeGraph<SonraResamplerNode> resampler(unsigned inRate, unsigned outRate, unsigned channels = 1)
{
    auto node = boost::make_shared<SonraResamplerNode>(ioService(), inRate, outRate, 20);
    node->setOutputChannels(channels);
    return NodeGraph<SonraResamplerNode>(node, channels, inRate);
}

class ResamplerTone : public testing::TestWithParam<std::pair<unsigned, unsigned> > {};

} // namespace

// One second of a 1 kHz tone in 20 ms frames:
// - is, sample for sample, what one uninterrupted SpeexDSP run over it gives,
//   so frame borders add, drop or change nothing (44.1 kHz is the hard case:
//   the filter phase at each border is somewhere else);
// - keeps its level within 0.1 dB (the quality-5 passband is flat to well
//   under 0.05 dB there) in two windows past the filter's start-up;
// - matches sox's very-high-quality converter, given the same filter delay,
//   within 70 dB: images and rounding of each are some 85 dB down, while a
//   sample slipped at a frame border or a frequency 10 mHz off costs tens of dB.
TEST_P(ResamplerTone, IsSeamlessKeepsLevelAndMatchesSox)
{
    const unsigned inRate = GetParam().first, rate = GetParam().second;
    const Samples in = sine(TONE, inRate, inRate, AMPLITUDE);
    auto graph = resampler(inRate, rate);
    const Samples out = graph.runInPieces(in, {inRate / 50});
    ASSERT_NEAR(double(out.size()), double(rate), 1.0) << "one second in, one second out";

    int error = 0;
    const int defaultQuality = 5; // SpeexDSP's quality scale, 0..10
    SpeexResamplerState* whole = speex_resampler_init(1, inRate, rate, defaultQuality, &error);
    ASSERT_TRUE(whole);
    Samples continuous(rate + 100);
    spx_uint32_t inLen = in.size(), outLen = continuous.size();
    speex_resampler_process_int(whole, 0, in.data(), &inLen, continuous.data(), &outLen);
    const unsigned delay = speex_resampler_get_input_latency(whole);
    speex_resampler_destroy(whole);
    continuous.resize(outLen);
    EXPECT_EQ(out, continuous);

    for (std::size_t from : {rate / 10, rate / 10 + rate / 2})
        EXPECT_NEAR(20 * std::log10(toneAmplitude(slice(out, from, rate / 5), TONE, rate) / AMPLITUDE), 0.0, 0.1);
    const std::string rateText = std::to_string(rate);
    const Samples sox = sonratest::sox(in, inRate, 1, "-c 1 -r " + rateText + " - pad " + std::to_string(delay) + "s rate -v " + rateText);
    ASSERT_GE(sox.size(), out.size()) << "sox must be installed (scripts/bootstrap)";
    double signal = 0, noise = 0;
    for (std::size_t i = rate / 10; i < out.size(); ++i) {
        signal += double(sox[i]) * sox[i];
        noise += (double(out[i]) - sox[i]) * (double(out[i]) - sox[i]);
    }
    EXPECT_GT(10 * std::log10(signal / std::max(noise, 1e-9)), 70.0) << "dB SNR against sox";
}

INSTANTIATE_TEST_SUITE_P(Rates, ResamplerTone,
                         testing::Values(std::make_pair(8000u, 16000u), std::make_pair(16000u, 48000u),
                                         std::make_pair(48000u, 16000u), std::make_pair(44100u, 16000u)));

// Each stereo channel comes out exactly as it would alone; after reset
// nothing of the earlier signal is left in the filter.
TEST(Resampler, StereoChannelsStayApart)
{
    const Samples left = sine(TONE, 16000, 3200, AMPLITUDE), right = sine(1500.0, 16000, 3200, 20000.0);
    auto stereo = resampler(16000, 48000, 2), monoLeft = resampler(16000, 48000), monoRight = resampler(16000, 48000);
    monoLeft.runInPieces(right, {320});
    monoLeft.pipe->reset(0);
    stereo.runInPieces(interleave(right, left), {640});
    stereo.pipe->reset(0);
    const Samples both = stereo.runInPieces(interleave(left, right), {640});
    ASSERT_EQ(both.size(), 2u * 9600);
    EXPECT_EQ(both, interleave(monoLeft.runInPieces(left, {320}), monoRight.runInPieces(right, {320})));
}

// Equal rates pass the very same buffer. A short frame is resampled for the
// samples it holds, a long one for one frame's worth, neither read past. The
// output is allocated at twice the expected length (outCap a channel) and
// trimmed to what was written: from 44.1 kHz, one sample more or less than
// 320. Without a resampler state (SpeexDSP refuses rate 0 or no channels) or
// input there is no output.
TEST(Resampler, SizesFramesInsideTheirBuffers)
{
    auto same = resampler(16000, 16000), graph = resampler(16000, 48000, 2), zeroRate = resampler(0, 16000),
         down = resampler(44100, 16000);
    const Frame in = frameOf(sine(TONE, 16000, 320));
    EXPECT_EQ(same.step(in).get(), in.get());
    EXPECT_EQ(samplesOf(graph.step(frameOf(Samples(2 * 100 + 1, 500)))).size(), 300u * 2);
    const Frame oneByte = graph.step(bytesFrame(Bytes(1)));
    EXPECT_TRUE(oneByte && oneByte->empty());
    const Frame longOut = graph.step(frameOf(Samples(2 * 1000, 500)));
    const Frame downOut = down.step(frameOf(Samples(882, 100)));
    ASSERT_TRUE(longOut && downOut);
    EXPECT_EQ(longOut->size(), 960u * 2 * 2);
    EXPECT_EQ(longOut->capacity(), 2 * 960u * 2 * 2);
    EXPECT_EQ(downOut->capacity(), 1280u); // roundf(2 x 882 x 0.362812) samples
    EXPECT_NEAR(double(downOut->size()), 640.0, 2.0);
    EXPECT_FALSE(same.step(bytesFrame(Bytes())) || graph.step(Frame()) || zeroRate.step(in));
    graph.node->setOutputChannels(0);
    EXPECT_FALSE(graph.step(in));
}
