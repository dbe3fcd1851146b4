// The resampler node judged by its sound: a tone keeps its frequency, level
// and purity through each conversion, channels stay apart, and frame borders
// leave no trace. Plus the exact sizes of its output frames.
#include "sonraresamplernode.h"
#include "testutil.h"

#include <speex/speex_resampler.h>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

using namespace ombrel;
using namespace sonratest;

namespace {

const double TONE = 1000.0;        // Hz
const double AMPLITUDE = 10000.0;  // of the test tone, 16-bit scale
const unsigned FRAME_MS = 20;

// Drives one resampler node frame by frame and collects what it returns.
struct ResamplerGraph {
    ResamplerGraph(unsigned inRate, unsigned outRate, unsigned channels = 1, unsigned frameDuration = FRAME_MS)
        : pipe(boost::make_shared<SonraPipe>(frameDuration)),
          node(boost::make_shared<SonraResamplerNode>(ioService(), inRate, outRate, frameDuration))
    {
        node->setOutputChannels(channels);
        pipe->connect(queue.node(frameDuration, inRate, channels), node);
    }
    ~ResamplerGraph() { pipe->clear(); }

    Frame run(const Frame& in)
    {
        queue.push(in);
        pipe->processFrame();
        return node->outputData();
    }

    // Feeds `samples` (interleaved) in frames of `inLen` samples per channel
    // and returns everything that came out, in order.
    std::vector<int16_t> runAll(const std::vector<int16_t>& samples, std::size_t inLen, unsigned channels = 1)
    {
        std::vector<int16_t> out;
        const std::size_t step = inLen * channels;
        for (std::size_t first = 0; first + step <= samples.size(); first += step) {
            const std::vector<int16_t> slice(samples.begin() + first, samples.begin() + first + step);
            const std::vector<int16_t> got = samplesOf(run(frameOf(slice)));
            out.insert(out.end(), got.begin(), got.end());
        }
        return out;
    }

    QueueSource queue;
    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<SonraResamplerNode> node;
};

// The 1 kHz sine that best fits `samples` (least squares, with offset).
// `samples` must span whole periods, which makes the basis orthogonal.
struct SineFit {
    double amplitude;
    double phase;      // radians, at the first sample
    double snrDb;      // fitted sine against everything else
};

SineFit fitTone(const std::vector<int16_t>& samples, unsigned rate)
{
    const std::size_t n = samples.size();
    double c = 0, s = 0, mean = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 2 * M_PI * TONE * i / rate;
        c += samples[i] * std::cos(w);
        s += samples[i] * std::sin(w);
        mean += samples[i];
    }
    c *= 2.0 / n;
    s *= 2.0 / n;
    mean /= n;
    double residual = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 2 * M_PI * TONE * i / rate;
        const double e = samples[i] - (c * std::cos(w) + s * std::sin(w) + mean);
        residual += e * e;
    }
    SineFit fit;
    fit.amplitude = std::hypot(c, s);
    fit.phase = std::atan2(c, s);
    const double signal = fit.amplitude * fit.amplitude / 2 * n;
    fit.snrDb = 10 * std::log10(signal / std::max(residual, 1e-9));
    return fit;
}

std::vector<int16_t> slice(const std::vector<int16_t>& samples, std::size_t first, std::size_t count)
{
    return std::vector<int16_t>(samples.begin() + first, samples.begin() + first + count);
}

double wrapAngle(double angle)
{
    return std::remainder(angle, 2 * M_PI);
}

// `samples` at `inRate` converted to `outRate` by sox (its best quality),
// delayed first by `delay` input samples; empty when sox fails.
std::vector<int16_t> soxResample(const std::vector<int16_t>& samples, unsigned inRate, unsigned outRate,
                                 unsigned delay)
{
    const std::string base = testing::TempDir() + "sonra_resampler_" + std::to_string(inRate) + "_" +
                             std::to_string(outRate) + "_" + std::to_string(getpid());
    const std::string inPath = base + ".in.raw", outPath = base + ".out.raw";
    std::vector<int16_t> out;
    if (FILE* file = std::fopen(inPath.c_str(), "wb")) {
        std::fwrite(samples.data(), 2, samples.size(), file);
        std::fclose(file);
    }
    const std::string format = " -t raw -e signed -b 16 -c 1 -r ";
    const std::string command = "sox -q" + format + std::to_string(inRate) + " '" + inPath + "'" + format +
                                std::to_string(outRate) + " '" + outPath + "' pad " + std::to_string(delay) +
                                "s rate -v " + std::to_string(outRate);
    if (std::system(command.c_str()) == 0) {
        if (FILE* file = std::fopen(outPath.c_str(), "rb")) {
            int16_t buffer[4096];
            std::size_t got;
            while ((got = std::fread(buffer, 2, 4096, file)) > 0)
                out.insert(out.end(), buffer, buffer + got);
            std::fclose(file);
        }
    }
    std::remove(inPath.c_str());
    std::remove(outPath.c_str());
    return out;
}

