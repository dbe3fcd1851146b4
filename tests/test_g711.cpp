// ctest-labels: threads
// G.711 conversions against Python's audioop and sox, and the G.711 encoder
// and decoder nodes.
#include "codecutil.h"
#include "g711.h"
#include "sonrag711decnode.h"
#include "sonrag711encnode.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using namespace ombrel;
using codectest::Frame;
using codectest::Harness;
using sonratest::frameOf;
using sonratest::samplesOf;

namespace {

// Every 16-bit sample, from -32768 up.
std::vector<int16_t> everySample()
{
    std::vector<int16_t> samples;
    for (int value = -32768; value <= 32767; ++value)
        samples.push_back(static_cast<int16_t>(value));
    return samples;
}

std::vector<uint8_t> everyCode()
{
    std::vector<uint8_t> codes;
    for (int code = 0; code < 256; ++code)
        codes.push_back(static_cast<uint8_t>(code));
    return codes;
}

template <typename Out, typename In>
std::vector<Out> convertAll(const std::vector<In>& values, Out (*convert)(In))
{
    std::vector<Out> converted;
    for (In value : values)
        converted.push_back(convert(value));
    return converted;
}

// A scratch folder of its own, removed with everything in it.
class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/sonra-g711-XXXXXX";
        const char* made = mkdtemp(pattern);
        EXPECT_TRUE(made != nullptr);
        m_path = made ? made : "/tmp";
    }
    ~ScratchDir() { std::system(("rm -rf '" + m_path + "'").c_str()); }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Runs a shell command; its exit status, or -1 when it did not exit.
int run(const std::string& command)
{
    const int status = std::system(command.c_str());
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename T>
void writeFile(const std::string& path, const std::vector<T>& values)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(values.data()), std::streamsize(values.size() * sizeof(T)));
}

template <typename T>
std::vector<T> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<T> values(bytes.size() / sizeof(T));
    if (!values.empty())
        std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
}

bool littleEndian()
{
    const uint16_t probe = 1;
    return *reinterpret_cast<const uint8_t*>(&probe) == 1;
}

// sox's options for raw 16-bit PCM in this machine's byte order.
std::string soxPcm()
{
    return std::string("-t raw -r 8000 -c 1 -e signed-integer -b 16 ") + (littleEndian() ? "-L" : "-B");
}

std::string soxG711(const char* encoding)
{
    return std::string("-t raw -r 8000 -c 1 -b 8 -e ") + encoding;
}

// Index of the first difference, for a readable failure.
template <typename T>
std::string firstDifference(const std::vector<T>& expected, const std::vector<T>& actual)
{
    if (expected.size() != actual.size())
        return "sizes " + std::to_string(expected.size()) + " and " + std::to_string(actual.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (expected[i] != actual[i])
            return "first difference at index " + std::to_string(i) + ": expected " +
                   std::to_string(int(expected[i])) + ", ours " + std::to_string(int(actual[i]));
    return "equal";
}

} // namespace

// ------------------------------------------------------------ conversions

