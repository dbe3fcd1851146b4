// The volume node: rounding, the limiter figures, mute, unity, short frames
// and in-place work.
#include "sonravolumenode.h"
#include "testutil.h"

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned SAMPLES = 320; // in a 20 ms frame at 16 kHz

struct VolumeGraph : ::testing::Test {
    NodeGraph<SonraVolumeNode> graph{boost::make_shared<SonraVolumeNode>(ioService(), 20, 16000)};
    boost::shared_ptr<SonraVolumeNode> volume = graph.node;
    // The first samples of a frame, padded with silence to a whole one.
    Samples run(Samples samples, std::size_t first = 0)
    {
        const std::size_t count = samples.size();
        samples.resize(SAMPLES, 0);
        return slice(graph.run(samples), first, count - first);
    }
};

} // namespace

// Halves round away from zero; 2x overshoots and is limited to 0.64512 for
// the frame (-28672 is on the threshold, but 0.9 is above the gain), then
// recovers 0.0047317 a tick; setVolume returns the gain to 1.0 at once.
TEST_F(VolumeGraph, RoundsHalvesAwayFromZeroAndAmplificationIsLimited)
{
    volume->setVolume(0.5f);
    EXPECT_EQ((Samples{2, -2, 1, -1, 3, 16384, -16384}), run({3, -3, 1, -1, 5, 32767, -32768}));
    volume->setVolume(2.0f);
    EXPECT_EQ((Samples{25805, 6451, 18496, -18497}), run({20000, 5000, 14335, -14336}));
    EXPECT_EQ(6499, run({5000})[0]);
    volume->setVolume(2.0f);
    EXPECT_EQ(10000, run({5000})[0]);
    volume->setVolume(1.0f);
    EXPECT_EQ(10000, run({28671, 10000}, 1)[0]);
    EXPECT_EQ((Samples{-25805, 9000}), run({-28672, 10000})); // on the threshold: gain 0.9
    EXPECT_EQ(4507, run({5000})[0]); // unity volume still recovers from the cut
}

TEST_F(VolumeGraph, WorksInPlaceAndMuteSilencesEveryByteAndLeavesTheLimiterAlone)
{
    volume->setVolume(0.25f);
    const Frame frame = frameOf(Samples(SAMPLES, 400));
    EXPECT_EQ(frame, graph.step(frame));
    EXPECT_EQ(Samples(SAMPLES, 100), samplesOf(frame));
    volume->setOutputChannels(2); // 640 samples: two blocks of the limiter, the rest of a longer frame untouched
    EXPECT_EQ(concat(Samples(640, 100), Samples(460, 400)), samplesOf(graph.step(frameOf(Samples(1100, 400)))));
    volume->setOutputChannels(1);

    volume->setVolume(2.0f);
    run({20000}); // cut to 0.64512
    volume->setMuted(true); // also back to 1.0
    EXPECT_TRUE(volume->isMuted());
    EXPECT_EQ(Samples(3 * SAMPLES, 0), samplesOf(graph.step(frameOf(Samples(3 * SAMPLES, 1234))))); // longer than a frame
    const Frame empty = bytesFrame(Bytes());
    EXPECT_EQ(empty, graph.step(empty));
    EXPECT_TRUE(empty->empty());
    EXPECT_FALSE(graph.step());
    volume->setMuted(false);
    EXPECT_EQ(10000, run({5000})[0]);

    volume->setVolume(3.0f);
    Frame odd = frameOf({1000, 2000});
    odd->push_back(0x11); // an odd trailing byte stays untouched
    graph.step(odd);
    EXPECT_EQ((std::vector<char>{char(0xb8), 0x0b, 0x70, 0x17, 0x11}), *odd); // 3000, 6000
}

TEST(Volume, UnityIsStoredAsExactlyOne)
{
    SonraVolumeNode volume(ioService(), 20, 16000);
    for (float unity : {1.0005f, 0.9995f}) {
        volume.setVolume(0.5f);
        volume.setVolume(unity);
        EXPECT_EQ(1.0f, volume.volume());
    }
    volume.setVolume(1.002f);
    EXPECT_EQ(1.002f, volume.volume());
}
