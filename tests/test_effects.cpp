// The effect nodes: mono-to-stereo (Haas delay), reverb (one feed-forward
// echo) and voice change (SoundTouch pitch shift), driven frame by frame
// through a pipe and judged against sox and against SoundTouch itself.
#include "effectsutil.h"

#include "sonramonotostereonode.h"
#include "sonrareverbnode.h"
#include "sonravoicechangenode.h"

#include <SoundTouch.h>

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

using namespace ombrel;
using namespace effectstest;
using sonratest::frameOf;
using sonratest::ioService;
using sonratest::samplesOf;

namespace {

// roundf() of the echo, the way the reverb takes it: halves away from zero.
int roundHalfAway(double value)
{
    return static_cast<int>(std::round(value));
}

int16_t saturate(long value)
{
    return static_cast<int16_t>(std::max(-32768L, std::min(32767L, value)));
}

// What a reverb of `delaySamples` and `decay` makes of a whole signal.
std::vector<int16_t> echoed(const std::vector<int16_t>& in, std::size_t delaySamples, float decay)
{
    std::vector<int16_t> out(in.size());
    for (std::size_t k = 0; k < in.size(); ++k) {
        const int echo = k >= delaySamples ? roundHalfAway(in[k - delaySamples] * double(decay)) : 0;
        out[k] = saturate(long(in[k]) + echo);
    }
    return out;
}

// The input delayed by `delaySamples`, silence before it.
std::vector<int16_t> delayed(const std::vector<int16_t>& in, std::size_t delaySamples)
{
    std::vector<int16_t> out(in.size(), 0);
    for (std::size_t k = delaySamples; k < in.size(); ++k)
        out[k] = in[k - delaySamples];
    return out;
}

boost::shared_ptr<SonraMonoToStereoNode> monoToStereo(unsigned sampleRate, int32_t delayMs = 0,
                                                      unsigned frameDuration = 20)
{
    auto node = boost::make_shared<SonraMonoToStereoNode>(ioService(), frameDuration, sampleRate);
    node->setOutputChannels(2);
    if (delayMs != 0)
        node->setHaasEffect(delayMs);
    return node;
}

boost::shared_ptr<SonraReverbNode> reverb(unsigned sampleRate, unsigned frameDuration = 20)
{
    return boost::make_shared<SonraReverbNode>(ioService(), frameDuration, sampleRate);
}

// Feeds `signal` in frames of the given lengths (cycling through them) and
// gathers the outputs.
template <typename Node>
std::vector<int16_t> runInPieces(Rig<Node>& rig, const std::vector<int16_t>& signal,
                                 const std::vector<std::size_t>& lengths)
{
    std::vector<int16_t> out;
    std::size_t first = 0;
    for (std::size_t piece = 0; first < signal.size(); ++piece) {
        const std::size_t count = std::min(lengths[piece % lengths.size()], signal.size() - first);
        append(out, samplesOf(rig.step(slice(signal, first, count))));
        first += count;
    }
    return out;
}

} // namespace

// ------------------------------------------------------------ mono to stereo

TEST(MonoToStereo, WithoutDelayTheRightChannelCopiesTheLeft)
{
    Rig<SonraMonoToStereoNode> rig(monoToStereo(16000));
    EXPECT_EQ((std::vector<int16_t>{1, 1, 2, 2, 3, 3}), samplesOf(rig.step(std::vector<int16_t>{1, 2, 3})));
}

TEST(MonoToStereo, OutputIsTwiceTheInputWhateverTheChannelCount)
{
    for (unsigned channels : {1u, 2u, 3u}) {
        auto node = monoToStereo(16000, 5);
        node->setOutputChannels(channels);
        Rig<SonraMonoToStereoNode> rig(node);
        EXPECT_EQ(1280u, rig.step(noise(320, 1))->size());
        // An odd trailing byte is no sample.
        EXPECT_EQ(4u, rig.step(boost::make_shared<std::vector<char> >(3, 'x'))->size());
        EXPECT_EQ(0u, rig.step(boost::make_shared<std::vector<char> >(1, 'x'))->size());
    }
}

