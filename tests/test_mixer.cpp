// The mixer: channel folding, the limiter's exact figures and recovery, and
// agreement with a per-sample reference over random frames.
#include "sonramixernode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned FRAME_MS = 20;
const unsigned RATE = 16000;           // Hz
const unsigned SAMPLES = 320;          // per channel in a 20 ms frame

std::vector<int16_t> filled(int16_t value, std::size_t count = SAMPLES)
{
    return std::vector<int16_t>(count, value);
}

struct MixerGraph : ::testing::Test {
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    boost::shared_ptr<SonraMixerNode> mixer = boost::make_shared<SonraMixerNode>(ioService(), FRAME_MS, RATE);
    QueueSource first, second;

    void SetUp() override
    {
        pipe->connect(first.node(FRAME_MS, RATE), mixer);
        pipe->connect(second.node(FRAME_MS, RATE), mixer);
    }

    // Mixes one frame of each source and returns the mixed samples.
    std::vector<int16_t> mix(const std::vector<int16_t>& a, const std::vector<int16_t>& b)
    {
        first.push(a);
        second.push(b);
        pipe->processFrame();
        return samplesOf(mixer->outputData());
    }
};

TEST_F(MixerGraph, FirstCutGivesTheDocumentedGainAndRecoversIn75Ticks)
{
    std::vector<int16_t> a = filled(5000), b = filled(5000);
    a[0] = 20000;
    b[0] = 10000;
    std::vector<int16_t> out = mix(a, b);
    EXPECT_EQ(out[0], 25805);  // 30000 x 0.86016
    EXPECT_EQ(out[1], 8602);   // 10000 x 0.86016 = 8601.6
    EXPECT_EQ(out.back(), 8602);

    // One tick adds 20 x (1 - 0.86016) / 1500 = 0.0018645.
    EXPECT_EQ(mix(filled(5000), filled(5000))[0], 8620);
    for (int tick = 2; tick < 74; ++tick)
        mix(filled(5000), filled(5000));
    EXPECT_EQ(mix(filled(5000), filled(5000))[0], 9981); // 74 ticks: 0.998133
    EXPECT_EQ(mix(filled(5000), filled(5000))[0], 10000); // 75 ticks: back at 1.0
    EXPECT_EQ(mix(filled(16000), filled(12000))[0], 28000);
}

TEST_F(MixerGraph, DeeperCutLowersTheGainAgainWithinTheFrame)
{
    std::vector<int16_t> a = filled(5000), b = filled(5000);
    a[0] = 20000; b[0] = 10000;   // 30000: gain 0.86016
    a[1] = 20000; b[1] = 20000;   // 40000: gain 0.64512
    const std::vector<int16_t> out = mix(a, b);
    EXPECT_EQ(out[0], 25805);
    EXPECT_EQ(out[1], 25805);
    EXPECT_EQ(out[2], 6451);      // 10000 x 0.64512 = 6451.2
    // Step 20 x (1 - 0.64512) / 1500 = 0.0047317 per tick.
    EXPECT_EQ(mix(filled(5000), filled(5000))[0], 6499);
}

TEST_F(MixerGraph, ThresholdIsInclusiveOnBothSides)
{
    std::vector<int16_t> a = filled(0), b = filled(0);
    a[0] = 14335; b[0] = 14336;   // 28671: not limited
    a[1] = 5000;  b[1] = 5000;
    std::vector<int16_t> out = mix(a, b);
    EXPECT_EQ(out[0], 28671);
    EXPECT_EQ(out[1], 10000);

    a[0] = -14336; b[0] = -14336; // -28672: limited to gain 0.9
    out = mix(a, b);
    EXPECT_EQ(out[0], -25805);    // -25804.8
    EXPECT_EQ(out[1], 9000);
}

TEST_F(MixerGraph, ResetRestoresUnityGain)
{
    std::vector<int16_t> a = filled(20000), b = filled(10000);
    mix(a, b);
    pipe->reset(0);
    EXPECT_EQ(mix(filled(5000), filled(5000))[0], 10000);
}

