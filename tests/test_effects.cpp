// The effect nodes: mono-to-stereo (Haas delay), reverb (one feed-forward echo) and voice change
// (SoundTouch pitch shift), judged against sox and against SoundTouch itself.
#include "sonramonotostereonode.h"
#include "sonrareverbnode.h"
#include "sonravoicechangenode.h"
#include "testutil.h"

#include <SoundTouch.h>

#include <stdexcept>

using namespace ombrel;
using namespace sonratest;
using VC = SonraVoiceChangeNode;
using Stereo = NodeGraph<SonraMonoToStereoNode>;
using Reverb = NodeGraph<SonraReverbNode>;

namespace {

// A whole signal through a reverb: echoes round halves away from zero.
Samples echoed(const Samples& in, std::size_t delay, float decay)
{
    Samples out(in.size());
    for (std::size_t k = 0; k < in.size(); ++k)
        out[k] = SonraNode::normalize(int(in[k] + (k >= delay ? std::lround(in[k - delay] * double(decay)) : 0L)));
    return out;
}

Samples delayed(const Samples& in, std::size_t delay) { return concat(Samples(delay, 0), slice(in, 0, in.size() - delay)); }

Samples impulse(std::size_t count, std::size_t at, int16_t value)
{
    Samples samples(count, 0);
    samples[at] = value;
    return samples;
}

Samples right(const Frame& stereo) { return channel(samplesOf(stereo), 2, 1); }

boost::shared_ptr<SonraMonoToStereoNode> monoToStereo(unsigned sampleRate, int32_t delayMs)
{
    auto node = boost::make_shared<SonraMonoToStereoNode>(ioService(), 20, sampleRate);
    node->setOutputChannels(2);
    node->setHaasEffect(delayMs);
    return node;
}

boost::shared_ptr<SonraReverbNode> reverb(unsigned sampleRate, unsigned frameDuration = 20)
{
    return boost::make_shared<SonraReverbNode>(ioService(), frameDuration, sampleRate);
}

} // namespace

// Twice the input whatever the channel count (an odd byte is no sample); an
// impulse comes out delayed across frame borders, and a gap keeps time.
TEST(MonoToStereo, SizesAndAnImpulseAcrossFramesAndGaps)
{
    EXPECT_EQ((Samples{1, 1, 2, 2, 3, 3}), Stereo(monoToStereo(16000, 0)).run({1, 2, 3}));
    auto three = monoToStereo(16000, 5);
    three->setOutputChannels(3);
    Stereo sizes(three);
    for (const auto& bytesIn : {std::make_pair(640, 1280u), {3, 4u}, {1, 0u}})
        EXPECT_EQ(bytesIn.second, sizes.step(bytesFrame(std::vector<char>(bytesIn.first, 'x')))->size());

    Stereo rig(monoToStereo(8000, 30)); // 240 samples, longer than a 160-sample frame
    Samples out = right(rig.step(frameOf(impulse(160, 100, 12345))));
    for (int frame = 0; frame < 3; ++frame)
        out = concat(out, right(rig.step(frameOf(Samples(160, 0)))));
    EXPECT_EQ(impulse(640, 340, 12345), out);
    rig.step(frameOf(impulse(160, 100, -777)));
    EXPECT_FALSE(rig.step()); // 160 samples of silence go into the delay line
    EXPECT_EQ(impulse(160, 340 - 320, -777), right(rig.step(frameOf(Samples(160, 0)))));
}

TEST(MonoToStereo, SetHaasEffectResetAndGapsRestartWithSilenceAndUnusableDelaysMeanNone)
{
    const Samples in = noise(160, 4);
    SonraMonoToStereoNode::DEFAULT_DELAY = 1; // 8 samples at 8 kHz
    auto node = boost::make_shared<SonraMonoToStereoNode>(ioService(), 20, 8000);
    SonraMonoToStereoNode::DEFAULT_DELAY = 0;
    Stereo rig(node);
    const Samples first = rig.run(in);
    EXPECT_EQ(in, channel(first, 2, 0));
    EXPECT_EQ(delayed(in, 8), channel(first, 2, 1));
    for (int restart = 0; restart < 2; ++restart) {
        rig.run(Samples(160, 9999));
        restart ? (void)rig.step() : node->reset(1234);
        EXPECT_EQ(delayed(in, 8), right(rig.step(frameOf(in))));
    }
    node->setHaasEffect(2);
    EXPECT_EQ(delayed(in, 16), right(rig.step(frameOf(in))));
    Stereo oneSample(monoToStereo(1000, 1)); // the shortest line: a gap still silences it
    oneSample.run(in);
    EXPECT_FALSE(oneSample.step());
    EXPECT_EQ(delayed(in, 1), right(oneSample.step(frameOf(in))));
    for (const auto& rateAndDelay : {std::make_pair(8000u, 0), {8000u, -5}, {800u, 1}}) { // 800 Hz: 0.8 samples
        Stereo other(monoToStereo(rateAndDelay.first, rateAndDelay.second));
        other.step();
        EXPECT_EQ(in, right(other.step(frameOf(in))));
        other.node->reset(0);
        EXPECT_EQ(in, right(other.step(frameOf(in))));
    }
}