TEST(MonoToStereo, OneMillisecondAt8kHzDelaysTheRightChannelByEightSamples)
{
    Rig<SonraMonoToStereoNode> rig(monoToStereo(8000, 1));
    const std::vector<int16_t> in = noise(160, 2);
    const std::vector<int16_t> out = samplesOf(rig.step(in));
    EXPECT_EQ(in, channel(out, 2, 0));
    EXPECT_EQ(delayed(in, 8), channel(out, 2, 1));
    EXPECT_EQ(in[0], out[2 * 8 + 1]);
}

TEST(MonoToStereo, ImpulseComesOutDelayedAcrossFrameBorders)
{
    // 30 ms at 8 kHz: 240 samples, longer than a 160-sample frame.
    Rig<SonraMonoToStereoNode> rig(monoToStereo(8000, 30));
    std::vector<int16_t> impulse(160, 0);
    impulse[100] = 12345;
    std::vector<int16_t> right;
    append(right, channel(samplesOf(rig.step(impulse)), 2, 1));
    for (int frame = 0; frame < 3; ++frame)
        append(right, channel(samplesOf(rig.step(std::vector<int16_t>(160, 0))), 2, 1));
    std::vector<int16_t> expected(640, 0);
    expected[340] = 12345;
    EXPECT_EQ(expected, right);
}

TEST(MonoToStereo, GapsKeepTime)
{
    Rig<SonraMonoToStereoNode> rig(monoToStereo(8000, 30));
    std::vector<int16_t> impulse(160, 0);
    impulse[100] = -777;
    rig.step(impulse);
    EXPECT_FALSE(rig.gap()); // 160 samples of silence go into the delay line
    const std::vector<int16_t> right = channel(samplesOf(rig.step(std::vector<int16_t>(160, 0))), 2, 1);
    std::vector<int16_t> expected(160, 0);
    expected[340 - 320] = -777;
    EXPECT_EQ(expected, right);
}

TEST(MonoToStereo, GapLongerThanTheDelayLeavesNoHistory)
{
    // 10 ms at 16 kHz: 160 samples; a 20 ms gap pushes 320 zeros.
    Rig<SonraMonoToStereoNode> rig(monoToStereo(16000, 10));
    rig.step(std::vector<int16_t>(320, 5000));
    rig.gap();
    const std::vector<int16_t> in = noise(320, 3);
    const std::vector<int16_t> out = samplesOf(rig.step(in));
    EXPECT_EQ(delayed(in, 160), channel(out, 2, 1));
}

TEST(MonoToStereo, SetHaasEffectAndResetRestartWithSilence)
{
    auto node = monoToStereo(8000, 1);
    Rig<SonraMonoToStereoNode> rig(node);
    rig.step(std::vector<int16_t>(160, 9999));
    node->reset(1234);
    const std::vector<int16_t> in = noise(160, 4);
    EXPECT_EQ(delayed(in, 8), channel(samplesOf(rig.step(in)), 2, 1));

    node->setHaasEffect(2);
    EXPECT_EQ(delayed(in, 16), channel(samplesOf(rig.step(in)), 2, 1));

    node->setHaasEffect(0);
    EXPECT_EQ(in, channel(samplesOf(rig.step(in)), 2, 1));
    node->reset(0);
    EXPECT_EQ(in, channel(samplesOf(rig.step(in)), 2, 1));
}

TEST(MonoToStereo, NegativeAndSubSampleDelaysMeanNoDelay)
{
    const std::vector<int16_t> in = noise(160, 5);
    {
        auto node = monoToStereo(8000, -5);
        Rig<SonraMonoToStereoNode> rig(node);
        EXPECT_EQ(in, channel(samplesOf(rig.step(in)), 2, 1));
        node->reset(0);
        rig.gap();
        EXPECT_EQ(in, channel(samplesOf(rig.step(in)), 2, 1));
    }
    {
        // 1 ms at 800 Hz is 0.8 samples.
        auto node = monoToStereo(800, 1);
        Rig<SonraMonoToStereoNode> rig(node);
        rig.gap();
        EXPECT_EQ(in, channel(samplesOf(rig.step(in)), 2, 1));
    }
}

