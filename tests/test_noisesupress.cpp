// The noise suppression node judged on real speech: espeak-ng speaks, white
// noise is added at 5 dB SNR, and the node must bring the noise floor in the
// speech pauses down while leaving the speech, each channel on its own.
#include "sonranoisesupressnode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned RATE = 16000;                   // Hz
const unsigned FRAME_MS = 20;
const std::size_t FRAME = RATE * FRAME_MS / 1000; // samples per channel per frame

// Speech from espeak-ng, resampled by sox to 16 kHz mono 16-bit.
std::vector<int16_t> speak(const std::string& text)
{
    const std::string command = "espeak-ng --stdout \"" + text +
                                "\" | sox -q -t wav - -t raw -r 16000 -e signed -b 16 -c 1 -";
    std::vector<int16_t> samples;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return samples;
    int16_t buffer[4096];
    std::size_t got;
    while ((got = std::fread(buffer, sizeof(int16_t), 4096, pipe)) > 0)
        samples.insert(samples.end(), buffer, buffer + got);
    pclose(pipe);
    return samples;
}

// White Gaussian noise of the given RMS, the same on every platform (the
// standard's distributions are not).
std::vector<double> whiteNoise(std::size_t count, double level, unsigned seed)
{
    std::mt19937 generator(seed);
    std::vector<double> noise(count);
    for (std::size_t i = 0; i < count; i += 2) {
        const double u1 = (generator() + 1.0) / 4294967297.0;
        const double u2 = generator() / 4294967296.0;
        const double radius = level * std::sqrt(-2 * std::log(u1));
        noise[i] = radius * std::cos(2 * M_PI * u2);
        if (i + 1 < count)
            noise[i + 1] = radius * std::sin(2 * M_PI * u2);
    }
    return noise;
}

// RMS over the 20 ms frames that carry speech (within 30 dB of the loudest):
// the active speech level, as SNR figures for speech are meant.
double activeLevel(const std::vector<double>& speech)
{
    std::vector<double> frameLevels;
    for (std::size_t first = 0; first + FRAME <= speech.size(); first += FRAME) {
        double sum = 0;
        for (std::size_t i = first; i < first + FRAME; ++i)
            sum += speech[i] * speech[i];
        frameLevels.push_back(sum / FRAME);
    }
    const double loudest = *std::max_element(frameLevels.begin(), frameLevels.end());
    double sum = 0;
    std::size_t active = 0;
    for (double level : frameLevels)
        if (level > loudest * 1e-3) {
            sum += level;
            ++active;
        }
    return std::sqrt(sum / active);
}

struct Span {
    std::size_t first, count; // samples
};

// Two spoken phrases in noise: 2 s of noise alone for the estimator to
// settle, a phrase, a 1.2 s pause, another phrase, another pause. The
// pauses are measured from 300 ms after the speech (past any tail) to
// 100 ms before what follows.
struct NoisySpeech {
    std::vector<int16_t> clean, noisy;
    std::vector<Span> speech, pauses;
};

const NoisySpeech& noisySpeech()
{
    static const NoisySpeech scene = [] {
        NoisySpeech s;
        const std::vector<int16_t> first = speak("The quick brown fox jumps over the lazy dog.");
        const std::vector<int16_t> second = speak("Seven silver swans swam silently seaward.");
        const std::size_t lead = 2 * RATE, pause = RATE * 6 / 5;
        std::vector<double> speech(lead, 0.0);
        for (const std::vector<int16_t>* phrase : {&first, &second}) {
            s.speech.push_back({speech.size(), phrase->size()});
            speech.insert(speech.end(), phrase->begin(), phrase->end());
            s.pauses.push_back({speech.size() + RATE * 3 / 10, pause - RATE * 4 / 10});
            speech.insert(speech.end(), pause, 0.0);
        }
        speech.resize(speech.size() / FRAME * FRAME);
        // Speech at an active level of 3000, noise 5 dB below it.
        const double gain = 3000.0 / activeLevel(speech);
        const std::vector<double> noise = whiteNoise(speech.size(), 3000.0 / std::pow(10.0, 5.0 / 20), 6);
        for (std::size_t i = 0; i < speech.size(); ++i) {
            s.clean.push_back(SonraNode::normalize(static_cast<int>(std::lround(speech[i] * gain))));
            s.noisy.push_back(SonraNode::normalize(static_cast<int>(std::lround(speech[i] * gain + noise[i]))));
        }
        return s;
    }();
    return scene;
}