TEST(MonoToStereo, MatchesSoxRemixAndDelayForAnyFrameLengths)
{
    const Samples in = noise(16000, 7);
    const Samples reference = sox(in, 16000, 1, "-c 2 - remix 1 1 delay 0 160s");
    ASSERT_GE(reference.size(), 2 * in.size());
    for (const std::vector<std::size_t>& lengths : {std::vector<std::size_t>{320}, {1, 159, 160, 161, 700, 37}})
        EXPECT_EQ(slice(reference, 0, 2 * in.size()), Stereo(monoToStereo(16000, 10)).runInPieces(in, lengths));
}

// 7 ms at half level by default, read when a node is made; the echo of an
// impulse crosses frame borders, and a gap keeps time.
TEST(Reverb, DefaultEchoAndAnImpulseAcrossFramesAndGaps)
{
    const Samples in = noise(320, 8);
    EXPECT_EQ(echoed(in, 112, 0.5f), Reverb(reverb(16000)).run(in));
    SonraReverbNode::DEFAULT_DELAY = 2;
    SonraReverbNode::DEFAULT_DECAY = 0.25f;
    auto node = reverb(8000);
    SonraReverbNode::DEFAULT_DELAY = 7;
    SonraReverbNode::DEFAULT_DECAY = 0.5f;
    EXPECT_EQ(echoed(slice(in, 0, 160), 16, 0.25f), Reverb(node).run(slice(in, 0, 160)));

    Reverb rig(reverb(8000, 5)); // 56-sample echo, 40-sample frames
    for (const int16_t value : {10001, -10001}) {
        EXPECT_EQ(impulse(40, 30, value), rig.run(impulse(40, 30, value)));
        if (value > 0)
            EXPECT_EQ(Samples(40, 0), rig.run(Samples(40, 0)));
        else
            EXPECT_FALSE(rig.step());
        EXPECT_EQ(impulse(40, 30 + 56 - 80, value / 2 + value % 2), rig.run(Samples(40, 0))); // +-5001
    }
}

TEST(Reverb, EchoRoundsHalvesAwayFromZeroAndSumsSaturateForAnyDecay)
{
    Reverb rig(reverb(8000, 10));
    rig.node->setParameters(1, 0.5f); // 8 samples
    Samples in{1001, -1001, 3, -3, 0, 0, 0, 0, 0, 0, 0, 0, 20000, -20000, 0, 0, 0, 0, 0, 0, 30000, -30000};
    in.resize(80);
    Samples out = rig.run(in);
    EXPECT_EQ((Samples{501, -501, 2, -2}), slice(out, 8, 4));
    EXPECT_EQ((Samples{32767, -32768}), slice(out, 20, 2));
    in = {1, -1, -32768, 32767, 0, 0, 0, 0, 0, 0, -32768, 32767}; // dry extremes under the echoes of extremes
    in.resize(80);
    for (float decay : {65535.0f, 1e30f, -1e30f, INFINITY, -INFINITY}) {
        rig.node->setParameters(1, decay);
        out = rig.run(in);
        const int16_t up = decay > 0 ? 32767 : -32768, down = decay > 0 ? -32768 : 32767;
        EXPECT_EQ((Samples{up, down, down, up}), slice(out, 8, 4)) << decay;
        EXPECT_EQ(0, out[20]) << decay; // a silent echo source stays silent
    }
    rig.node->setParameters(1, NAN);
    EXPECT_EQ(in, rig.run(in));
}