TEST(MonoToStereo, DefaultDelayIsReadByTheConstructor)
{
    EXPECT_EQ(0, SonraMonoToStereoNode::DEFAULT_DELAY);
    SonraMonoToStereoNode::DEFAULT_DELAY = 2;
    auto node = boost::make_shared<SonraMonoToStereoNode>(ioService(), 20, 8000);
    SonraMonoToStereoNode::DEFAULT_DELAY = 0;
    Rig<SonraMonoToStereoNode> rig(node);
    const std::vector<int16_t> in = noise(160, 6);
    EXPECT_EQ(delayed(in, 16), channel(samplesOf(rig.step(in)), 2, 1));
}

TEST(MonoToStereo, MatchesSoxRemixAndDelayForAnyFrameLengths)
{
    // 10 ms at 16 kHz: 160 samples. Frames shorter and longer than the delay.
    const std::vector<int16_t> in = noise(16000, 7);
    const std::vector<int16_t> reference = sox(in, 16000, 1, 2, "remix 1 1 delay 0 160s");
    ASSERT_GE(reference.size(), 2 * in.size());
    for (const std::vector<std::size_t>& lengths :
         {std::vector<std::size_t>{320}, std::vector<std::size_t>{1, 159, 160, 161, 700, 37}}) {
        Rig<SonraMonoToStereoNode> rig(monoToStereo(16000, 10));
        EXPECT_EQ(slice(reference, 0, 2 * in.size()), runInPieces(rig, in, lengths));
    }
}

// ------------------------------------------------------------------- reverb

TEST(Reverb, DefaultEchoIsSevenMillisecondsAtHalfLevel)
{
    EXPECT_EQ(7, SonraReverbNode::DEFAULT_DELAY);
    EXPECT_EQ(0.5f, SonraReverbNode::DEFAULT_DECAY);
    Rig<SonraReverbNode> rig(reverb(16000));
    const std::vector<int16_t> in = noise(320, 8);
    const std::vector<int16_t> out = samplesOf(rig.step(in));
    EXPECT_EQ(slice(in, 0, 112), slice(out, 0, 112));
    EXPECT_EQ(in[112] + roundHalfAway(0.5 * in[0]), out[112]);
    EXPECT_EQ(echoed(in, 112, 0.5f), out);
}

TEST(Reverb, ImpulseResponseIsTheImpulseAndOneEchoAcrossFrameBorders)
{
    // 7 ms at 8 kHz: 56 samples; 10 ms frames hold 80.
    Rig<SonraReverbNode> rig(reverb(8000, 10));
    std::vector<int16_t> impulse(80, 0);
    impulse[50] = 10001;
    std::vector<int16_t> out = samplesOf(rig.step(impulse));
    append(out, samplesOf(rig.step(std::vector<int16_t>(80, 0))));
    append(out, samplesOf(rig.step(std::vector<int16_t>(80, 0))));
    std::vector<int16_t> expected(240, 0);
    expected[50] = 10001;
    expected[106] = 5001; // 5000.5 rounds away from zero
    EXPECT_EQ(expected, out);
}

TEST(Reverb, EchoRoundsHalvesAwayFromZero)
{
    auto node = reverb(8000, 10);
    node->setParameters(1, 0.5f); // 8 samples
    Rig<SonraReverbNode> rig(node);
    std::vector<int16_t> in(80, 0);
    in[0] = 1001;
    in[1] = -1001;
    in[2] = 3;
    in[3] = -3;
    const std::vector<int16_t> out = samplesOf(rig.step(in));
    EXPECT_EQ(501, out[8]);
    EXPECT_EQ(-501, out[9]);
    EXPECT_EQ(2, out[10]);
    EXPECT_EQ(-2, out[11]);
}