TEST(G711Conversions, AgreeWithPythonAudioopForEverySampleAndEveryCode)
{
    ScratchDir dir;
    const std::string script = dir.file("audioop_tables.py");
    std::ofstream(script) << "import struct, sys, warnings\n"
                             "warnings.simplefilter('ignore')\n"
                             "try:\n"
                             "    import audioop\n"
                             "except ImportError:\n"
                             "    sys.exit(77)\n"
                             "out = sys.argv[1]\n"
                             "pcm = struct.pack('=65536h', *range(-32768, 32768))\n"
                             "codes = bytes(range(256))\n"
                             "for name, data in (('lin2alaw', audioop.lin2alaw(pcm, 2)),\n"
                             "                   ('lin2ulaw', audioop.lin2ulaw(pcm, 2)),\n"
                             "                   ('alaw2lin', audioop.alaw2lin(codes, 2)),\n"
                             "                   ('ulaw2lin', audioop.ulaw2lin(codes, 2))):\n"
                             "    open(out + '/' + name, 'wb').write(data)\n";
    const int status = run("python3 '" + script + "' '" + dir.file("") + "'");
    if (status == 77)
        GTEST_SKIP() << "this python3 has no audioop module (removed in Python 3.13)";
    ASSERT_EQ(0, status) << "python3 failed";

    const std::vector<int16_t> samples = everySample();
    const std::vector<uint8_t> codes = everyCode();
    const std::vector<uint8_t> alaw = convertAll(samples, linear2alaw);
    const std::vector<uint8_t> ulaw = convertAll(samples, linear2ulaw);
    const std::vector<int16_t> fromAlaw = convertAll(codes, alaw2linear);
    const std::vector<int16_t> fromUlaw = convertAll(codes, ulaw2linear);
    const std::vector<uint8_t> pyAlaw = readFile<uint8_t>(dir.file("lin2alaw"));
    const std::vector<uint8_t> pyUlaw = readFile<uint8_t>(dir.file("lin2ulaw"));
    const std::vector<int16_t> pyFromAlaw = readFile<int16_t>(dir.file("alaw2lin"));
    const std::vector<int16_t> pyFromUlaw = readFile<int16_t>(dir.file("ulaw2lin"));
    EXPECT_TRUE(pyAlaw == alaw) << "lin2alaw, from sample -32768: " << firstDifference(pyAlaw, alaw);
    EXPECT_TRUE(pyUlaw == ulaw) << "lin2ulaw, from sample -32768: " << firstDifference(pyUlaw, ulaw);
    EXPECT_TRUE(pyFromAlaw == fromAlaw) << "alaw2lin: " << firstDifference(pyFromAlaw, fromAlaw);
    EXPECT_TRUE(pyFromUlaw == fromUlaw) << "ulaw2lin: " << firstDifference(pyFromUlaw, fromUlaw);
}

TEST(G711Conversions, AgreeWithSox)
{
    ScratchDir dir;
    writeFile(dir.file("codes.raw"), everyCode());
    // sox rounds to the nearest step before it encodes, where we truncate:
    // only samples on the codec's own grid encode alike.
    std::vector<int16_t> alawGrid, ulawGrid;
    for (int16_t sample : everySample()) {
        if ((sample & 7) == 0)
            alawGrid.push_back(sample);
        if ((sample & 3) == 0)
            ulawGrid.push_back(sample);
    }
    writeFile(dir.file("alaw-grid.raw"), alawGrid);
    writeFile(dir.file("ulaw-grid.raw"), ulawGrid);

    const struct {
        const char* encoding;
        const char* name;
        int16_t (*decode)(uint8_t);
        uint8_t (*encode)(int16_t);
        const std::vector<int16_t>* grid;
    } laws[] = {{"a-law", "alaw", alaw2linear, linear2alaw, &alawGrid},
                {"u-law", "ulaw", ulaw2linear, linear2ulaw, &ulawGrid}};
    for (const auto& law : laws) {
        SCOPED_TRACE(law.encoding);
        const std::string decoded = dir.file(std::string(law.name) + "-decoded.raw");
        const std::string encoded = dir.file(std::string(law.name) + "-encoded.raw");
        ASSERT_EQ(0, run("sox -D " + soxG711(law.encoding) + " '" + dir.file("codes.raw") + "' " + soxPcm() + " '" +
                         decoded + "'"));
        ASSERT_EQ(0, run("sox -D " + soxPcm() + " '" + dir.file(std::string(law.name) + "-grid.raw") + "' " +
                         soxG711(law.encoding) + " '" + encoded + "'"));
        const std::vector<int16_t> soxDecoded = readFile<int16_t>(decoded);
        const std::vector<uint8_t> soxEncoded = readFile<uint8_t>(encoded);
        const std::vector<int16_t> ourDecoded = convertAll(everyCode(), law.decode);
        const std::vector<uint8_t> ourEncoded = convertAll(*law.grid, law.encode);
        EXPECT_TRUE(soxDecoded == ourDecoded) << firstDifference(soxDecoded, ourDecoded);
        EXPECT_TRUE(soxEncoded == ourEncoded) << firstDifference(soxEncoded, ourEncoded);
    }
}