TEST(Reverb, SetParametersAndResetRestartWithSilenceAndUnusableDelaysMeanNoEcho)
{
    Reverb rig(reverb(16000));
    const Samples in = noise(320, 12);
    rig.run(Samples(320, 20000));
    rig.node->reset(99);
    EXPECT_EQ(echoed(in, 112, 0.5f), rig.run(in));
    rig.node->setParameters(3, -0.25f); // 48 samples, inverted echo
    EXPECT_EQ(echoed(in, 48, -0.25f), rig.run(in));
    rig.run(in);
    rig.node->reset(0);
    EXPECT_EQ(echoed(in, 48, -0.25f), rig.run(in));
    rig.node->setParameters(0, 0.5f);
    const Frame frame = frameOf(in);
    EXPECT_NE(frame.get(), rig.step(frame).get()); // a new frame with the same bytes
    EXPECT_EQ(in, samplesOf(rig.node->outputData()));
    for (int32_t delay : {-7, 1}) { // 1 ms at 800 Hz is 0.8 samples
        Reverb other(reverb(800));
        other.node->setParameters(delay, 0.5f);
        other.step();
        EXPECT_EQ(slice(in, 0, 16), other.run(slice(in, 0, 16))) << delay;
        other.node->reset(0);
        EXPECT_EQ(slice(in, 0, 16), other.run(slice(in, 0, 16))) << delay;
    }
}

TEST(Reverb, MatchesSoxEchoExceptWhereSoxRoundsNegativeHalvesUp)
{
    const Samples in = noise(16000, 14, 30000);
    const Samples reference = sox(in, 16000, 1, "-c 1 - echo 1 1 7 0.5"); // rounds half up, exact otherwise
    ASSERT_GE(reference.size(), in.size());
    for (const std::vector<std::size_t>& lengths : {std::vector<std::size_t>{320}, {1, 111, 112, 113, 500, 29}}) {
        const Samples out = Reverb(reverb(16000)).runInPieces(in, lengths);
        ASSERT_EQ(in.size(), out.size());
        std::size_t differences = 0;
        for (std::size_t k = 0; k < in.size(); ++k) {
            const bool negativeHalf = k >= 112 && in[k - 112] < 0 && in[k - 112] % 2 != 0;
            const bool differs = negativeHalf && reference[k] != 32767 && reference[k] != -32768;
            differences += differs;
            EXPECT_EQ(reference[k] - differs, out[k]) << k;
        }
        EXPECT_GT(differences, in.size() / 8);
    }
}

TEST(ReverbDeathTest, StereoIsRefused)
{
    auto node = reverb(16000);
    node->setOutputChannels(2);
    Reverb rig(node);
    EXPECT_DEATH(rig.run(noise(320, 15)), "outputChannels\\(\\)==1");
}

namespace {

const unsigned TONE = 300; // Hz

boost::shared_ptr<VC> voiceChange(VC::Voice voice, unsigned channels = 1, unsigned sampleRate = 16000)
{
    auto node = boost::make_shared<VC>(ioService(), 20, sampleRate, true);
    node->setOutputChannels(channels);
    node->setVoiceType(voice);
    return node;
}

// Half a second of noise through the node and through a SoundTouch of its
// own set to `pitch`, fed as floats in one call per frame: the node gives
// that x 32768, rounded half away from zero and saturated, with silence
// where SoundTouch had nothing yet.
void expectSoundTouch(const boost::shared_ptr<VC>& node, float pitch, unsigned channels = 1, unsigned rate = 16000)
{
    NodeGraph<VC> rig(node, channels);
    soundtouch::SoundTouch reference;
    reference.setSampleRate(rate);
    reference.setChannels(channels);
    reference.setPitch(pitch);
    const unsigned n = rate / 50, frameSamples = n * channels; // per channel, in all
    const Samples signal = noise(rate * channels / 2, 16 + channels, 32767);
    std::size_t silentAtStart = 0;
    for (std::size_t first = 0; first + frameSamples <= signal.size(); first += frameSamples) {
        std::vector<soundtouch::SAMPLETYPE> in(frameSamples), out(frameSamples, 0);
        for (std::size_t k = 0; k < frameSamples; ++k)
            in[k] = soundtouch::SAMPLETYPE(signal[first + k] / 32768.0);
        reference.putSamples(in.data(), n);
        const unsigned got = reference.receiveSamples(out.data(), n);
        silentAtStart += got == 0;
        Samples expected(frameSamples, 0);
        for (std::size_t k = 0; k < got * channels; ++k)
            expected[k] = SonraNode::normalize(int(std::lround(double(out[k]) * 32768.0)));
        ASSERT_EQ(expected, rig.run(slice(signal, first, frameSamples))) << first << ", pitch " << pitch;
    }
    EXPECT_GE(silentAtStart, 1u);
}

} // namespace