TEST(Reverb, SumsSaturate)
{
    auto node = reverb(8000, 10);
    node->setParameters(1, 0.5f);
    Rig<SonraReverbNode> rig(node);
    std::vector<int16_t> in(80, 0);
    in[0] = 20000;
    in[1] = -20000;
    in[8] = 30000;
    in[9] = -30000;
    const std::vector<int16_t> out = samplesOf(rig.step(in));
    EXPECT_EQ(32767, out[8]);
    EXPECT_EQ(-32768, out[9]);
}

TEST(Reverb, ExtremeDecaysSaturateInsteadOfOverflowing)
{
    auto node = reverb(8000, 10);
    Rig<SonraReverbNode> rig(node);
    std::vector<int16_t> in(80, 0);
    in[0] = 1;
    in[1] = -1;
    in[2] = -32768;
    in[3] = 32767;
    in[10] = -32768; // dry under the echo of -32768
    in[11] = 32767;
    for (float decay : {65535.0f, 1e30f, -1e30f, INFINITY, -INFINITY}) {
        node->setParameters(1, decay);
        const std::vector<int16_t> out = samplesOf(rig.step(in));
        const int16_t up = decay > 0 ? 32767 : -32768;
        const int16_t down = decay > 0 ? -32768 : 32767;
        EXPECT_EQ((std::vector<int16_t>{up, down, down, up}), slice(out, 8, 4)) << decay;
        EXPECT_EQ(0, out[20]) << decay; // a silent echo source stays silent
    }
    node->setParameters(1, NAN);
    EXPECT_EQ(in, samplesOf(rig.step(in))); // no echo
}

TEST(Reverb, ZeroDelayGivesANewFrameWithTheSameBytes)
{
    auto node = reverb(16000);
    node->setParameters(0, 0.5f);
    Rig<SonraReverbNode> rig(node);
    const Frame in = frameOf(noise(320, 9));
    const Frame out = rig.step(in);
    ASSERT_TRUE(out);
    EXPECT_NE(in.get(), out.get());
    EXPECT_EQ(*in, *out);
}

TEST(Reverb, NegativeAndSubSampleDelaysMeanNoEcho)
{
    const std::vector<int16_t> in = noise(16, 10);
    for (int32_t delay : {-7, 1}) {
        // 1 ms at 800 Hz is 0.8 samples.
        auto node = reverb(800);
        node->setParameters(delay, 0.5f);
        Rig<SonraReverbNode> rig(node);
        rig.gap();
        EXPECT_EQ(in, samplesOf(rig.step(in))) << delay;
        node->reset(0);
        EXPECT_EQ(in, samplesOf(rig.step(in))) << delay;
    }
}

TEST(Reverb, GapsKeepTime)
{
    Rig<SonraReverbNode> rig(reverb(8000, 5)); // 56-sample echo, 40-sample frames
    std::vector<int16_t> impulse(40, 0);
    impulse[30] = 8000;
    rig.step(impulse);
    EXPECT_FALSE(rig.gap());
    const std::vector<int16_t> out = samplesOf(rig.step(std::vector<int16_t>(40, 0)));
    std::vector<int16_t> expected(40, 0);
    expected[30 + 56 - 80] = 4000;
    EXPECT_EQ(expected, out);
}

TEST(Reverb, GapAsLongAsTheDelayLeavesNoEcho)
{
    Rig<SonraReverbNode> rig(reverb(16000)); // 112 samples, 320-sample frames
    rig.step(std::vector<int16_t>(320, 20000));
    rig.gap();
    const std::vector<int16_t> in = noise(320, 11);
    EXPECT_EQ(echoed(in, 112, 0.5f), samplesOf(rig.step(in)));
}