// SNR of `samples` against `reference`, in dB.
double snrAgainst(const std::vector<int16_t>& samples, const std::vector<int16_t>& reference)
{
    double signal = 0, error = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        signal += double(reference[i]) * reference[i];
        error += (double(samples[i]) - reference[i]) * (double(samples[i]) - reference[i]);
    }
    return 10 * std::log10(signal / std::max(error, 1e-9));
}

// The delay of the node's resampler, in input samples.
unsigned resamplerDelay(unsigned inRate, unsigned outRate)
{
    int error = 0;
    SpeexResamplerState* state = speex_resampler_init(1, inRate, outRate, SonraResamplerNode::RESAMPLE_QUALITY, &error);
    const unsigned delay = state ? speex_resampler_get_input_latency(state) : 0;
    if (state)
        speex_resampler_destroy(state);
    return delay;
}

struct Conversion {
    unsigned inRate;
    unsigned outRate;
};

std::ostream& operator<<(std::ostream& os, const Conversion& c)
{
    return os << c.inRate << "->" << c.outRate;
}

class ResamplerTone : public testing::TestWithParam<Conversion> {};

} // namespace

// One second of a 1 kHz tone, fed in 20 ms frames. After the filter has
// filled (the first 100 ms are left out), two 200 ms windows half a second
// apart are fitted with a 1 kHz sine:
// - level: SpeexDSP's passband at quality 5 is flat to well under 0.05 dB
//   at 1 kHz, so the fitted amplitude must be within 0.1 dB of the input's;
// - frequency: the phase advance between the windows gives the frequency
//   to a few mHz; a rate mix-up (44.1 taken for 48 kHz) is off by 88 Hz;
// - purity: what the sine does not explain (images, aliases, quantisation
//   and any glitch) must stay 70 dB below it. The input itself, rounded to
//   16 bits, is about 86 dB pure, and the quality-5 filter keeps images of
//   a 1 kHz tone near 90 dB down; a single dropped or doubled sample at a
//   frame border makes a phase jump that brings the figure below 30 dB.
TEST_P(ResamplerTone, KeepsFrequencyLevelAndPurity)
{
    const Conversion conversion = GetParam();
    const std::size_t inLen = conversion.inRate * FRAME_MS / 1000;
    ResamplerGraph graph(conversion.inRate, conversion.outRate);
    const std::vector<int16_t> out = graph.runAll(sine(TONE, conversion.inRate, conversion.inRate, AMPLITUDE), inLen);

    const unsigned rate = conversion.outRate;
    ASSERT_NEAR(double(out.size()), double(rate), 1.0) << "one second in, one second out";
    const std::size_t window = rate / 5;       // 200 ms, whole periods
    const std::size_t firstStart = rate / 10;  // 100 ms
    const std::size_t distance = rate / 2;     // 500 ms
    const SineFit first = fitTone(slice(out, firstStart, window), rate);
    const SineFit second = fitTone(slice(out, firstStart + distance, window), rate);

    EXPECT_NEAR(20 * std::log10(first.amplitude / AMPLITUDE), 0.0, 0.1);
    EXPECT_NEAR(20 * std::log10(second.amplitude / AMPLITUDE), 0.0, 0.1);
    EXPECT_NEAR(toneAmplitude(slice(out, firstStart, window), TONE, rate), AMPLITUDE, AMPLITUDE * 0.0116);
    // A whole number of periods lies between the windows' starts, so a
    // correct frequency gives the same phase in both.
    const double frequencyError = wrapAngle(second.phase - first.phase) / (2 * M_PI * 0.5);
    EXPECT_NEAR(frequencyError, 0.0, 0.01) << "Hz";
    EXPECT_GT(first.snrDb, 70.0);
    EXPECT_GT(second.snrDb, 70.0);
}

// Sample by sample against sox's very-high-quality converter, given the
// same delay as the node's filter so that the two line up exactly. Past the
// first 100 ms both are the same tone to within 70 dB: the figure sums both
// converters' images and rounding, each some 85 dB down, and any slip of
// the node's timeline (a lost sample, a wrong delay) costs tens of dB.
TEST_P(ResamplerTone, MatchesSox)
{
    const Conversion conversion = GetParam();
    const std::size_t inLen = conversion.inRate * FRAME_MS / 1000;
    const std::vector<int16_t> in = sine(TONE, conversion.inRate, conversion.inRate, AMPLITUDE);
    ResamplerGraph graph(conversion.inRate, conversion.outRate);
    const std::vector<int16_t> out = graph.runAll(in, inLen);
    const std::vector<int16_t> reference = soxResample(
        in, conversion.inRate, conversion.outRate, resamplerDelay(conversion.inRate, conversion.outRate));
    ASSERT_GE(reference.size(), out.size()) << "sox must be installed (scripts/bootstrap)";

    const std::size_t first = conversion.outRate / 10, count = out.size() - first;
    EXPECT_GT(snrAgainst(slice(out, first, count), slice(reference, first, count)), 70.0);
}

