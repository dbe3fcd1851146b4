// The volume node: rounding, the limiter figures, mute, unity, short frames
// and in-place work, and a whole graph of source, volume and mixer.
#include "sonralimiter_p.h"
#include "sonramixernode.h"
#include "sonravolumenode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned FRAME_MS = 20;
const unsigned RATE = 16000;  // Hz
const unsigned SAMPLES = 320; // per channel in a 20 ms frame

struct VolumeGraph : ::testing::Test {
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    boost::shared_ptr<SonraVolumeNode> volume = boost::make_shared<SonraVolumeNode>(ioService(), FRAME_MS, RATE);
    QueueSource source;

    void SetUp() override { pipe->connect(source.node(FRAME_MS, RATE), volume); }

    Frame run(const Frame& frame)
    {
        source.push(frame);
        pipe->processFrame();
        return volume->outputData();
    }
    std::vector<int16_t> run(std::vector<int16_t> samples)
    {
        samples.resize(SAMPLES, 0);
        return samplesOf(run(frameOf(samples)));
    }
};

TEST_F(VolumeGraph, RoundsHalvesAwayFromZero)
{
    volume->setVolume(0.5f);
    const std::vector<int16_t> out = run({3, -3, 1, -1, 5, 32767, -32768});
    EXPECT_EQ(out[0], 2);
    EXPECT_EQ(out[1], -2);
    EXPECT_EQ(out[2], 1);
    EXPECT_EQ(out[3], -1);
    EXPECT_EQ(out[4], 3);
    EXPECT_EQ(out[5], 16384);
    EXPECT_EQ(out[6], -16384);
}

TEST_F(VolumeGraph, AmplificationIsCaughtByTheLimiter)
{
    volume->setVolume(2.0f);
    std::vector<int16_t> out = run({20000, 5000, 14335, -14336});
    EXPECT_EQ(out[0], 25805); // 40000 x 0.64512
    EXPECT_EQ(out[1], 6451);  // 10000 x 0.64512
    EXPECT_EQ(out[2], 18496); // 28670 x 0.64512 = 18495.6
    EXPECT_EQ(out[3], -18497); // -28672: limited, but 0.9 is above the gain
    // One tick: 0.64512 + 0.0047317.
    EXPECT_EQ(run({5000})[0], 6499);
    // setVolume returns the gain to 1.0 at once.
    volume->setVolume(2.0f);
    EXPECT_EQ(run({5000})[0], 10000);
}

TEST_F(VolumeGraph, ThresholdIsInclusive)
{
    EXPECT_EQ(run({28671, 10000})[1], 10000);
    const std::vector<int16_t> out = run({-28672, 10000});
    EXPECT_EQ(out[0], -25805); // gain 0.9
    EXPECT_EQ(out[1], 9000);
}

TEST_F(VolumeGraph, WorksInPlaceOnTheInputFrame)
{
    volume->setVolume(0.25f);
    const Frame frame = frameOf(std::vector<int16_t>(SAMPLES, 400));
    EXPECT_EQ(run(frame), frame);
    EXPECT_EQ(samplesOf(frame), std::vector<int16_t>(SAMPLES, 100));
}

TEST_F(VolumeGraph, MuteSilencesEveryByteAndLeavesTheLimiterAlone)
{
    volume->setVolume(2.0f);
    run({20000});                      // cut to 0.64512
    volume->setMuted(true);            // also back to 1.0
    EXPECT_TRUE(volume->isMuted());
    // Longer than a full frame: every byte is cleared all the same.
    const Frame frame = frameOf(std::vector<int16_t>(3 * SAMPLES, 1234));
    EXPECT_EQ(samplesOf(run(frame)), std::vector<int16_t>(3 * SAMPLES, 0));
    volume->setMuted(false);
    EXPECT_EQ(run({5000})[0], 10000);
}