TEST(Reverb, SetParametersAndResetRestartWithSilence)
{
    auto node = reverb(16000);
    Rig<SonraReverbNode> rig(node);
    const std::vector<int16_t> in = noise(320, 12);
    rig.step(std::vector<int16_t>(320, 20000));
    node->reset(99);
    EXPECT_EQ(echoed(in, 112, 0.5f), samplesOf(rig.step(in)));

    node->setParameters(3, -0.25f); // 48 samples, inverted echo
    EXPECT_EQ(echoed(in, 48, -0.25f), samplesOf(rig.step(in)));
    rig.step(in);
    node->reset(0);
    EXPECT_EQ(echoed(in, 48, -0.25f), samplesOf(rig.step(in)));
}

TEST(Reverb, DefaultsAreReadByTheConstructor)
{
    SonraReverbNode::DEFAULT_DELAY = 2;
    SonraReverbNode::DEFAULT_DECAY = 0.25f;
    auto node = reverb(8000);
    SonraReverbNode::DEFAULT_DELAY = 7;
    SonraReverbNode::DEFAULT_DECAY = 0.5f;
    Rig<SonraReverbNode> rig(node);
    const std::vector<int16_t> in = noise(160, 13);
    EXPECT_EQ(echoed(in, 16, 0.25f), samplesOf(rig.step(in)));
}

TEST(Reverb, MatchesSoxEchoExceptWhereSoxRoundsNegativeHalvesUp)
{
    // sox echo 1 1 7 0.5 forms in + 0.5 x in(t - 7 ms) exactly and rounds to
    // 16 bits half up, where the node rounds half away from zero.
    const std::vector<int16_t> in = noise(16000, 14, 30000);
    const std::vector<int16_t> reference = sox(in, 16000, 1, 1, "echo 1 1 7 0.5");
    ASSERT_GE(reference.size(), in.size());
    for (const std::vector<std::size_t>& lengths :
         {std::vector<std::size_t>{320}, std::vector<std::size_t>{1, 111, 112, 113, 500, 29}}) {
        Rig<SonraReverbNode> rig(reverb(16000));
        const std::vector<int16_t> out = runInPieces(rig, in, lengths);
        ASSERT_EQ(in.size(), out.size());
        std::size_t differences = 0;
        for (std::size_t k = 0; k < in.size(); ++k) {
            const bool negativeHalf = k >= 112 && in[k - 112] < 0 && in[k - 112] % 2 != 0;
            const bool saturated = reference[k] == 32767 || reference[k] == -32768;
            if (negativeHalf && !saturated) {
                differences += out[k] != reference[k];
                EXPECT_EQ(reference[k] - 1, out[k]) << k;
            } else {
                EXPECT_EQ(reference[k], out[k]) << k;
            }
        }
        EXPECT_GT(differences, in.size() / 8);
    }
}

TEST(ReverbDeathTest, StereoIsRefused)
{
    auto node = reverb(16000);
    node->setOutputChannels(2);
    Rig<SonraReverbNode> rig(node);
    EXPECT_DEATH(rig.step(noise(320, 15)), "outputChannels\\(\\)==1");
}

// -------------------------------------------------------------- voice change

namespace {

const unsigned TONE = 300; // Hz
// A pitch within 1% of the goal: the scan resolves about 2 Hz over half a
// second, and SoundTouch's splicing moves the peak by a few tenths of a Hz.
const double PITCH_TOLERANCE = 0.01;

boost::shared_ptr<SonraVoiceChangeNode> voiceChange(unsigned sampleRate, bool enabled = true)
{
    return boost::make_shared<SonraVoiceChangeNode>(ioService(), 20, sampleRate, enabled);
}

// Runs `seconds` of `signal` (interleaved, `channels`) through the node in
// 20 ms frames and returns the whole output.
std::vector<int16_t> runFrames(Rig<SonraVoiceChangeNode>& rig, const std::vector<int16_t>& signal,
                               std::size_t frameSamples)
{
    std::vector<int16_t> out;
    for (std::size_t first = 0; first + frameSamples <= signal.size(); first += frameSamples)
        append(out, samplesOf(rig.step(slice(signal, first, frameSamples))));
    return out;
}

// The output's pitch over its last half second, well after the shifter's
// start-up latency.
double pitchOf(const std::vector<int16_t>& out, unsigned sampleRate)
{
    const std::size_t window = sampleRate / 2;
    return dominantFrequency(slice(out, out.size() - window, window), sampleRate, 100, 1000);
}

} // namespace

