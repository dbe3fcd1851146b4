// The file reader, writer and play nodes, on files libsndfile makes here,
// judged against libsndfile's own decoding, SpeexDSP run in one piece, and
// soxi and sox on what the writer recorded.
#include "sonrafileplaynode.h"
#include "sonrafilereadernode.h"
#include "sonrafilewriternode.h"
#include "sonramemoryvsndfilevfs.h"
#include "sonraplainvsndfilevfs.h"
#include "shared.h"
#include "signalutil.h"

#include <speex/speex_resampler.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned RATE = 16000; // Hz of the graph, 20 ms frames

std::string temp(const std::string& name) { return testing::TempDir() + "sonra_files_" + name; }

// Writes interleaved `samples` as a sound file; returns its path.
std::string soundFile(const std::string& name, int format, int rate, int channels, const std::vector<int16_t>& samples)
{
    SF_INFO info = SF_INFO();
    info.samplerate = rate, info.channels = channels, info.format = format;
    SNDFILE* file = sf_open(temp(name).c_str(), SFM_WRITE, &info);
    sf_writef_short(file, samples.data(), samples.size() / channels);
    sf_close(file);
    return temp(name);
}

std::vector<char> bytesOf(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What libsndfile decodes from `path`, interleaved.
std::vector<int16_t> decoded(const std::string& path, SF_INFO& info)
{
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &(info = SF_INFO()));
    std::vector<int16_t> samples(info.frames * info.channels);
    sf_readf_short(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
}

std::string shell(const std::string& command)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    for (int c; pipe && (c = std::fgetc(pipe)) != EOF;)
        out += char(c);
    if (pipe)
        pclose(pipe);
    return out;
}

// Warnings on "audio2" while alive.
struct Warnings {
    Warnings() { setLogSink([this](const LogRecord& r) { if (r.category == "audio2") texts.push_back(r.text); }); }
    ~Warnings() { setLogSink(LogSink()); }
    std::vector<std::string> texts;
};

// A source node alone in a pipe, stepped frame by frame.
template <class Node>
struct Source {
    template <class... Args>
    explicit Source(Args... args) : pipe(boost::make_shared<SonraPipe>(20)), node(boost::make_shared<Node>(ioService(), args..., 20, RATE))
    {
        pipe->addNode(node);
    }
    ~Source() { pipe->clear(); }
    Frame step() { return pipe->processFrame(), node->outputData(); }
    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<Node> node;
    std::vector<int> codes; // what the completion callback received
};

struct Reader : Source<SonraFileReaderNode> {
    explicit Reader(boost::shared_ptr<SonraVSndFileVfs> vfs = boost::make_shared<SonraPlainVSndFileVfs>()) { node->setVSndFile(vfs); }
    int start(const std::string& name) { return node->start(name, channels, duration, [this](int c) { codes.push_back(c); }); }
    unsigned channels = 0, duration = 0;
};

struct Player : Source<SonraFilePlayNode> {
    Player() : Source(SonraFilePlayNode::DEFAULT_MAX_FILESIZE) {}
    int start(const std::string& name, bool loop = false)
    {
        return node->start(name, channels, [this] { codes.push_back(0); }, loop);
    }
    unsigned channels = 0;
};

struct FileCase {
    const char* name;
    int format, rate, channels;
};

class ReaderFormats : public testing::TestWithParam<FileCase> {};

} // namespace

// 1.5 s of two tones in each format and rate, read through a memory file:
// the output is, sample for sample, libsndfile's decoding converted by one
// uninterrupted SpeexDSP run (quality 5) with silence after the end, so that
// blocks that do not fit the graph frame (11025 and 44100 Hz) lose or repeat
// nothing; every frame is full; the end comes where the file does.
TEST_P(ReaderFormats, MatchesOneSpeexRunFrameByFrame)
{
    const FileCase c = GetParam();
    std::vector<int16_t> tones = interleave(sine(440, c.rate, c.rate * 3 / 2), sine(1250, c.rate, c.rate * 3 / 2, 5000));
    if (c.channels == 1)
        tones = sine(440, c.rate, c.rate * 3 / 2);
    SF_INFO info;
    const std::string path = soundFile(c.name, c.format, c.rate, c.channels, tones);
    std::vector<int16_t> reference = decoded(path, info);
    reference.resize(reference.size() + 4 * c.rate / 50 * c.channels);
    if (c.rate != int(RATE)) {
        std::vector<int16_t> in = reference;
        reference.assign(in.size() * RATE / c.rate + 64, 0);
        SpeexResamplerState* whole = speex_resampler_init(c.channels, c.rate, RATE, 5, nullptr);
        spx_uint32_t inLen = in.size() / c.channels, outLen = reference.size() / c.channels;
        speex_resampler_process_interleaved_int(whole, in.data(), &inLen, reference.data(), &outLen);
        speex_resampler_destroy(whole);
    }
    Reader reader(boost::make_shared<SonraMemoryVSndFileVfs>("f", bytesOf(path)));
    ASSERT_EQ(0, reader.start("f"));
    EXPECT_EQ(unsigned(c.channels), reader.channels);
    EXPECT_EQ(unsigned(c.channels), reader.node->outputChannels());
    EXPECT_EQ(1u, reader.duration);
    std::vector<int16_t> out;
    for (Frame frame; (frame = reader.step());) {
        ASSERT_EQ(640u * c.channels, frame->size()) << "frame " << out.size() / 320 / c.channels;
        const std::vector<int16_t> samples = samplesOf(frame);
        out.insert(out.end(), samples.begin(), samples.end());
    }
    EXPECT_EQ(std::vector<int>{-4}, reader.codes);
    EXPECT_NEAR(out.size() / c.channels / 320.0, 75.0, 1.0) << "frames for 1.5 s";
    reference.resize(std::min(out.size(), reference.size()));
    EXPECT_EQ(reference, out);
}

INSTANTIATE_TEST_SUITE_P(Files, ReaderFormats, testing::Values(
    FileCase{"16k.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16000, 1}, FileCase{"48k.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2},
    FileCase{"44k.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 44100, 1}, FileCase{"11k.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 11025, 1},
    FileCase{"8k.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 8000, 2}));
