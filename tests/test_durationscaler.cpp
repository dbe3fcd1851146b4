// The duration scaler re-chunks a PCM stream: long frames split into graph
// frames, graph frames gathered into long ones, driven cycle by cycle.
#include "sonradurationscalernode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <numeric>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned RATE = 16000; // Hz

struct ScalerGraph {
    ScalerGraph(unsigned inDuration, unsigned outDuration, unsigned graphDuration, unsigned channels = 1)
        : pipe(boost::make_shared<SonraPipe>(graphDuration)),
          node(boost::make_shared<SonraDurationScalerNode>(ioService(), inDuration, outDuration, graphDuration, RATE))
    {
        node->setOutputChannels(channels);
        pipe->connect(queue.node(graphDuration, RATE, channels), node);
    }
    ~ScalerGraph() { pipe->clear(); }

    Frame run(const Frame& in = Frame())
    {
        queue.push(in);
        pipe->processFrame();
        return node->outputData();
    }

    QueueSource queue;
    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<SonraDurationScalerNode> node;
};

// Samples first, first + 1, ... so that every piece shows where it came from.
std::vector<int16_t> ramp(std::size_t count, int first = 1)
{
    std::vector<int16_t> samples(count);
    std::iota(samples.begin(), samples.end(), static_cast<int16_t>(first));
    return samples;
}

std::vector<int16_t> part(const std::vector<int16_t>& samples, std::size_t first, std::size_t count)
{
    return std::vector<int16_t>(samples.begin() + first, samples.begin() + first + count);
}

} // namespace

TEST(DurationScalerSplit, HandsOutOnePiecePerCycle)
{
    ScalerGraph graph(60, 20, 20);
    const std::vector<int16_t> longFrame = ramp(960);
    const Frame first = graph.run(frameOf(longFrame));
    const Frame second = graph.run(frameOf(ramp(960, 5000))); // ignored: a frame is being handed out
    const Frame third = graph.run(frameOf(ramp(960, 9000)));  // ignored too
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(first->size(), 640u);
    EXPECT_EQ(samplesOf(first), part(longFrame, 0, 320));
    EXPECT_EQ(samplesOf(second), part(longFrame, 320, 320));
    EXPECT_EQ(samplesOf(third), part(longFrame, 640, 320));
    EXPECT_FALSE(graph.run());
    // Idle again: the next long frame is taken in at once.
    const Frame next = graph.run(frameOf(ramp(960, 2000)));
    EXPECT_EQ(samplesOf(next), ramp(320, 2000));
}

TEST(DurationScalerSplit, MissingInputDoesNotInterruptAFrame)
{
    ScalerGraph graph(60, 20, 20);
    EXPECT_FALSE(graph.run());
    const std::vector<int16_t> longFrame = ramp(960);
    graph.run(frameOf(longFrame));
    EXPECT_EQ(samplesOf(graph.run()), part(longFrame, 320, 320));
    EXPECT_EQ(samplesOf(graph.run(boost::make_shared<std::vector<char> >())), part(longFrame, 640, 320));
    EXPECT_FALSE(graph.run(boost::make_shared<std::vector<char> >()));
}

TEST(DurationScalerGather, EmitsOnTheCycleThatCompletesTheFrame)
{
    ScalerGraph graph(20, 60, 20);
    EXPECT_FALSE(graph.run(frameOf(ramp(320, 1))));
    EXPECT_FALSE(graph.run()); // no input only delays the output
    EXPECT_FALSE(graph.run(frameOf(ramp(320, 321))));
    const Frame gathered = graph.run(frameOf(ramp(320, 641)));
    ASSERT_TRUE(gathered);
    EXPECT_EQ(gathered->size(), 1920u);
    EXPECT_EQ(samplesOf(gathered), ramp(960, 1));
    // The next frame starts from scratch.
    EXPECT_FALSE(graph.run(frameOf(ramp(320, 7))));
}