TEST(VoiceChange, WithoutAShifterEveryFrameIsPassedThrough)
{
    auto node = voiceChange(16000, false);
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    EXPECT_EQ(SonraVoiceChangeNode::NORMAL, node->voiceType());
    Rig<SonraVoiceChangeNode> rig(node);
    const Frame in = frameOf(sonratest::sine(TONE, 16000, 320));
    EXPECT_EQ(in.get(), rig.step(in).get());
    EXPECT_FALSE(rig.gap());
    const Frame empty = boost::make_shared<std::vector<char> >();
    EXPECT_FALSE(rig.step(empty));
}

TEST(VoiceChange, NormalVoicePassesTheSameFrameBuffer)
{
    auto node = voiceChange(16000);
    Rig<SonraVoiceChangeNode> rig(node);
    const Frame in = frameOf(sonratest::sine(TONE, 16000, 320));
    EXPECT_EQ(in.get(), rig.step(in).get());
    node->setVoiceType(SonraVoiceChangeNode::LOWER);
    node->setVoiceType(SonraVoiceChangeNode::NORMAL);
    EXPECT_EQ(in.get(), rig.step(in).get());
    EXPECT_FALSE(rig.gap());
}

TEST(VoiceChange, EachVoiceShiftsAToneByItsFactor)
{
    const struct {
        SonraVoiceChangeNode::Voice voice;
        double factor;
    } voices[] = {{SonraVoiceChangeNode::LOWER, 0.79},
                  {SonraVoiceChangeNode::LOWEST, 0.7},
                  {SonraVoiceChangeNode::HIGHER, 1.3},
                  {SonraVoiceChangeNode::HIGHEST, 1.8}};
    for (unsigned sampleRate : {16000u, 48000u}) {
        const std::vector<int16_t> tone = sonratest::sine(TONE, sampleRate, sampleRate); // 1 s
        for (const auto& voice : voices) {
            auto node = voiceChange(sampleRate);
            node->setVoiceType(voice.voice);
            EXPECT_EQ(voice.voice, node->voiceType());
            Rig<SonraVoiceChangeNode> rig(node);
            const std::vector<int16_t> out = runFrames(rig, tone, sampleRate / 50);
            ASSERT_EQ(tone.size(), out.size());
            const double expected = TONE * voice.factor;
            EXPECT_NEAR(expected, pitchOf(out, sampleRate), expected * PITCH_TOLERANCE)
                << "voice " << voice.voice << " at " << sampleRate << " Hz";
            // The shifted tone keeps most of its level and the original is gone.
            const std::vector<int16_t> settled = slice(out, sampleRate / 2, sampleRate / 2);
            EXPECT_GT(sonratest::rms(settled), 0.5 * sonratest::rms(tone));
            EXPECT_LT(sonratest::toneAmplitude(settled, TONE, sampleRate),
                      0.1 * sonratest::toneAmplitude(settled, expected, sampleRate));
        }
    }
}

TEST(VoiceChange, StereoChannelsAreShiftedApart)
{
    auto node = voiceChange(16000);
    node->setOutputChannels(2);
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    Rig<SonraVoiceChangeNode> rig(node, 2);
    const std::vector<int16_t> stereo =
        interleave(sonratest::sine(TONE, 16000, 16000), sonratest::sine(440, 16000, 16000));
    const std::vector<int16_t> out = runFrames(rig, stereo, 2 * 320);
    ASSERT_EQ(stereo.size(), out.size());
    EXPECT_NEAR(TONE * 1.3, pitchOf(channel(out, 2, 0), 16000), TONE * 1.3 * PITCH_TOLERANCE);
    EXPECT_NEAR(440 * 1.3, pitchOf(channel(out, 2, 1), 16000), 440 * 1.3 * PITCH_TOLERANCE);
}