TEST(G711Conversions, SilenceAndFullScale)
{
    EXPECT_EQ(0xD5, linear2alaw(0));
    EXPECT_EQ(0xFF, linear2ulaw(0));
    EXPECT_EQ(8, alaw2linear(0xD5));
    EXPECT_EQ(0, ulaw2linear(0xFF));
    // Truncation, not rounding: the A-law step below 256 is 16.
    EXPECT_EQ(linear2alaw(0), linear2alaw(15));
    EXPECT_NE(linear2alaw(15), linear2alaw(16));
    EXPECT_EQ(32256, alaw2linear(linear2alaw(32767)));
    EXPECT_EQ(-32256, alaw2linear(linear2alaw(-32768)));
    EXPECT_EQ(32124, ulaw2linear(linear2ulaw(32767)));
    EXPECT_EQ(-32124, ulaw2linear(linear2ulaw(-32768)));
}

// The distinct levels a law decodes to, in ascending order.
std::vector<int> levelsOf(int16_t (*decode)(uint8_t))
{
    std::vector<int> levels;
    for (uint8_t code : everyCode())
        levels.push_back(decode(code));
    std::sort(levels.begin(), levels.end());
    levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
    return levels;
}

// How far a sample may come back from its code: one quantisation step, the
// width of the interval between the two levels that enclose it. Beyond the
// outermost levels a sample clips to them.
int allowedError(const std::vector<int>& levels, int sample)
{
    if (sample >= levels.back())
        return sample - levels.back();
    if (sample <= levels.front())
        return levels.front() - sample;
    const auto upper = std::upper_bound(levels.begin(), levels.end(), sample);
    return *upper - *(upper - 1);
}

struct Law {
    const char* name;
    uint8_t (*encode)(int16_t);
    int16_t (*decode)(uint8_t);
};
const Law ALAW = {"A-law", linear2alaw, alaw2linear};
const Law ULAW = {"mu-law", linear2ulaw, ulaw2linear};

TEST(G711Conversions, EverySampleComesBackWithinOneQuantisationStep)
{
    for (const Law& law : {ALAW, ULAW}) {
        const std::vector<int> levels = levelsOf(law.decode);
        for (int16_t sample : everySample())
            ASSERT_LE(std::abs(law.decode(law.encode(sample)) - sample), allowedError(levels, sample))
                << law.name << ", sample " << sample;
    }
}

// ------------------------------------------------------------------ nodes

namespace {

const unsigned RATE = 8000;   // Hz
const unsigned DURATION = 20; // ms
const unsigned N = 160;       // samples per frame

typedef Harness<SonraG711EncNode> Encoder;
typedef Harness<SonraG711DecNode> Decoder;

std::vector<uint8_t> codesOf(const Frame& frame)
{
    return frame ? std::vector<uint8_t>(frame->begin(), frame->end()) : std::vector<uint8_t>();
}

Frame codesFrame(const std::vector<uint8_t>& codes)
{
    return boost::make_shared<std::vector<char> >(codes.begin(), codes.end());
}

} // namespace

