// ctest-labels: threads
// G.711 conversions against Python's audioop (every sample, every code), and the G.711 nodes.
#include "g711.h"
#include "sonrag711decnode.h"
#include "sonrag711encnode.h"
#include "testutil.h"

#include <atomic>
#include <thread>

using namespace ombrel;
using namespace sonratest;

namespace {

template <typename Out, typename In>
std::vector<Out> convertAll(const std::vector<In>& values, Out (*convert)(In))
{
    std::vector<Out> converted(values.size());
    std::transform(values.begin(), values.end(), converted.begin(), convert);
    return converted;
}

Samples everySample(int step = 1)
{
    Samples samples;
    for (int value = -32768; value <= 32767; value += step)
        samples.push_back(static_cast<int16_t>(value));
    return samples;
}
const Bytes EVERY_CODE = convertAll(everySample(256), +[](int16_t v) { return uint8_t(v / 256 + 128); });

struct Law {
    const char* name; // as audioop names it
    uint8_t (*encode)(int16_t);
    int16_t (*decode)(uint8_t);
};
const Law ALAW = {"alaw", linear2alaw, alaw2linear};
const Law ULAW = {"ulaw", linear2ulaw, ulaw2linear};

// python3 writing `bytes`, given pcm: every sample, and codes: every code, ascending.
std::string python(const std::string& bytes)
{
    return "python3 -W ignore -c \"import array, sys; pcm = array.array('h', range(-32768, 32768)).tobytes(); "
           "codes = bytes(range(256)); sys.stdout.buffer.write(" + bytes + ")\"";
}

} // namespace

TEST(G711Conversions, AgreeWithPythonAudioopForEverySampleAndEveryCode)
{
    if (std::system("python3 -W ignore -c 'import audioop' 2>/dev/null") != 0)
        GTEST_SKIP() << "this python3 has no audioop module (removed in Python 3.13)";
    for (const Law& law : {ALAW, ULAW}) {
        const std::string name = law.name;
        SCOPED_TRACE(name);
        const std::string audioop = "__import__('audioop').";
        EXPECT_EQ(shell(python(audioop + "lin2" + name + "(pcm, 2)")).values<uint8_t>(), convertAll(everySample(), law.encode));
        EXPECT_EQ(shell(python(audioop + name + "2lin(codes, 2)")).values<int16_t>(), convertAll(EVERY_CODE, law.decode));
    }
}

const unsigned RATE = 8000, DURATION = 20, N = 160; // Hz, ms, samples per frame

TEST(G711NodesDeathTest, DefaultModeSilenceOddSizesNoInputAndRate)
{
    NodeGraph<SonraG711EncNode> encoder(DURATION, RATE);
    NodeGraph<SonraG711DecNode> decoder(DURATION, RATE);
    EXPECT_EQ(1, encoder.node->mode()); // A-law, by its value
    EXPECT_EQ(1, decoder.node->mode());
    const Frame silence = frameOf(Samples(N, 0));
    silence->push_back(0x7F); // a trailing odd byte is ignored
    EXPECT_EQ(Bytes(N, 0xD5), bytesOf(encoder.step(silence)));
    EXPECT_EQ(Samples{8}, samplesOf(decoder.step(bytesFrame(Bytes{0xD5}))));
    encoder.node->setMode(static_cast<SonraG711EncNode::Mode>(7)); // anything but A-law is mu-law
    decoder.node->setMode(static_cast<SonraG711DecNode::Mode>(7));
    EXPECT_EQ(Bytes(N, 0xFF), bytesOf(encoder.step(silence)));
    EXPECT_EQ(Samples{0}, samplesOf(decoder.step(bytesFrame(Bytes{0xFF}))));
    const Frame lone = encoder.step(bytesFrame(Bytes{0x7F})); // present, with no codes
    EXPECT_TRUE(lone && lone->empty());
    for (const Frame& nothing : {Frame(), bytesFrame(Bytes())}) {
        EXPECT_FALSE(encoder.step(nothing));
        EXPECT_FALSE(decoder.step(nothing));
    }
    EXPECT_DEATH(SonraG711EncNode(ioService(), 20, 16000), assertion("sampleRate==G711_RATE", "SonraG711EncNode", "sonrag711encnode"));
    EXPECT_DEATH(SonraG711DecNode(ioService(), 20, 48000), assertion("sampleRate==G711_RATE", "SonraG711DecNode", "sonrag711decnode"));
}

// source -> encoder -> decoder in one pipe, both switching mode every ten
// frames: each frame is converted exactly.
TEST(G711Graph, RoundTripIsExactAcrossModeSwitches)
{
    const Samples signal = speechLike(RATE, N * 100);
    NodeGraph<SonraG711EncNode> graph(DURATION, RATE);
    auto decoder = boost::make_shared<SonraG711DecNode>(ioService(), DURATION, RATE);
    graph.pipe->connect(graph.node, decoder);
    for (unsigned k = 0; k < 100; ++k) {
        const Law& law = (k / 10) % 2 == 0 ? ALAW : ULAW;
        graph.node->setMode(&law == &ALAW ? SonraG711EncNode::MODE_ALAW : SonraG711EncNode::MODE_ULAW);
        decoder->setMode(&law == &ALAW ? SonraG711DecNode::MODE_ALAW : SonraG711DecNode::MODE_ULAW);
        const Samples input = slice(signal, k * N, N);
        const Bytes codes = bytesOf(graph.step(frameOf(input)));
        const Samples output = samplesOf(decoder->outputData());
        ASSERT_EQ(convertAll(input, law.encode), codes) << "frame " << k;
        ASSERT_EQ(convertAll(codes, law.decode), output) << "frame " << k;
    }
}

// The owner switches modes while the graph thread encodes: every frame is
// converted wholly in one mode.
TEST(G711Threads, ModeSwitchFromAnotherThreadNeverMixesAFrame)
{
    const Samples samples(N, 1000);
    ASSERT_NE(linear2alaw(1000), linear2ulaw(1000)); // each code tells the mode it came from
    const Bytes alaw = convertAll(samples, linear2alaw), ulaw = convertAll(samples, linear2ulaw);
    auto encoder = boost::make_shared<SonraG711EncNode>(ioService(), DURATION, RATE);
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    pipe->connect(constantSource(samples, DURATION, RATE), encoder);
    std::atomic<bool> done{false};
    std::thread owner([&] {
        for (unsigned i = 0; !done.load(); ++i) {
            encoder->setMode(i % 2 ? SonraG711EncNode::MODE_ULAW : SonraG711EncNode::MODE_ALAW);
            std::this_thread::yield();
        }
    });
    for (unsigned k = 0; k < 2000; ++k) {
        pipe->processFrame();
        const Bytes codes = bytesOf(encoder->outputData());
        EXPECT_TRUE(codes == alaw || codes == ulaw) << "frame " << k << " mixes both modes";
    }
    done = true;
    owner.join();
}