TEST(VoiceChange, OutputIsSoundTouchItselfConvertedAtTheBoundary)
{
    // The same SoundTouch settings fed the same data as floats in one call
    // per frame; the node's output is that, x 32768 rounded half away from
    // zero and saturated, with silence where SoundTouch had nothing yet.
    for (unsigned channels : {1u, 2u}) {
        auto node = voiceChange(16000);
        node->setOutputChannels(channels);
        node->setVoiceType(SonraVoiceChangeNode::LOWEST);
        Rig<SonraVoiceChangeNode> rig(node, channels);

        soundtouch::SoundTouch reference;
        reference.setSampleRate(16000);
        reference.setChannels(channels);
        reference.setPitch(0.7f);

        const std::vector<int16_t> signal = noise(16000 * channels / 2, 16 + channels, 32767);
        const std::size_t frameSamples = 320 * channels;
        std::size_t silentAtStart = 0;
        for (std::size_t first = 0; first + frameSamples <= signal.size(); first += frameSamples) {
            std::vector<soundtouch::SAMPLETYPE> in(frameSamples), out(frameSamples, 0);
            for (std::size_t k = 0; k < frameSamples; ++k)
                in[k] = soundtouch::SAMPLETYPE(signal[first + k] / 32768.0);
            reference.putSamples(in.data(), 320);
            const unsigned got = reference.receiveSamples(out.data(), 320);
            if (got == 0)
                ++silentAtStart;
            std::vector<int16_t> expected(frameSamples, 0);
            for (std::size_t k = 0; k < got * channels; ++k)
                expected[k] = saturate(std::lround(double(out[k]) * 32768.0));
            ASSERT_EQ(expected, samplesOf(rig.step(slice(signal, first, frameSamples))))
                << "frame starting at " << first << ", " << channels << " channel(s)";
        }
        EXPECT_GE(silentAtStart, 1u);
    }
}

TEST(VoiceChange, FirstFrameOfAFreshShifterIsFullSizeAndSilentWhereItHasNothing)
{
    auto node = voiceChange(16000);
    node->setVoiceType(SonraVoiceChangeNode::LOWER);
    Rig<SonraVoiceChangeNode> rig(node);
    const Frame in = frameOf(sonratest::sine(TONE, 16000, 320));
    const Frame out = rig.step(in);
    ASSERT_TRUE(out);
    EXPECT_NE(in.get(), out.get());
    EXPECT_EQ(640u, out->size());
    EXPECT_EQ(0, samplesOf(out)[0]);
}

TEST(VoiceChange, UnknownVoiceGoesThroughTheShifterAtNormalPitch)
{
    auto node = voiceChange(16000);
    node->setVoiceType(static_cast<SonraVoiceChangeNode::Voice>(7));
    EXPECT_EQ(7, node->voiceType());
    Rig<SonraVoiceChangeNode> rig(node);
    const std::vector<int16_t> tone = sonratest::sine(TONE, 16000, 16000);
    const Frame in = frameOf(slice(tone, 0, 320));
    const Frame first = rig.step(in);
    EXPECT_NE(in.get(), first.get());
    std::vector<int16_t> out = samplesOf(first);
    append(out, runFrames(rig, slice(tone, 320, tone.size() - 320), 320));
    EXPECT_NEAR(TONE, pitchOf(out, 16000), TONE * PITCH_TOLERANCE);
}

