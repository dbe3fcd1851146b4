// The noise suppression node judged on espeak-ng's speech in white noise.
#include "sonranoisesupressnode.h"
#include "testutil.h"

#include <numeric>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned RATE = 16000;   // Hz
const std::size_t FRAME = 320; // samples per channel in 20 ms
typedef std::pair<std::size_t, std::size_t> Span; // first sample, count

NodeGraph<SonraNoiseSupressNode> denoiser(unsigned channels = 1, unsigned rate = RATE, unsigned frameMs = 20)
{
    auto node = boost::make_shared<SonraNoiseSupressNode>(ioService(), frameMs, rate);
    node->setOutputChannels(channels);
    return NodeGraph<SonraNoiseSupressNode>(node, channels);
}

Samples whiteNoise(std::size_t count, double rms, unsigned seed)
{
    std::mt19937 generator(seed);
    std::normal_distribution<double> gauss(0.0, rms);
    Samples noise(count);
    std::generate(noise.begin(), noise.end(), [&] { return SonraNode::normalize(int(std::lround(gauss(generator)))); });
    return noise;
}

// RMS over the 20 ms frames within 30 dB of the loudest: the active speech
// level, as SNR figures for speech are meant.
double activeLevel(const Samples& speech)
{
    std::vector<double> powers, active;
    for (std::size_t first = 0; first + FRAME <= speech.size(); first += FRAME)
        powers.push_back(std::pow(rms(slice(speech, first, FRAME)), 2));
    const double floor = *std::max_element(powers.begin(), powers.end()) * 1e-3;
    std::copy_if(powers.begin(), powers.end(), std::back_inserter(active), [floor](double p) { return p > floor; });
    return std::sqrt(std::accumulate(active.begin(), active.end(), 0.0) / active.size());
}

// 2 s of noise alone for the estimator to settle, then twice a phrase and a
// 1.2 s pause, measured from 300 ms past the speech (beyond any tail) to
// 100 ms before what follows. Speech at an active level of 3000.
struct NoisySpeech { Samples clean, noisy; std::vector<Span> speech, pauses; };

const NoisySpeech& noisySpeech()
{
    static const NoisySpeech scene = [] {
        NoisySpeech s;
        Samples raw(2 * RATE, 0);
        for (const std::string text : {"The quick brown fox jumps over the lazy dog.",
                                       "Seven silver swans swam silently seaward."}) {
            const Samples phrase =
                shell("espeak-ng --stdout \"" + text + "\" | sox -q -t wav - -t raw -r 16000 -e signed -b 16 -c 1 -")
                    .values<int16_t>();
            s.speech.push_back({raw.size(), phrase.size()});
            raw.insert(raw.end(), phrase.begin(), phrase.end());
            s.pauses.push_back({raw.size() + RATE * 3 / 10, RATE * 8 / 10});
            raw.resize(raw.size() + RATE * 6 / 5, 0);
        }
        raw.resize(raw.size() / FRAME * FRAME);
        const double gain = s.speech[0].second ? 3000.0 / activeLevel(raw) : 0.0;
        const Samples noise = whiteNoise(raw.size(), 3000.0 / std::pow(10.0, 5.0 / 20), 6);
        for (std::size_t i = 0; i < raw.size(); ++i) {
            s.clean.push_back(SonraNode::normalize(static_cast<int>(std::lround(raw[i] * gain))));
            s.noisy.push_back(SonraNode::normalize(s.clean[i] + noise[i]));
        }
        return s;
    }();
    return scene;
}

double levelDb(const Samples& samples, Span span)
{
    return 20 * std::log10(rms(slice(samples, span.first, span.second)));
}

} // namespace

// The noise floor in the pauses falls by at least 10 dB (SpeexDSP's default
// suppression is 15 dB) while the speech loses at most 3 dB of level. At
// 48 kHz, 960 samples a frame, plain noise falls as much.
TEST(NoiseSupress, LowersTheNoiseFloorInSpeechPauses)
{
    const NoisySpeech& scene = noisySpeech();
    ASSERT_GT(scene.speech[0].second, RATE) << "espeak-ng and sox must be installed (scripts/bootstrap)";
    auto graph = denoiser(), graph48 = denoiser(1, 48000);
    const Samples out = graph.runInPieces(scene.noisy, {FRAME});
    ASSERT_EQ(out.size(), scene.noisy.size());
    for (const Span& pause : scene.pauses)
        EXPECT_GE(levelDb(scene.noisy, pause) - levelDb(out, pause), 10.0) << "pause at " << pause.first;
    for (const Span& speech : scene.speech)
        EXPECT_GT(levelDb(out, speech), levelDb(scene.clean, speech) - 3.0) << "speech at " << speech.first;
    const Samples noise = whiteNoise(100 * 960, 2000.0, 3), out48 = graph48.runInPieces(noise, {960});
    ASSERT_EQ(out48.size(), noise.size());
    EXPECT_GE(levelDb(noise, {50 * 960, 50 * 960}) - levelDb(out48, {50 * 960, 50 * 960}), 10.0);
}

// Each channel has its own preprocessor: a stereo node gives, bit for bit,
// what mono nodes make of each channel alone, whatever the other carries.
// After reset both behave like a fresh node's.
TEST(NoiseSupress, StereoChannelsAreDenoisedIndependently)
{
    const Samples speech = slice(noisySpeech().noisy, 0, 4 * RATE);
    const Samples hiss = whiteNoise(4 * RATE, 4000.0, 99), tone = sine(440.0, RATE, 4 * RATE, 20000.0);
    auto stereo = denoiser(2), speechAlone = denoiser(), hissAlone = denoiser(), toneAlone = denoiser();
    const Samples speechOut = speechAlone.runInPieces(speech, {FRAME});
    EXPECT_NE(speechOut, speech) << "the speech was not processed";
    EXPECT_EQ(stereo.runInPieces(interleave(speech, hiss), {2 * FRAME}),
              interleave(speechOut, hissAlone.runInPieces(hiss, {FRAME})));
    stereo.pipe->reset(0);
    EXPECT_EQ(stereo.runInPieces(interleave(speech, tone), {2 * FRAME}),
              interleave(speechOut, toneAlone.runInPieces(tone, {FRAME})));
}

// Whole frames are denoised in place; anything else (a short frame, one of
// another channel count, any frame of a node with no samples per frame)
// passes untouched, and no input gives no output.
TEST(NoiseSupress, WorksInPlaceOnWholeFramesOnly)
{
    auto mono = denoiser(), stereo = denoiser(2), backToMono = denoiser(2), noSamples = denoiser(2, RATE, 0);
    backToMono.node->setOutputChannels(1);
    const Frame in = frameOf(slice(noisySpeech().noisy, 0, FRAME));
    EXPECT_EQ(mono.step(in).get(), in.get());
    EXPECT_NE(samplesOf(in), slice(noisySpeech().noisy, 0, FRAME));
    for (const auto& c : {std::make_pair(&mono, 300), std::make_pair(&mono, 640), std::make_pair(&stereo, 320),
                          std::make_pair(&backToMono, 640), std::make_pair(&noSamples, 4)}) {
        const Frame frame = frameOf(Samples(c.second, 1234));
        EXPECT_EQ(c.first->step(frame).get(), frame.get());
        EXPECT_EQ(samplesOf(frame), Samples(c.second, 1234)) << c.second << " samples";
    }
    noSamples.pipe->reset(0);
    EXPECT_FALSE(mono.step() || mono.step(bytesFrame(Bytes())));
}
