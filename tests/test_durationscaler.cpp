// The duration scaler splits long frames and gathers short ones, cycle by cycle.
#include "sonradurationscalernode.h"
#include "testutil.h"

#include <numeric>

using namespace ombrel;
using namespace sonratest;

namespace {

const Frame NONE;
typedef std::vector<Samples> Outputs;

struct ScalerGraph : NodeGraph<SonraDurationScalerNode> {
    ScalerGraph(unsigned inMs, unsigned outMs, unsigned channels = 1)
        : NodeGraph(make(inMs, outMs, channels), channels) {}
    static boost::shared_ptr<SonraDurationScalerNode> make(unsigned inMs, unsigned outMs, unsigned channels)
    {
        auto node = boost::make_shared<SonraDurationScalerNode>(ioService(), inMs, outMs, 20, 16000);
        node->setOutputChannels(channels);
        return node;
    }
    // The samples out of each cycle (none for no frame) as `inputs` go in.
    Outputs feed(const std::vector<Frame>& inputs)
    {
        Outputs outputs;
        for (const Frame& in : inputs)
            outputs.push_back(samplesOf(step(in)));
        return outputs;
    }
};

// first, first + 1, ... then `zeros` of silence: each piece shows its origin.
Samples ramp(std::size_t count, int first = 1, std::size_t zeros = 0)
{
    Samples samples(count + zeros, 0);
    std::iota(samples.begin(), samples.begin() + count, static_cast<int16_t>(first));
    return samples;
}

} // namespace

// 60 -> 20 ms: one piece per cycle; what arrives meanwhile (nothing, an empty
// frame, another long frame) is ignored, and once idle a long frame is taken
// in at once. 20 -> 60 ms: out on the cycle that completes the frame, a
// missing input only delays it, and the next frame starts from scratch.
// Equal durations give a copy at once.
TEST(DurationScaler, SplitsGathersAndCopies)
{
    for (std::size_t ch = 1; ch <= 2; ++ch) {
        const std::size_t piece = 320 * ch;
        ScalerGraph split(60, 20, ch), gather(20, 60, ch);
        EXPECT_EQ(split.feed({NONE, frameOf(ramp(3 * piece)), bytesFrame(Bytes()), frameOf(ramp(3 * piece, 9000)), NONE,
                              frameOf(ramp(3 * piece, 2000))}),
                  (Outputs{{}, ramp(piece), ramp(piece, 1 + piece), ramp(piece, 1 + 2 * piece), {}, ramp(piece, 2000)}));
        EXPECT_EQ(gather.feed({frameOf(ramp(piece)), NONE, frameOf(ramp(piece, 1 + piece)),
                               frameOf(ramp(piece, 1 + 2 * piece)), frameOf(ramp(piece, 7))}),
                  (Outputs{{}, {}, {}, ramp(3 * piece), {}}));
    }
    ScalerGraph equal(20, 20);
    const Frame in = frameOf(ramp(320));
    const Frame out = equal.step(in);
    EXPECT_TRUE(out && out != in && *out == *in);
    EXPECT_FALSE(equal.step());
}

// Frames that break the node's assumptions are cut or padded, never copied
// past either buffer (the sanitizer build watches): an oversized frame fills
// the gathered frame or is cut to one long frame, a short one and the last
// piece of a 50 ms frame are padded with silence, an odd byte does no harm.
TEST(DurationScaler, FramesOfTheWrongSizeStayInsideTheBuffers)
{
    ScalerGraph gather(20, 60), split(60, 20), uneven(50, 20), unevenGather(20, 50), same(20, 20);
    EXPECT_EQ(gather.feed({frameOf(ramp(320)), frameOf(ramp(1000, 321)), frameOf(ramp(320))}), (Outputs{{}, ramp(960), {}}));
    EXPECT_EQ(split.feed({frameOf(ramp(2000)), NONE, NONE, frameOf(ramp(400)), NONE, NONE}),
              (Outputs{ramp(320), ramp(320, 321), ramp(320, 641), ramp(320), ramp(80, 321, 240), ramp(0, 1, 320)}));
    EXPECT_EQ(320u, samplesOf(split.step(bytesFrame(std::vector<char>(3, '\x7f')))).size());
    EXPECT_EQ(uneven.feed({frameOf(ramp(800)), NONE, NONE, NONE}),
              (Outputs{ramp(320), ramp(320, 321), ramp(160, 641, 160), {}}));
    EXPECT_EQ(ramp(800), unevenGather.runInPieces(ramp(960), {320}));
    EXPECT_EQ(same.feed({frameOf(ramp(100)), frameOf(ramp(220, 101))}), (Outputs{{}, ramp(320)})); // equal: gathers
}

// Reset drops a gathered part; a split in progress hands out silence for the
// rest of its frame unless a new frame comes first. A channel change
// mid-frame starts over at the new size (no channels: an empty frame when
// splitting, none when gathering).
TEST(DurationScaler, ResetAndChannelChangeStartOver)
{
    ScalerGraph gather(20, 60), split(60, 20), restarted(60, 20), stereo(60, 20), none(60, 20), noneGathered(20, 60);
    for (ScalerGraph* graph : {&gather, &split, &restarted, &stereo, &none})
        graph->step(frameOf(ramp(graph == &gather ? 320 : 960)));
    for (ScalerGraph* graph : {&gather, &split, &restarted})
        graph->pipe->reset(0);
    stereo.node->setOutputChannels(2);
    none.node->setOutputChannels(0);
    noneGathered.node->setOutputChannels(0);
    EXPECT_FALSE(noneGathered.step(frameOf(ramp(320))));
    EXPECT_EQ(ramp(960), gather.runInPieces(ramp(960), {320}));
    EXPECT_EQ(split.feed({NONE, NONE, NONE, NONE}), (Outputs{ramp(0, 1, 320), ramp(0, 1, 320), ramp(0, 1, 320), {}}));
    EXPECT_EQ(restarted.feed({frameOf(ramp(960, 3000))}), Outputs{ramp(320, 3000)});
    EXPECT_EQ(ramp(0, 1, 640), samplesOf(stereo.step()));
    const Frame empty = none.step(frameOf(ramp(960)));
    EXPECT_TRUE(empty && empty->empty());
    EXPECT_FALSE(none.step(frameOf(ramp(960))));
}

TEST(DurationScalerDeathTest, GraphDurationMustBeTheShorterOne)
{
    EXPECT_DEATH(SonraDurationScalerNode(ioService(), 60, 20, 60, 16000),
                 assertion("graphFrameDuration==outFrameDuration", "SonraDurationScalerNode", "sonradurationscalernode"));
    EXPECT_DEATH(SonraDurationScalerNode(ioService(), 20, 60, 60, 16000),
                 assertion("graphFrameDuration==inFrameDuration", "SonraDurationScalerNode", "sonradurationscalernode"));
}