INSTANTIATE_TEST_SUITE_P(Rates, ResamplerTone,
                         testing::Values(Conversion{8000, 16000}, Conversion{16000, 48000},
                                         Conversion{48000, 16000}, Conversion{44100, 16000}),
                         [](const testing::TestParamInfo<Conversion>& info) {
                             return std::to_string(info.param.inRate) + "to" + std::to_string(info.param.outRate);
                         });

// Frame by frame, the node gives exactly what one uninterrupted run of the
// resampler over the whole signal gives: borders add, drop and change no
// sample. 44.1 kHz to 16 kHz is the hard case: the rate ratio is 160/441,
// so the filter phase at a border differs from frame to frame.
TEST(Resampler, FramesJoinSeamlessly)
{
    const unsigned inRate = 44100, outRate = 16000;
    const std::vector<int16_t> in = sine(TONE, inRate, inRate / 2, AMPLITUDE);
    ResamplerGraph graph(inRate, outRate);
    const std::vector<int16_t> framed = graph.runAll(in, inRate * FRAME_MS / 1000);

    int error = 0;
    SpeexResamplerState* whole = speex_resampler_init(1, inRate, outRate, SonraResamplerNode::RESAMPLE_QUALITY, &error);
    ASSERT_TRUE(whole);
    std::vector<int16_t> continuous(in.size());
    spx_uint32_t inLen = in.size(), outLen = continuous.size();
    speex_resampler_process_int(whole, 0, in.data(), &inLen, continuous.data(), &outLen);
    speex_resampler_destroy(whole);
    ASSERT_EQ(inLen, in.size());
    continuous.resize(outLen);

    EXPECT_EQ(framed, continuous);
}

// Stereo: each channel comes out exactly as it would alone, so nothing of
// one channel leaks into the other; a silent channel stays digital silence.
TEST(Resampler, StereoChannelsStayApart)
{
    const unsigned inRate = 16000, outRate = 48000, frames = 10;
    const std::size_t inLen = inRate * FRAME_MS / 1000;
    const std::vector<int16_t> left = sine(TONE, inRate, inLen * frames, AMPLITUDE);
    const std::vector<int16_t> right = sine(1500.0, inRate, inLen * frames, 20000.0);
    std::vector<int16_t> interleaved, leftOnly;
    for (std::size_t i = 0; i < left.size(); ++i) {
        interleaved.push_back(left[i]);
        interleaved.push_back(right[i]);
        leftOnly.push_back(left[i]);
        leftOnly.push_back(0);
    }

    ResamplerGraph stereo(inRate, outRate, 2);
    const std::vector<int16_t> both = stereo.runAll(interleaved, inLen, 2);
    ResamplerGraph stereoLeftOnly(inRate, outRate, 2);
    const std::vector<int16_t> leftAlone = stereoLeftOnly.runAll(leftOnly, inLen, 2);
    ResamplerGraph monoLeft(inRate, outRate), monoRight(inRate, outRate);
    const std::vector<int16_t> leftMono = monoLeft.runAll(left, inLen);
    const std::vector<int16_t> rightMono = monoRight.runAll(right, inLen);

    ASSERT_EQ(both.size(), 2 * leftMono.size());
    ASSERT_EQ(leftMono.size(), std::size_t(frames) * 960);
    for (std::size_t i = 0; i < leftMono.size(); ++i) {
        ASSERT_EQ(both[2 * i], leftMono[i]) << "left sample " << i;
        ASSERT_EQ(both[2 * i + 1], rightMono[i]) << "right sample " << i;
        ASSERT_EQ(leftAlone[2 * i], leftMono[i]) << "left sample " << i;
        ASSERT_EQ(leftAlone[2 * i + 1], 0) << "right sample " << i;
    }
}

