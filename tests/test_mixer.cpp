// The mixer: channel folding, the limiter's exact figures and recovery, and
// agreement with a per-sample reference over random frames.
#include "sonramixernode.h"
#include "testutil.h"

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned SAMPLES = 320; // per channel in a 20 ms frame at 16 kHz

// Two queued sources into a mixer, mixed one frame at a time; each input's
// first samples are given, the rest of the frame is `rest`.
struct MixerGraph : ::testing::Test {
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(20);
    boost::shared_ptr<SonraMixerNode> mixer = boost::make_shared<SonraMixerNode>(ioService(), 20, 16000);
    QueueSource first, second;

    void SetUp() override
    {
        pipe->connect(first.node(20, 16000), mixer);
        pipe->connect(second.node(20, 16000), mixer);
    }
    ~MixerGraph() override { pipe->clear(); }
    Samples mix(Samples a, Samples b, int16_t rest = 5000)
    {
        a.resize(SAMPLES, rest);
        b.resize(SAMPLES, rest);
        first.push(a);
        second.push(b);
        pipe->processFrame();
        return samplesOf(mixer->outputData());
    }
};

} // namespace

// 30000 is cut to 0.86016 (= 0.9 x 28672 / 30000) for the rest of the frame,
// 40000 deeper to 0.64512 within it; each tick then adds 20 x (1 - gain) /
// 1500, back at 1.0 after 75 ticks. The threshold 28672 is inclusive on both
// sides; reset restores unity gain.
TEST_F(MixerGraph, LimiterFiguresRecoveryThresholdAndReset)
{
    EXPECT_EQ((Samples{25805, 8602, 8602}), slice(mix({20000}, {10000}), 0, 3));
    EXPECT_EQ(8620, mix({}, {})[0]);
    for (int tick = 2; tick < 74; ++tick)
        mix({}, {});
    EXPECT_EQ(9981, mix({}, {})[0]); // 74 ticks: 0.998133
    EXPECT_EQ(10000, mix({}, {})[0]);
    EXPECT_EQ(28000, mix({16000}, {12000})[0]);

    EXPECT_EQ((Samples{25805, 25805, 6451}), slice(mix({20000, 20000}, {10000, 20000}), 0, 3));
    EXPECT_EQ(6499, mix({}, {})[0]);
    pipe->reset(0);
    EXPECT_EQ((Samples{28671, 10000}), slice(mix({14335}, {14336}), 0, 2));
    EXPECT_EQ((Samples{-25805, 9000}), slice(mix({-14336}, {-14336}), 0, 2));
}

// One source gives nothing, the other a frame of 3 samples and an odd byte;
// then both give nothing: still a full, all-zero frame.
TEST_F(MixerGraph, MissingAndShortInputsContributeOnlyWhatTheyHold)
{
    Frame shortFrame = frameOf({100, 200, 300});
    shortFrame->push_back(0x7f);
    second.push(shortFrame);
    pipe->processFrame();
    EXPECT_EQ(concat(Samples{100, 200, 300}, Samples(SAMPLES - 3, 0)), samplesOf(mixer->outputData()));
    pipe->processFrame();
    EXPECT_EQ(Samples(SAMPLES, 0), samplesOf(mixer->outputData()));
}

TEST(Mixer, FoldsChannelsIntoTheMixersLayoutAndWithoutInputsGivesNothing)
{
    auto pipe = boost::make_shared<SonraPipe>(20);
    auto mono = boost::make_shared<SonraMixerNode>(ioService(), 20, 16000);
    auto stereo = boost::make_shared<SonraMixerNode>(ioService(), 20, 16000);
    auto lonely = boost::make_shared<SonraMixerNode>(ioService(), 20, 16000);
    stereo->setOutputChannels(2);
    pipe->connect(constantSource(interleave(Samples(SAMPLES, 1000), Samples(SAMPLES, 2000)), 20, 16000, 2), mono);
    pipe->connect(constantSource(Samples(SAMPLES, 700), 20, 16000), stereo);
    pipe->addNode(lonely);
    pipe->processFrame();
    EXPECT_EQ(Samples(SAMPLES, 3000), samplesOf(mono->outputData()));
    EXPECT_EQ(interleave(Samples(SAMPLES, 700), Samples(SAMPLES, 0)), samplesOf(stereo->outputData()));
    EXPECT_FALSE(lonely->outputData());
    pipe->clear();
}

namespace {

// The per-sample rule, written out plainly with the C library's roundf.
struct ReferenceMixer {
    float gain = 1.0f, step = 0.0f;

    Samples mix(const std::vector<Samples>& inputs)
    {
        Samples out(inputs[0].size());
        for (std::size_t k = 0; k < out.size(); ++k) {
            int32_t s = 0;
            for (const auto& input : inputs)
                s += input[k];
            if (s >= 28672 || s <= -28672) {
                const float limit = float(double(float(s > 0 ? 28672.0f / s : -28672.0f / s)) * 0.9);
                if (gain > limit)
                    gain = limit, step = 20.0f * (1.0f - gain) / 1500.0f;
            }
            out[k] = SonraNode::normalize(int32_t(std::roundf(float(s) * gain)));
        }
        return out;
    }
    void tick() { gain = std::min(1.0f, gain < 0.999f ? gain + step : gain); }
};

} // namespace

TEST(Mixer, MatchesThePerSampleRuleOnRandomLoudFrames)
{
    const unsigned rate = 48000, channels = 2, inputs = 3, perFrame = 960 * channels;
    auto pipe = boost::make_shared<SonraPipe>(20);
    auto mixer = boost::make_shared<SonraMixerNode>(ioService(), 20, rate);
    mixer->setOutputChannels(channels);
    std::vector<QueueSource> sources(inputs);
    for (auto& source : sources)
        pipe->connect(source.node(20, rate, channels), mixer);
    std::mt19937 random(7);
    ReferenceMixer reference;
    for (int frame = 0; frame < 200; ++frame) {
        // Mostly quiet frames, some loud bursts, so every path is taken.
        const int amplitude = frame % 37 == 0 ? 32767 : (frame % 5 == 0 ? 12000 : 3000);
        std::uniform_int_distribution<int> sample(-amplitude, amplitude);
        std::vector<Samples> frames(inputs, Samples(perFrame));
        for (unsigned n = 0; n < inputs; ++n) {
            std::generate(frames[n].begin(), frames[n].end(), [&] { return int16_t(sample(random)); });
            sources[n].push(frames[n]);
        }
        pipe->processFrame();
        ASSERT_EQ(reference.mix(frames), samplesOf(mixer->outputData())) << "frame " << frame;
        reference.tick();
    }
    pipe->clear();
}