TEST(VoiceChange, PitchFactorsAreReadWhenTheVoiceIsSet)
{
    EXPECT_EQ(1.0f, SonraVoiceChangeNode::PITCH_NORMAL);
    EXPECT_EQ(0.79f, SonraVoiceChangeNode::PITCH_LOWER);
    EXPECT_EQ(0.7f, SonraVoiceChangeNode::PITCH_LOWEST);
    EXPECT_EQ(1.3f, SonraVoiceChangeNode::PITCH_HIGHER);
    EXPECT_EQ(1.8f, SonraVoiceChangeNode::PITCH_HIGHEST);
    auto node = voiceChange(16000);
    SonraVoiceChangeNode::PITCH_HIGHER = 1.5f;
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    SonraVoiceChangeNode::PITCH_HIGHER = 1.3f;
    Rig<SonraVoiceChangeNode> rig(node);
    EXPECT_NEAR(TONE * 1.5, pitchOf(runFrames(rig, sonratest::sine(TONE, 16000, 16000), 320), 16000),
                TONE * 1.5 * PITCH_TOLERANCE);
}

TEST(VoiceChange, UnusableFactorsMeanNoShift)
{
    auto node = voiceChange(16000);
    const float saved = SonraVoiceChangeNode::PITCH_LOWEST;
    for (float factor : {0.0f, -1.0f, NAN, INFINITY}) {
        SonraVoiceChangeNode::PITCH_LOWEST = factor;
        node->setVoiceType(SonraVoiceChangeNode::LOWEST);
    }
    SonraVoiceChangeNode::PITCH_LOWEST = saved;
    Rig<SonraVoiceChangeNode> rig(node);
    EXPECT_NEAR(TONE, pitchOf(runFrames(rig, sonratest::sine(TONE, 16000, 16000), 320), 16000),
                TONE * PITCH_TOLERANCE);
}

TEST(VoiceChange, ResetDropsWhatTheShifterHolds)
{
    auto node = voiceChange(16000);
    node->setVoiceType(SonraVoiceChangeNode::HIGHEST);
    Rig<SonraVoiceChangeNode> rig(node);
    const std::vector<int16_t> loud(320, 20000);
    for (int frame = 0; frame < 20; ++frame)
        rig.step(loud);
    node->reset(0);
    // Silence in: nothing of the loud past may come out.
    for (int frame = 0; frame < 20; ++frame)
        EXPECT_EQ(std::vector<int16_t>(320, 0), samplesOf(rig.step(std::vector<int16_t>(320, 0)))) << frame;
}

TEST(VoiceChange, NormalBypassKeepsWhatTheShifterHolds)
{
    auto node = voiceChange(16000);
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    Rig<SonraVoiceChangeNode> rig(node);
    for (int frame = 0; frame < 10; ++frame)
        rig.step(std::vector<int16_t>(320, 20000));
    node->setVoiceType(SonraVoiceChangeNode::NORMAL);
    rig.step(std::vector<int16_t>(320, 0));
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    const std::vector<int16_t> out = samplesOf(rig.step(std::vector<int16_t>(320, 0)));
    EXPECT_GT(sonratest::rms(out), 1000.0); // the held loud samples come out now
}

TEST(VoiceChange, ShortFramesAreNeverReadPastTheirEnd)
{
    auto node = voiceChange(16000);
    node->setOutputChannels(2);
    node->setVoiceType(SonraVoiceChangeNode::LOWER);
    Rig<SonraVoiceChangeNode> rig(node, 2);
    for (std::size_t bytes : {1u, 3u, 4u, 5u, 100u, 1279u, 1280u, 4000u}) {
        const Frame in = boost::make_shared<std::vector<char> >(bytes, char(0x11));
        const Frame out = rig.step(in);
        ASSERT_TRUE(out);
        EXPECT_EQ(1280u, out->size()) << bytes;
    }
}

TEST(VoiceChange, ChannelCountsSoundTouchRefusesThrowAndStaySafe)
{
    auto node = voiceChange(16000);
    node->setVoiceType(SonraVoiceChangeNode::HIGHER);
    EXPECT_THROW(node->setOutputChannels(0), std::runtime_error);
    EXPECT_THROW(node->setOutputChannels(17), std::runtime_error);
    Rig<SonraVoiceChangeNode> rig(node);
    for (int frame = 0; frame < 10; ++frame)
        EXPECT_EQ(17u * 640, rig.step(sonratest::sine(TONE, 16000, 320 * 17))->size());
}