TEST_F(VolumeGraph, EmptyAndShortFramesAreSafe)
{
    volume->setMuted(true);
    const Frame empty = boost::make_shared<std::vector<char> >();
    EXPECT_EQ(run(empty), empty);
    EXPECT_TRUE(empty->empty());
    pipe->processFrame();              // no frame at all
    EXPECT_FALSE(volume->outputData());

    volume->setMuted(false);
    volume->setVolume(3.0f);
    Frame odd = frameOf({1000, 2000});
    odd->push_back(0x11);              // an odd trailing byte stays untouched
    run(odd);
    ASSERT_EQ(odd->size(), 5u);
    EXPECT_EQ(samplesOf(odd), (std::vector<int16_t>{3000, 6000}));
    EXPECT_EQ((*odd)[4], 0x11);
}

TEST(Volume, UnityIsStoredAsExactlyOne)
{
    SonraVolumeNode volume(ioService(), FRAME_MS, RATE);
    for (float unity : {1.0005f, 0.9995f}) {
        volume.setVolume(0.5f);
        volume.setVolume(unity);
        EXPECT_EQ(volume.volume(), 1.0f);
    }
    volume.setVolume(1.002f);
    EXPECT_EQ(volume.volume(), 1.002f);
}

TEST(Volume, RoundingHelperAgreesWithRoundfOnEverySampleAndVolume)
{
    for (float factor : {0.5f, 0.25f, 0.3f, 0.999f, 1.5f, 2.0f, 3.7f, 100.0f, -1.0f}) {
        for (int sample = -32768; sample <= 32767; ++sample) {
            const float value = float(sample) * factor;
            ASSERT_EQ(limiter::roundToInt(value), int32_t(std::roundf(value))) << sample << " x " << factor;
        }
    }
    for (float value : {0.5f, -0.5f, 1.5f, -2.5f, 0.49999997f, 8388607.5f, -8388607.5f, 16777217.0f})
        EXPECT_EQ(limiter::roundToInt(value), int32_t(std::roundf(value))) << value;
    EXPECT_EQ(limiter::roundToInt(1e20f), 2147483520);
    EXPECT_EQ(limiter::roundToInt(-1e20f), -2147483520);
    EXPECT_EQ(limiter::roundToInt(std::nanf("")), -2147483520);
}

// Source -> volume -> mixer over many frames: the volume halves a sine, the
// mixer adds a second, constant source; a loud burst is limited and recovers.
TEST(VolumeGraphWithMixer, ManyFramesThroughThePipe)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    QueueSource voice;
    auto volume = boost::make_shared<SonraVolumeNode>(ioService(), FRAME_MS, RATE);
    auto mixer = boost::make_shared<SonraMixerNode>(ioService(), FRAME_MS, RATE);
    pipe->connect(voice.node(FRAME_MS, RATE), volume);
    pipe->connect(volume, mixer);
    pipe->connect(constantSource(std::vector<int16_t>(SAMPLES, 100), FRAME_MS, RATE), mixer);
    volume->setVolume(0.5f);

    const std::vector<int16_t> tone = sine(500, RATE, SAMPLES * 300, 12000);
    for (unsigned frame = 0; frame < 300; ++frame) {
        std::vector<int16_t> in(tone.begin() + frame * SAMPLES, tone.begin() + (frame + 1) * SAMPLES);
        if (frame == 100)
            in[0] = 32767;                 // halved: 16384, below the mixer's threshold
        voice.push(in);
        pipe->processFrame();
        const std::vector<int16_t> out = samplesOf(mixer->outputData());
        ASSERT_EQ(out.size(), SAMPLES);
        for (unsigned i = 0; i < SAMPLES; ++i)
            ASSERT_EQ(out[i], int16_t(std::roundf(in[i] * 0.5f) + 100)) << frame << ":" << i;
    }
    EXPECT_EQ(pipe->elapsedTime(), 300 * FRAME_MS);
}

} // namespace