double levelDb(const std::vector<int16_t>& samples, Span span)
{
    return 20 * std::log10(rms(std::vector<int16_t>(samples.begin() + span.first,
                                                     samples.begin() + span.first + span.count)));
}

struct DenoiseGraph {
    explicit DenoiseGraph(unsigned channels = 1, unsigned rate = RATE)
        : pipe(boost::make_shared<SonraPipe>(FRAME_MS)),
          node(boost::make_shared<SonraNoiseSupressNode>(ioService(), FRAME_MS, rate))
    {
        node->setOutputChannels(channels);
        pipe->connect(queue.node(FRAME_MS, rate, channels), node);
    }
    ~DenoiseGraph() { pipe->clear(); }

    Frame run(const Frame& in)
    {
        queue.push(in);
        pipe->processFrame();
        return node->outputData();
    }

    std::vector<int16_t> runAll(const std::vector<int16_t>& samples, std::size_t frameSamples)
    {
        std::vector<int16_t> out;
        for (std::size_t first = 0; first + frameSamples <= samples.size(); first += frameSamples) {
            const std::vector<int16_t> got = samplesOf(
                run(frameOf(std::vector<int16_t>(samples.begin() + first, samples.begin() + first + frameSamples))));
            out.insert(out.end(), got.begin(), got.end());
        }
        return out;
    }

    QueueSource queue;
    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<SonraNoiseSupressNode> node;
};

std::vector<int16_t> interleave(const std::vector<int16_t>& left, const std::vector<int16_t>& right)
{
    std::vector<int16_t> both;
    for (std::size_t i = 0; i < left.size(); ++i) {
        both.push_back(left[i]);
        both.push_back(right[i]);
    }
    return both;
}

std::vector<int16_t> channel(const std::vector<int16_t>& interleaved, unsigned c)
{
    std::vector<int16_t> samples;
    for (std::size_t i = c; i < interleaved.size(); i += 2)
        samples.push_back(interleaved[i]);
    return samples;
}

} // namespace

// The noise floor in the pauses must fall by at least 10 dB (SpeexDSP's
// default suppression is 15 dB), while the speech itself loses at most 3 dB
// of level.
TEST(NoiseSupress, LowersTheNoiseFloorInSpeechPauses)
{
    const NoisySpeech& scene = noisySpeech();
    ASSERT_GT(scene.speech[0].count, RATE) << "espeak-ng and sox must be installed (scripts/bootstrap)";
    DenoiseGraph graph;
    const std::vector<int16_t> out = graph.runAll(scene.noisy, FRAME);
    ASSERT_EQ(out.size(), scene.noisy.size());

    for (const Span& pause : scene.pauses) {
        const double before = levelDb(scene.noisy, pause), after = levelDb(out, pause);
        EXPECT_GE(before - after, 10.0) << "noise floor " << before << " dB became " << after << " dB";
    }
    for (const Span& speech : scene.speech) {
        const double clean = levelDb(scene.clean, speech), after = levelDb(out, speech);
        EXPECT_GT(after, clean - 3.0) << "speech at " << clean << " dB came out at " << after << " dB";
    }
}

// In stereo each channel has its own preprocessor: the left output is the
// same, bit for bit, whatever the right channel carries, and equals what a
// mono node makes of the left channel alone. The right channel likewise.
TEST(NoiseSupress, StereoChannelsAreDenoisedIndependently)
{
    const NoisySpeech& scene = noisySpeech();
    const std::size_t count = std::min<std::size_t>(scene.noisy.size(), 4 * RATE);
    const std::vector<int16_t> left(scene.noisy.begin(), scene.noisy.begin() + count);
    std::vector<int16_t> hiss(count), tone = sine(440.0, RATE, count, 20000.0);
    const std::vector<double> noise = whiteNoise(count, 4000.0, 99);
    for (std::size_t i = 0; i < count; ++i)
        hiss[i] = SonraNode::normalize(static_cast<int>(std::lround(noise[i])));

    DenoiseGraph withHiss(2), withTone(2), leftAlone(1), hissAlone(1);
    const std::vector<int16_t> a = withHiss.runAll(interleave(left, hiss), 2 * FRAME);
    const std::vector<int16_t> b = withTone.runAll(interleave(left, tone), 2 * FRAME);
    const std::vector<int16_t> monoLeft = leftAlone.runAll(left, FRAME);
    const std::vector<int16_t> monoHiss = hissAlone.runAll(hiss, FRAME);

    ASSERT_EQ(a.size(), 2 * count);
    EXPECT_EQ(channel(a, 0), channel(b, 0));
    EXPECT_EQ(channel(a, 0), monoLeft);
    EXPECT_EQ(channel(a, 1), monoHiss);
    EXPECT_NE(channel(a, 0), left) << "the left channel was not processed";
}