TEST(VoiceChange, FlagFalseAndNormalVoicePassTheSameFrameBuffer)
{
    const Frame in = frameOf(sine(TONE, 16000, 320));
    auto off = boost::make_shared<VC>(ioService(), 20, 16000, false);
    off->setVoiceType(VC::HIGHER);
    EXPECT_EQ(VC::NORMAL, off->voiceType());
    NodeGraph<VC> offRig(off), rig(voiceChange(VC::NORMAL)), unknown(voiceChange(VC::Voice(7)));
    EXPECT_EQ(in.get(), offRig.step(in).get());
    EXPECT_FALSE(offRig.step() || offRig.step(bytesFrame(Bytes())));
    EXPECT_EQ(in.get(), rig.step(in).get());
    rig.node->setVoiceType(VC::LOWER);
    rig.node->setVoiceType(VC::NORMAL);
    EXPECT_EQ(in.get(), rig.step(in).get());
    EXPECT_FALSE(rig.step());
    EXPECT_NE(in.get(), unknown.step(in).get()); // through the shifter, at normal pitch
}

// Each voice is SoundTouch at its factor, read when the voice is set; an
// unknown voice or an unusable factor shifts by 1.
TEST(VoiceChange, EachVoiceIsSoundTouchAtItsFactorConvertedAtTheBoundary)
{
    expectSoundTouch(voiceChange(VC::LOWER), 0.79f);
    expectSoundTouch(voiceChange(VC::LOWEST, 2), 0.7f, 2);
    expectSoundTouch(voiceChange(VC::HIGHER), 1.3f);
    expectSoundTouch(voiceChange(VC::HIGHEST, 1, 48000), 1.8f, 1, 48000);
    expectSoundTouch(voiceChange(VC::Voice(7)), 1.0f);
    VC::PITCH_HIGHER = 1.5f;
    auto higher = voiceChange(VC::HIGHER);
    VC::PITCH_HIGHER = 1.3f;
    expectSoundTouch(higher, 1.5f);
    auto unusable = voiceChange(VC::NORMAL);
    for (float factor : {0.0f, -1.0f, NAN, INFINITY}) {
        VC::PITCH_LOWEST = factor;
        unusable->setVoiceType(VC::LOWEST);
    }
    VC::PITCH_LOWEST = 0.7f;
    expectSoundTouch(unusable, 1.0f);
}

TEST(VoiceChange, ResetDropsWhatTheShifterHoldsButANormalBypassKeepsIt)
{
    NodeGraph<VC> rig(voiceChange(VC::HIGHEST));
    const Samples loud(320, 20000), silence(320, 0);
    for (int frame = 0; frame < 20; ++frame)
        rig.run(loud);
    rig.node->reset(0);
    for (int frame = 0; frame < 20; ++frame)
        EXPECT_EQ(silence, rig.run(silence)) << frame;
    for (int frame = 0; frame < 10; ++frame)
        rig.run(loud);
    rig.node->setVoiceType(VC::NORMAL);
    rig.run(silence);
    rig.node->setVoiceType(VC::HIGHEST);
    EXPECT_GT(rms(rig.run(silence)), 1000.0);
}

TEST(VoiceChange, ShortFramesAndChannelCountsSoundTouchRefusesStaySafe)
{
    NodeGraph<VC> stereo(voiceChange(VC::LOWER, 2), 2);
    for (std::size_t bytes : {1u, 3u, 4u, 5u, 100u, 1279u, 1280u, 4000u})
        EXPECT_EQ(1280u, stereo.step(bytesFrame(std::vector<char>(bytes, 0x11)))->size()) << bytes;
    EXPECT_GT(rms(NodeGraph<VC>(voiceChange(VC::HIGHER, 1, 8000)).runInPieces(Samples(1200, 20000), {1})), 0.0);
    auto node = voiceChange(VC::HIGHER);
    EXPECT_THROW(node->setOutputChannels(0), std::runtime_error);
    EXPECT_THROW(node->setOutputChannels(17), std::runtime_error);
    NodeGraph<VC> rig(node);
    for (int frame = 0; frame < 10; ++frame)
        EXPECT_EQ(17u * 640, rig.step(frameOf(sine(TONE, 16000, 320 * 17)))->size());
}