TEST(G711EncoderNode, EncodesEverySampleOfAFrameInTheModeSet)
{
    Encoder encoder(DURATION, RATE);
    EXPECT_EQ(SonraG711EncNode::MODE_ALAW, encoder.node->mode());
    const std::vector<int16_t> signal = codectest::speechLike(RATE, N);
    const Frame alaw = encoder.run(frameOf(signal));
    ASSERT_TRUE(alaw);
    EXPECT_EQ(160u, alaw->size());
    EXPECT_EQ(convertAll(signal, linear2alaw), codesOf(alaw));

    encoder.node->setMode(SonraG711EncNode::MODE_ULAW);
    EXPECT_EQ(SonraG711EncNode::MODE_ULAW, encoder.node->mode());
    EXPECT_EQ(convertAll(signal, linear2ulaw), codesOf(encoder.run(frameOf(signal))));
    encoder.node->setMode(static_cast<SonraG711EncNode::Mode>(7)); // anything but A-law is mu-law
    EXPECT_EQ(convertAll(signal, linear2ulaw), codesOf(encoder.run(frameOf(signal))));
    encoder.node->setMode(SonraG711EncNode::MODE_ALAW);
    EXPECT_EQ(convertAll(signal, linear2alaw), codesOf(encoder.run(frameOf(signal))));
}

TEST(G711EncoderNode, SilenceCodesAndOddSizes)
{
    Encoder encoder(DURATION, RATE);
    EXPECT_EQ(std::vector<uint8_t>(N, 0xD5), codesOf(encoder.run(frameOf(std::vector<int16_t>(N, 0)))));
    encoder.node->setMode(SonraG711EncNode::MODE_ULAW);
    EXPECT_EQ(std::vector<uint8_t>(N, 0xFF), codesOf(encoder.run(frameOf(std::vector<int16_t>(N, 0)))));

    // A trailing odd byte is ignored; a lone byte gives a frame of no codes.
    Frame odd = frameOf(std::vector<int16_t>(N, 0));
    odd->push_back(0x7F);
    EXPECT_EQ(std::vector<uint8_t>(N, 0xFF), codesOf(encoder.run(odd)));
    const Frame lone = encoder.run(boost::make_shared<std::vector<char> >(1, 0x7F));
    ASSERT_TRUE(lone);
    EXPECT_EQ(0u, lone->size());

    EXPECT_FALSE(encoder.run(Frame()));
    EXPECT_FALSE(encoder.run(boost::make_shared<std::vector<char> >()));
}

TEST(G711DecoderNode, DecodesEveryCodeInTheModeSet)
{
    Decoder decoder(DURATION, RATE);
    EXPECT_EQ(SonraG711DecNode::MODE_ALAW, decoder.node->mode());
    std::vector<uint8_t> codes(N);
    for (unsigned i = 0; i < N; ++i)
        codes[i] = static_cast<uint8_t>(i * 37 + 11);
    const Frame alaw = decoder.run(codesFrame(codes));
    ASSERT_TRUE(alaw);
    EXPECT_EQ(320u, alaw->size());
    EXPECT_EQ(convertAll(codes, alaw2linear), samplesOf(alaw));

    decoder.node->setMode(SonraG711DecNode::MODE_ULAW);
    EXPECT_EQ(convertAll(codes, ulaw2linear), samplesOf(decoder.run(codesFrame(codes))));
    decoder.node->setMode(SonraG711DecNode::MODE_ALAW);
    EXPECT_EQ(convertAll(codes, alaw2linear), samplesOf(decoder.run(codesFrame(codes))));

    const Frame one = decoder.run(codesFrame({0xD5}));
    ASSERT_TRUE(one);
    EXPECT_EQ(std::vector<int16_t>{8}, samplesOf(one));
    EXPECT_FALSE(decoder.run(Frame()));
    EXPECT_FALSE(decoder.run(boost::make_shared<std::vector<char> >()));
}

TEST(G711NodesDeath, RateOtherThan8000FailsTheAssertion)
{
    EXPECT_DEATH(SonraG711EncNode(sonratest::ioService(), 20, 16000),
                 "Assertion \"sampleRate==G711_RATE\" failed in function \"SonraG711EncNode\" of "
                 "\"multimedia/audio2/audio2components/src/sonrag711encnode\"");
    EXPECT_DEATH(SonraG711DecNode(sonratest::ioService(), 20, 48000),
                 "Assertion \"sampleRate==G711_RATE\" failed in function \"SonraG711DecNode\" of "
                 "\"multimedia/audio2/audio2components/src/sonrag711decnode\"");
}