TEST(DurationScaler, EqualDurationsGiveACopyAtOnce)
{
    ScalerGraph graph(20, 20, 20);
    const Frame in = frameOf(ramp(320));
    const Frame out = graph.run(in);
    ASSERT_TRUE(out);
    EXPECT_NE(out.get(), in.get());
    EXPECT_EQ(*out, *in);
    EXPECT_FALSE(graph.run());
}

TEST(DurationScaler, TwoChannelsDoubleBufferAndPieces)
{
    ScalerGraph split(60, 20, 20, 2);
    const std::vector<int16_t> longFrame = ramp(2 * 960);
    EXPECT_EQ(samplesOf(split.run(frameOf(longFrame))), part(longFrame, 0, 640));
    EXPECT_EQ(samplesOf(split.run()), part(longFrame, 640, 640));
    EXPECT_EQ(samplesOf(split.run()), part(longFrame, 1280, 640));
    EXPECT_FALSE(split.run());

    ScalerGraph gather(20, 60, 20, 2);
    EXPECT_FALSE(gather.run(frameOf(ramp(640, 1))));
    EXPECT_FALSE(gather.run(frameOf(ramp(640, 641))));
    EXPECT_EQ(samplesOf(gather.run(frameOf(ramp(640, 1281)))), ramp(1920, 1));
}

// Split then gather gives back the stream, delayed by one long frame less
// one graph frame; a 40 ms codec frame in a 20 ms graph, for instance.
TEST(DurationScaler, SplitAndGatherRoundTrip)
{
    const unsigned longMs = 40, graphMs = 20;
    auto pipe = boost::make_shared<SonraPipe>(graphMs);
    QueueSource queue;
    auto splitter = boost::make_shared<SonraDurationScalerNode>(ioService(), longMs, graphMs, graphMs, RATE);
    auto gatherer = boost::make_shared<SonraDurationScalerNode>(ioService(), graphMs, longMs, graphMs, RATE);
    pipe->connect(queue.node(graphMs, RATE), splitter);
    pipe->connect(splitter, gatherer);

    std::vector<int16_t> sent, received;
    for (int k = 0; k < 10; ++k) {
        if (k % 2 == 0) {
            const std::vector<int16_t> longFrame = sine(440.0 + 10 * k, RATE, 640);
            sent.insert(sent.end(), longFrame.begin(), longFrame.end());
            queue.push(longFrame);
        } else {
            queue.push(Frame());
        }
        pipe->processFrame();
        const std::vector<int16_t> out = samplesOf(gatherer->outputData());
        EXPECT_EQ(out.size(), k % 2 == 1 ? 640u : 0u) << "cycle " << k;
        received.insert(received.end(), out.begin(), out.end());
    }
    EXPECT_EQ(received, sent);
    pipe->clear();
}

TEST(DurationScaler, ResetDropsWhatIsBuffered)
{
    ScalerGraph gather(20, 60, 20);
    gather.run(frameOf(ramp(320, 1)));
    gather.pipe->reset(0);
    EXPECT_FALSE(gather.run(frameOf(ramp(320, 1))));
    EXPECT_FALSE(gather.run(frameOf(ramp(320, 321))));
    EXPECT_EQ(samplesOf(gather.run(frameOf(ramp(320, 641)))), ramp(960, 1));

    // A split in progress hands out silence for the rest of its frame ...
    ScalerGraph split(60, 20, 20);
    split.run(frameOf(ramp(960)));
    split.pipe->reset(0);
    EXPECT_EQ(samplesOf(split.run()), std::vector<int16_t>(320, 0));
    EXPECT_EQ(samplesOf(split.run()), std::vector<int16_t>(320, 0));
    EXPECT_EQ(samplesOf(split.run()), std::vector<int16_t>(320, 0));
    EXPECT_FALSE(split.run());
    // ... unless a new frame comes first: back at the start, it is taken in.
    split.run(frameOf(ramp(960)));
    split.pipe->reset(0);
    EXPECT_EQ(samplesOf(split.run(frameOf(ramp(960, 3000)))), ramp(320, 3000));
}