// The output frame is allocated at twice the expected length and trimmed to
// what the resampler wrote.
TEST(Resampler, SizesItsOutputFromTheRateRatio)
{
    {
        ResamplerGraph graph(16000, 48000);
        const Frame out = graph.run(frameOf(std::vector<int16_t>(320, 100)));
        ASSERT_TRUE(out);
        EXPECT_EQ(out->size(), 1920u);
        EXPECT_EQ(out->capacity(), 3840u); // outCap 1920 samples
    }
    {
        ResamplerGraph graph(8000, 16000, 2);
        const Frame out = graph.run(frameOf(std::vector<int16_t>(320, 100)));
        ASSERT_TRUE(out);
        EXPECT_EQ(out->size(), 1280u);
        EXPECT_EQ(out->capacity(), 2560u); // outCap 640 samples per channel
    }
    {
        // 882 x (16000 / 44100) = 320 per frame, but the filter phase makes
        // single frames one sample longer or shorter; over many frames the
        // count is exact.
        ResamplerGraph graph(44100, 16000);
        std::size_t total = 0;
        for (int k = 0; k < 50; ++k) {
            const Frame out = graph.run(frameOf(std::vector<int16_t>(882, 100)));
            ASSERT_TRUE(out);
            EXPECT_NEAR(double(out->size()), 640.0, 2.0);
            EXPECT_EQ(out->capacity(), 1280u); // roundf(2 x 882 x 0.362812)
            total += out->size() / 2;
        }
        EXPECT_NEAR(double(total), 50.0 * 320, 1.0);
    }
}

TEST(Resampler, EqualRatesPassTheSameBuffer)
{
    ResamplerGraph graph(16000, 16000);
    const Frame in = frameOf(sine(TONE, 16000, 320));
    const std::vector<int16_t> before = samplesOf(in);
    const Frame out = graph.run(in);
    EXPECT_EQ(out.get(), in.get());
    EXPECT_EQ(samplesOf(out), before);
}

TEST(Resampler, NoInputGivesNoOutput)
{
    ResamplerGraph graph(16000, 48000);
    EXPECT_FALSE(graph.run(Frame()));
    EXPECT_FALSE(graph.run(boost::make_shared<std::vector<char> >()));
    ResamplerGraph same(16000, 16000);
    EXPECT_FALSE(same.run(boost::make_shared<std::vector<char> >()));
}

// A short frame is resampled for the samples it holds; a long one for one
// frame's worth. Neither is read past (the sanitizer build watches).
TEST(Resampler, OddFrameLengthsStayInsideTheFrame)
{
    ResamplerGraph graph(16000, 48000, 2);
    const Frame shortOut = graph.run(frameOf(std::vector<int16_t>(2 * 100 + 1, 500)));
    ASSERT_TRUE(shortOut);
    EXPECT_EQ(shortOut->size(), 300u * 2 * 2);
    const Frame oneByte = graph.run(boost::make_shared<std::vector<char> >(1, 'x'));
    ASSERT_TRUE(oneByte);
    EXPECT_EQ(oneByte->size(), 0u);
    const Frame longOut = graph.run(frameOf(std::vector<int16_t>(2 * 1000, 500)));
    ASSERT_TRUE(longOut);
    EXPECT_EQ(longOut->size(), 960u * 2 * 2);
}

// Configurations SpeexDSP refuses leave the node without a resampler; it
// then gives nothing rather than calling the library.
TEST(Resampler, WithoutAResamplerStateGivesNothing)
{
    ResamplerGraph zeroRate(0, 16000);
    EXPECT_FALSE(zeroRate.run(frameOf(std::vector<int16_t>(320, 1))));

    ResamplerGraph noChannels(16000, 48000);
    noChannels.node->setOutputChannels(0);
    EXPECT_FALSE(noChannels.run(frameOf(std::vector<int16_t>(320, 1))));

    // The quality is read whenever a state is built.
    const int32_t saved = SonraResamplerNode::RESAMPLE_QUALITY;
    SonraResamplerNode::RESAMPLE_QUALITY = 11;
    ResamplerGraph badQuality(16000, 48000);
    EXPECT_FALSE(badQuality.run(frameOf(std::vector<int16_t>(320, 1))));
    SonraResamplerNode::RESAMPLE_QUALITY = saved;
    badQuality.node->setOutputChannels(1);
    const Frame out = badQuality.run(frameOf(std::vector<int16_t>(320, 1)));
    ASSERT_TRUE(out);
    EXPECT_EQ(out->size(), 1920u);
}

// After reset the node starts over: the same input gives what a fresh node
// gives, with no trace of the earlier signal in its filter.
TEST(Resampler, ResetForgetsTheHistory)
{
    const std::vector<int16_t> tone = sine(TONE, 48000, 960 * 3, AMPLITUDE);
    const std::vector<int16_t> other = sine(700.0, 48000, 960 * 2, 30000.0);
    ResamplerGraph used(48000, 16000), fresh(48000, 16000);
    used.runAll(other, 960);
    used.pipe->reset(0);
    EXPECT_EQ(used.runAll(tone, 960), fresh.runAll(tone, 960));
}