// source -> encoder -> decoder in one pipe, switching both nodes' mode
// between frames; every frame comes back within one quantisation step.
TEST(G711Graph, RoundTripKeepsEverySampleWithinAStepAcrossModeSwitches)
{
    const unsigned frames = 100;
    const std::vector<int16_t> signal = codectest::speechLike(RATE, N * frames);
    sonratest::QueueSource source;
    auto encoder = boost::make_shared<SonraG711EncNode>(sonratest::ioService(), DURATION, RATE);
    auto decoder = boost::make_shared<SonraG711DecNode>(sonratest::ioService(), DURATION, RATE);
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    pipe->connect(source.node(DURATION, RATE), encoder);
    pipe->connect(encoder, decoder);
    const std::vector<int> alawLevels = levelsOf(alaw2linear);
    const std::vector<int> ulawLevels = levelsOf(ulaw2linear);

    for (unsigned k = 0; k < frames; ++k) {
        // Ten frames in each mode in turn.
        const bool alaw = (k / 10) % 2 == 0;
        encoder->setMode(alaw ? SonraG711EncNode::MODE_ALAW : SonraG711EncNode::MODE_ULAW);
        decoder->setMode(alaw ? SonraG711DecNode::MODE_ALAW : SonraG711DecNode::MODE_ULAW);
        const std::vector<int16_t> input = codectest::slice(signal, k * N, N);
        source.push(input);
        pipe->processFrame();
        const std::vector<uint8_t> codes = codesOf(encoder->outputData());
        const std::vector<int16_t> output = samplesOf(decoder->outputData());
        ASSERT_EQ(convertAll(input, alaw ? linear2alaw : linear2ulaw), codes) << "frame " << k;
        ASSERT_EQ(N, output.size()) << "frame " << k;
        const std::vector<int>& levels = alaw ? alawLevels : ulawLevels;
        for (unsigned i = 0; i < N; ++i)
            ASSERT_LE(std::abs(output[i] - input[i]), allowedError(levels, input[i]))
                << "frame " << k << ", sample " << i << " (" << input[i] << ")";
    }
}

// The owner switches modes while the graph thread encodes: every frame is
// converted wholly in one mode.
TEST(G711Threads, ModeSwitchFromAnotherThreadNeverMixesAFrame)
{
    // Samples whose A-law and mu-law codes differ, so that each code tells
    // the mode it came from.
    std::vector<int16_t> samples;
    for (int16_t sample : codectest::speechLike(RATE, 4 * N))
        if (linear2alaw(sample) != linear2ulaw(sample) && samples.size() < N)
            samples.push_back(sample);
    ASSERT_EQ(N, samples.size());
    const std::vector<uint8_t> alaw = convertAll(samples, linear2alaw);
    const std::vector<uint8_t> ulaw = convertAll(samples, linear2ulaw);

    auto encoder = boost::make_shared<SonraG711EncNode>(sonratest::ioService(), DURATION, RATE);
    auto pipe = boost::make_shared<SonraPipe>(DURATION);
    pipe->connect(sonratest::constantSource(samples, DURATION, RATE), encoder);

    std::atomic<bool> done{false};
    std::thread owner([&] {
        for (unsigned i = 0; !done.load(); ++i) {
            encoder->setMode(i % 2 ? SonraG711EncNode::MODE_ULAW : SonraG711EncNode::MODE_ALAW);
            std::this_thread::yield();
        }
    });
    unsigned alawFrames = 0, ulawFrames = 0;
    for (unsigned k = 0; k < 2000; ++k) {
        pipe->processFrame();
        const std::vector<uint8_t> codes = codesOf(encoder->outputData());
        if (codes == alaw)
            ++alawFrames;
        else if (codes == ulaw)
            ++ulawFrames;
        else
            ADD_FAILURE() << "frame " << k << " mixes both modes";
    }
    done = true;
    owner.join();
    EXPECT_EQ(2000u, alawFrames + ulawFrames);
}