// Frames that break the node's assumptions are cut or padded, never copied
// past either buffer (the sanitizer build watches the copies).
TEST(DurationScaler, FramesOfTheWrongSizeStayInsideTheBuffers)
{
    // Gather: an oversized input fills the frame and its excess is dropped.
    ScalerGraph gather(20, 60, 20);
    EXPECT_FALSE(gather.run(frameOf(ramp(320, 1))));
    const Frame full = gather.run(frameOf(ramp(1000, 321)));
    ASSERT_TRUE(full);
    EXPECT_EQ(samplesOf(full), ramp(960, 1));
    EXPECT_FALSE(gather.run(frameOf(ramp(320, 1))));

    // Split: an oversized input is cut to one long frame, a short one is
    // padded with silence, and a byte too odd for a sample does no harm.
    ScalerGraph split(60, 20, 20);
    const std::vector<int16_t> oversized = ramp(2000);
    EXPECT_EQ(samplesOf(split.run(frameOf(oversized))), part(oversized, 0, 320));
    EXPECT_EQ(samplesOf(split.run()), part(oversized, 320, 320));
    EXPECT_EQ(samplesOf(split.run()), part(oversized, 640, 320));
    std::vector<int16_t> padded = ramp(400);
    padded.resize(960, 0);
    EXPECT_EQ(samplesOf(split.run(frameOf(ramp(400)))), part(padded, 0, 320));
    EXPECT_EQ(samplesOf(split.run()), part(padded, 320, 320));
    EXPECT_EQ(samplesOf(split.run()), part(padded, 640, 320));
    const Frame odd = split.run(boost::make_shared<std::vector<char> >(3, '\x7f'));
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->size(), 640u);
}

// 50 ms does not divide into 20 ms pieces: the last piece is half full and
// padded with silence, and the frame ends there.
TEST(DurationScaler, LastPieceOfAnUnevenFrameIsPadded)
{
    ScalerGraph split(50, 20, 20);
    const std::vector<int16_t> longFrame = ramp(800);
    EXPECT_EQ(samplesOf(split.run(frameOf(longFrame))), part(longFrame, 0, 320));
    EXPECT_EQ(samplesOf(split.run()), part(longFrame, 320, 320));
    std::vector<int16_t> last = part(longFrame, 640, 160);
    last.resize(320, 0);
    EXPECT_EQ(samplesOf(split.run()), last);
    EXPECT_FALSE(split.run());

    // Gathering 20 ms frames into 50 ms: the third frame is cut to fit.
    ScalerGraph gather(20, 50, 20);
    EXPECT_FALSE(gather.run(frameOf(ramp(320, 1))));
    EXPECT_FALSE(gather.run(frameOf(ramp(320, 321))));
    EXPECT_EQ(samplesOf(gather.run(frameOf(ramp(320, 641)))), ramp(800, 1));
}

// A channel change in the middle of a frame starts over at the new size.
TEST(DurationScaler, ChannelChangeResizesAndClears)
{
    ScalerGraph split(60, 20, 20);
    split.run(frameOf(ramp(960)));
    split.node->setOutputChannels(2);
    const Frame silent = split.run();
    ASSERT_TRUE(silent);
    EXPECT_EQ(samplesOf(silent), std::vector<int16_t>(640, 0));

    ScalerGraph none(60, 20, 20);
    none.run(frameOf(ramp(960)));
    none.node->setOutputChannels(0);
    const Frame empty = none.run(frameOf(ramp(960)));
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
    EXPECT_FALSE(none.run(frameOf(ramp(960))));
}

TEST(DurationScalerDeathTest, GraphDurationMustBeTheShorterOne)
{
    EXPECT_DEATH(SonraDurationScalerNode(ioService(), 60, 20, 60, RATE),
                 "Assertion \"graphFrameDuration==outFrameDuration\" failed in function "
                 "\"SonraDurationScalerNode\" of \"multimedia/audio2/audio2components/src/"
                 "sonradurationscalernode\"");
    EXPECT_DEATH(SonraDurationScalerNode(ioService(), 20, 60, 60, RATE),
                 "Assertion \"graphFrameDuration==inFrameDuration\" failed in function "
                 "\"SonraDurationScalerNode\"");
}