TEST(NoiseSupress, WorksInPlaceOnWholeFramesOnly)
{
    const std::vector<int16_t> noisy(noisySpeech().noisy.begin(), noisySpeech().noisy.begin() + FRAME);
    DenoiseGraph mono;
    const Frame in = frameOf(noisy);
    const Frame out = mono.run(in);
    EXPECT_EQ(out.get(), in.get());
    EXPECT_NE(samplesOf(out), noisy);

    const Frame shortFrame = frameOf(std::vector<int16_t>(300, 1234));
    EXPECT_EQ(mono.run(shortFrame).get(), shortFrame.get());
    EXPECT_EQ(samplesOf(shortFrame), std::vector<int16_t>(300, 1234));
    const Frame stereoFrame = frameOf(std::vector<int16_t>(2 * FRAME, 1234));
    EXPECT_EQ(mono.run(stereoFrame).get(), stereoFrame.get());
    EXPECT_EQ(samplesOf(stereoFrame), std::vector<int16_t>(2 * FRAME, 1234));
    EXPECT_FALSE(mono.run(Frame()));
    EXPECT_FALSE(mono.run(boost::make_shared<std::vector<char> >()));

    DenoiseGraph stereo(2);
    const Frame monoFrame = frameOf(std::vector<int16_t>(FRAME, 1234));
    EXPECT_EQ(stereo.run(monoFrame).get(), monoFrame.get());
    EXPECT_EQ(samplesOf(monoFrame), std::vector<int16_t>(FRAME, 1234));

    // Back to one channel, the stereo size no longer fits.
    stereo.node->setOutputChannels(1);
    const Frame wide = frameOf(std::vector<int16_t>(2 * FRAME, 1234));
    stereo.run(wide);
    EXPECT_EQ(samplesOf(wide), std::vector<int16_t>(2 * FRAME, 1234));
}

// reset forgets the noise estimate of both channels: afterwards the node
// behaves exactly like a fresh one.
TEST(NoiseSupress, ResetStartsFresh)
{
    const NoisySpeech& scene = noisySpeech();
    const std::vector<int16_t> first(scene.noisy.begin(), scene.noisy.begin() + 50 * FRAME);
    const std::vector<int16_t> later(scene.noisy.begin() + 50 * FRAME, scene.noisy.begin() + 100 * FRAME);
    const std::vector<int16_t> stereoFirst = interleave(first, later), stereoLater = interleave(later, first);

    DenoiseGraph used(2), fresh(2);
    used.runAll(stereoFirst, 2 * FRAME);
    used.pipe->reset(0);
    EXPECT_EQ(used.runAll(stereoLater, 2 * FRAME), fresh.runAll(stereoLater, 2 * FRAME));

    DenoiseGraph usedMono, freshMono;
    usedMono.runAll(first, FRAME);
    usedMono.pipe->reset(0);
    EXPECT_EQ(usedMono.runAll(later, FRAME), freshMono.runAll(later, FRAME));
}

// 48 kHz frames of 960 samples per channel work the same way.
TEST(NoiseSupress, RunsAt48kHz)
{
    const std::size_t frame = 960;
    const std::vector<double> noise = whiteNoise(100 * frame, 2000.0, 3);
    std::vector<int16_t> hiss;
    for (double value : noise)
        hiss.push_back(SonraNode::normalize(static_cast<int>(std::lround(value))));
    DenoiseGraph graph(1, 48000);
    const std::vector<int16_t> out = graph.runAll(hiss, frame);
    ASSERT_EQ(out.size(), hiss.size());
    const Span tail = {50 * frame, 50 * frame};
    EXPECT_GE(levelDb(hiss, tail) - levelDb(out, tail), 10.0);
}

// With no samples in a frame there is nothing to denoise: no preprocessor is
// built, and frames pass untouched.
TEST(NoiseSupress, EmptyFrameDurationPassesFramesThrough)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    QueueSource queue;
    auto node = boost::make_shared<SonraNoiseSupressNode>(ioService(), 0, RATE);
    node->setOutputChannels(2);
    pipe->connect(queue.node(FRAME_MS, RATE), node);
    const Frame in = frameOf(std::vector<int16_t>(4, 7));
    queue.push(in);
    pipe->processFrame();
    EXPECT_EQ(node->outputData().get(), in.get());
    EXPECT_EQ(samplesOf(in), std::vector<int16_t>(4, 7));
    pipe->reset(0);
    pipe->clear();
}