TEST_F(MixerGraph, MissingAndShortInputsContributeOnlyWhatTheyHold)
{
    // One source gives nothing, the other a frame of 3 samples and an odd byte.
    auto shortFrame = frameOf({100, 200, 300});
    shortFrame->push_back(0x7f);
    second.push(shortFrame);
    pipe->processFrame();
    const std::vector<int16_t> out = samplesOf(mixer->outputData());
    ASSERT_EQ(out.size(), SAMPLES);
    EXPECT_EQ(out[0], 100);
    EXPECT_EQ(out[2], 300);
    EXPECT_EQ(out[3], 0);

    pipe->processFrame();   // both silent: still a full, all-zero frame
    EXPECT_EQ(samplesOf(mixer->outputData()), filled(0));
}

TEST(Mixer, WithoutInputsGivesNothing)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto mixer = boost::make_shared<SonraMixerNode>(ioService(), FRAME_MS, RATE);
    pipe->addNode(mixer);
    pipe->processFrame();
    EXPECT_FALSE(mixer->outputData());
}

TEST(Mixer, FoldsChannelsIntoTheMixersLayout)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto monoMixer = boost::make_shared<SonraMixerNode>(ioService(), FRAME_MS, RATE);
    auto stereoMixer = boost::make_shared<SonraMixerNode>(ioService(), FRAME_MS, RATE);
    stereoMixer->setOutputChannels(2);

    std::vector<int16_t> stereo;
    for (unsigned i = 0; i < SAMPLES; ++i) {
        stereo.push_back(1000);
        stereo.push_back(2000);
    }
    pipe->connect(constantSource(stereo, FRAME_MS, RATE, 2), monoMixer);
    pipe->connect(constantSource(filled(700), FRAME_MS, RATE, 1), stereoMixer);
    pipe->processFrame();

    EXPECT_EQ(samplesOf(monoMixer->outputData()), filled(3000));
    const std::vector<int16_t> out = samplesOf(stereoMixer->outputData());
    ASSERT_EQ(out.size(), 2 * SAMPLES);
    for (unsigned i = 0; i < SAMPLES; ++i) {
        ASSERT_EQ(out[2 * i], 700);
        ASSERT_EQ(out[2 * i + 1], 0);
    }
}

// The per-sample rule, written out plainly with the C library's roundf.
struct ReferenceMixer {
    float gain = 1.0f;
    float step = 0.0f;

    std::vector<int16_t> mix(const std::vector<std::vector<int16_t> >& inputs)
    {
        std::vector<int16_t> out(inputs[0].size());
        for (std::size_t k = 0; k < out.size(); ++k) {
            int32_t s = 0;
            for (const auto& input : inputs)
                s += input[k];
            if (s >= 28672 || s <= -28672) {
                const float limit = float(double(float(s > 0 ? 28672.0f / s : -28672.0f / s)) * 0.9);
                if (gain > limit) {
                    gain = limit;
                    step = float(FRAME_MS) * (1.0f - gain) / 1500.0f;
                }
            }
            out[k] = SonraNode::normalize(int32_t(std::roundf(float(s) * gain)));
        }
        return out;
    }
    void tick()
    {
        if (gain < 0.999f)
            gain += step;
        if (gain > 1.0f)
            gain = 1.0f;
    }
};

TEST(Mixer, MatchesThePerSampleRuleOnRandomLoudFrames)
{
    const unsigned rate = 48000, channels = 2, inputs = 3;
    const unsigned perFrame = SonraNode::frameSize(FRAME_MS, rate) / 2 * channels;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto mixer = boost::make_shared<SonraMixerNode>(ioService(), FRAME_MS, rate);
    mixer->setOutputChannels(channels);
    std::vector<QueueSource> sources(inputs);
    for (auto& source : sources)
        pipe->connect(source.node(FRAME_MS, rate, channels), mixer);

    std::mt19937 random(7);
    ReferenceMixer reference;
    for (int frame = 0; frame < 200; ++frame) {
        // Mostly quiet frames, some loud bursts, so every path is taken.
        const int amplitude = frame % 37 == 0 ? 32767 : (frame % 5 == 0 ? 12000 : 3000);
        std::uniform_int_distribution<int> sample(-amplitude, amplitude);
        std::vector<std::vector<int16_t> > frames(inputs, std::vector<int16_t>(perFrame));
        for (unsigned n = 0; n < inputs; ++n) {
            for (auto& s : frames[n])
                s = int16_t(sample(random));
            sources[n].push(frames[n]);
        }
        pipe->processFrame();
        ASSERT_EQ(samplesOf(mixer->outputData()), reference.mix(frames)) << "frame " << frame;
        reference.tick();
    }
}

} // namespace
