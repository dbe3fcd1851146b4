// The file reader, writer and play nodes, on files libsndfile makes here, judged against libsndfile's own decoding,
// SpeexDSP run in one piece, and soxi and sox on what the writer recorded.
#include "sonrafileplaynode.h"
#include "sonrafilereadernode.h"
#include "sonrafilewriternode.h"
#include "sonramemoryvsndfilevfs.h"
#include "sonraplainvsndfilevfs.h"
#include "shared.h"
#include "testutil.h"

#include <speex/speex_resampler.h>

#include <gtest/gtest.h>

#include <fstream>
#include <numeric>

using namespace ombrel;
using namespace sonratest;

// libsndfile leaks the Vorbis and Ogg states it made when opening a corrupt Ogg file fails, or when closing one whose
// writes failed; the leaks are its own, made inside those codec libraries.
extern "C" const char* __lsan_default_suppressions() { return "leak:libvorbis.so\nleak:libogg.so\n"; }

namespace {

const unsigned RATE = 16000; // Hz of the graph, 20 ms frames
const int WAV = SF_FORMAT_WAV | SF_FORMAT_PCM_16, FLAC = SF_FORMAT_FLAC | SF_FORMAT_PCM_16,
          VORBIS = SF_FORMAT_OGG | SF_FORMAT_VORBIS, AIFF = SF_FORMAT_AIFF | SF_FORMAT_PCM_16;

// Writes interleaved `samples` as a sound file; returns its path.
std::string soundFile(const std::string& name, int format, int rate, int channels, const std::vector<int16_t>& samples)
{
    SF_INFO info = SF_INFO();
    info.samplerate = rate, info.channels = channels, info.format = format;
    SNDFILE* file = sf_open(tempPath(name).c_str(), SFM_WRITE, &info);
    sf_writef_short(file, samples.data(), samples.size() / channels);
    sf_close(file);
    return tempPath(name);
}

std::vector<char> bytesOf(const std::string& path) { return shell("cat " + path).values<char>(); }

// What libsndfile decodes from `path`, interleaved.
std::vector<int16_t> decoded(const std::string& path)
{
    SF_INFO info = SF_INFO();
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<int16_t> samples(info.frames * info.channels);
    sf_readf_short(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
}

// A source node alone in a pipe, stepped frame by frame.
template <class Node>
struct Source {
    template <class... Args>
    explicit Source(unsigned rate, Args... args)
        : pipe(boost::make_shared<SonraPipe>(20)), node(boost::make_shared<Node>(ioService(), args..., 20, rate)) { pipe->addNode(node); }
    ~Source() { pipe->clear(); }
    Frame step() { return pipe->processFrame(), node->outputData(); }
    // The samples of up to `frames` frames, until the first empty one; each frame must hold `bytes`.
    std::vector<int16_t> play(int frames, std::size_t bytes)
    {
        std::vector<int16_t> out;
        for (Frame frame; frames-- > 0 && (frame = step()); out = concat(out, samplesOf(frame)))
            EXPECT_EQ(bytes, frame->size()) << "frame " << out.size() * 2 / bytes;
        return out;
    }
    // Detaches and destroys the node.
    void drop() { pipe->clear(), pipe = boost::make_shared<SonraPipe>(20), node.reset(); }
    std::vector<int> codes; // what the completion callback received; outlives the node
    boost::shared_ptr<SonraPipe> pipe;
    boost::shared_ptr<Node> node;
};

struct Reader : Source<SonraFileReaderNode> {
    explicit Reader(boost::shared_ptr<SonraVSndFileVfs> vfs = boost::make_shared<SonraPlainVSndFileVfs>(), unsigned rate = RATE)
        : Source(rate) { node->setVSndFile(vfs); }
    int start(const std::string& name) { return node->start(name, channels, duration, [this](int c) { codes.push_back(c); }); }
    unsigned channels = 0, duration = 0;
};

struct Player : Source<SonraFilePlayNode> {
    Player() : Source(RATE, SonraFilePlayNode::DEFAULT_MAX_FILESIZE) {}
    // The callback records `tag`.
    int start(const std::string& name, bool loop = false, int tag = 0) { return node->start(name, channels, [this, tag] { codes.push_back(tag); }, loop); }
    unsigned channels = 0;
};

// `size` samples: first + 1, first + 2... for `count` of them, then silence.
std::vector<int16_t> rampFrame(int first, int count = 320, int size = 320)
{
    std::vector<int16_t> frame(size);
    std::iota(frame.begin(), frame.begin() + count, int16_t(first + 1));
    return frame;
}

// 1000 mono frames at the graph's rate: 1, 2, 3...
std::string rampFile() { return soundFile("ramp.wav", WAV, RATE, 1, rampFrame(0, 1000, 1000)); }

// `in` converted to the graph's rate by one uninterrupted SpeexDSP run.
std::vector<int16_t> speexRun(const std::vector<int16_t>& in, int rate, int channels)
{
    std::vector<int16_t> out(in.size() * 2 * RATE / rate + 64);
    SpeexResamplerState* whole = speex_resampler_init(channels, rate, RATE, 5, nullptr);
    spx_uint32_t inLen = in.size() / channels, outLen = out.size() / channels;
    speex_resampler_process_interleaved_int(whole, in.data(), &inLen, out.data(), &outLen);
    speex_resampler_destroy(whole);
    out.resize(outLen * channels);
    return out;
}

// The warning of a node whose file libsndfile refused.
std::string refusal(const std::string& node) { return node + " failed to open sndfile: " + sf_strerror(nullptr); }

// Samples, channels and rate that soxi reads from `path`.
std::string soxi(const std::string& path)
{
    return shell("echo $(soxi -s " + path + ") $(soxi -c " + path + ") $(soxi -r " + path + ")").output;
}

// A memory file that takes no byte: every write fails.
struct FullDisk : SonraMemoryVSndFileVfs {
    boost::shared_ptr<SF_VIRTUAL_IO> virtualIo() override
    {
        auto io = boost::make_shared<SF_VIRTUAL_IO>(*SonraMemoryVSndFileVfs::virtualIo());
        io->write = [](const void*, sf_count_t, void*) -> sf_count_t { return 0; };
        return io;
    }
};

} // namespace

// 1.5 s of two tones in each format and rate, read through a memory file: the output is, sample for sample,
// libsndfile's decoding converted by one uninterrupted SpeexDSP run (quality 5) with silence after the end, so that
// blocks that do not fit the graph frame (11025 and 22025 Hz) lose or repeat nothing; every frame is full; the end
// comes where the file does.
TEST(FileReader, MatchesOneSpeexRunFrameByFrameInEveryFormat)
{
    const struct { const char* name; int format, rate, channels; } cases[] = {
        {"wav16k", WAV, 16000, 1},   {"wav48kStereo", WAV, 48000, 2}, {"flac44k", FLAC, 44100, 1},
        {"vorbis11k", VORBIS, 11025, 1}, {"aiff8kStereo", AIFF, 8000, 2}, {"wav22025", WAV, 22025, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const unsigned count = c.rate * 3 / 2;
        const std::vector<int16_t> a = sine(440, c.rate, count), b = sine(1250, c.rate, count, 5000);
        const std::string path = soundFile(c.name, c.format, c.rate, c.channels, c.channels > 1 ? interleave(a, b) : a);
        std::vector<int16_t> reference = decoded(path);
        reference.resize(reference.size() + 4 * c.rate / 50 * c.channels);
        if (c.rate != int(RATE))
            reference = speexRun(reference, c.rate, c.channels);
        Reader reader(boost::make_shared<SonraMemoryVSndFileVfs>("f", bytesOf(path)));
        ASSERT_EQ(0, reader.start("f"));
        EXPECT_EQ(unsigned(c.channels), reader.channels);
        EXPECT_EQ(1u, reader.duration);
        const std::vector<int16_t> out = reader.play(1000, 640 * c.channels);
        EXPECT_EQ(std::vector<int>{-4}, reader.codes);
        EXPECT_NEAR(out.size() / c.channels / 320.0, 75.0, 1.0) << "frames for 1.5 s";
        reference.resize(std::min(out.size(), reference.size()));
        EXPECT_EQ(reference, out);
    }
}

// The last block is padded, the next frame stops with -4, as do a new start() and the destructor; pause() holds the
// position; a refused name (-1) installs no callback; libsndfile's refusal (-2) is logged and keeps it; files without
// frames or too slow for one a graph frame stop with -2.
TEST(FileReader, PlaysPadsStopsAndRefuses)
{
    const std::string ramp = rampFile();
    Reader reader;
    ASSERT_EQ(0, reader.start(ramp));
    EXPECT_EQ(rampFrame(0, 1000, 1280), reader.play(4, 640)) << "280 samples of silence at the end";
    EXPECT_EQ(std::vector<int>{}, reader.codes);
    EXPECT_FALSE(reader.step());
    EXPECT_EQ(std::vector<int>{-4}, reader.codes);
    EXPECT_EQ("", reader.node->fileName());

    ASSERT_EQ(0, reader.start(ramp));
    reader.step();
    ASSERT_EQ(0, reader.start(ramp));
    EXPECT_EQ((std::vector<int>{-4, -4}), reader.codes) << "the first file ended";
    reader.step();
    reader.node->pause();
    EXPECT_FALSE(reader.step());
    reader.node->resume();
    EXPECT_EQ(rampFrame(320), samplesOf(reader.step()));

    EXPECT_EQ(-1, reader.start(tempPath("missing.wav")));
    EXPECT_EQ(3u, reader.codes.size());
    std::ofstream(tempPath("text.wav")) << "no sound in here";
    LogCapture log("audio2");
    EXPECT_EQ(-2, reader.start(tempPath("text.wav")));
    EXPECT_EQ(std::vector<std::string>{refusal("Sound file reader")}, log.texts(LogSeverity::Warning));
    EXPECT_EQ(3u, reader.codes.size());
    EXPECT_EQ(-2, reader.start(soundFile("empty.wav", WAV, RATE, 1, {})));
    EXPECT_EQ(-2, reader.start(soundFile("40hz.wav", WAV, 40, 1, rampFrame(0))));
    EXPECT_FALSE(reader.step());
    ASSERT_EQ(0, reader.start(ramp));
    reader.drop();
    EXPECT_EQ((std::vector<int>{-4, -4, -4, -4, -2, -2, -4}), reader.codes) << "the last by the destructor";
}

// seek(3) on a 44.1 kHz file moves to frame 132300; past the end it changes nothing.
TEST(FileReader, SeeksInWholeSeconds)
{
    const std::vector<int16_t> samples = rampFrame(0, 4 * 44100, 4 * 44100);
    Reader reader(boost::make_shared<SonraPlainVSndFileVfs>(), 44100);
    ASSERT_EQ(0, reader.start(soundFile("44k.wav", WAV, 44100, 1, samples)));
    reader.step();
    reader.node->seek(3);
    EXPECT_EQ(slice(samples, 132300, 882), samplesOf(reader.step()));
    reader.node->seek(5);
    EXPECT_EQ(slice(samples, 132300 + 882, 882), samplesOf(reader.step()));
}

// 2 s recorded as Ogg Vorbis: soxi finds 32000 mono frames at 16000 Hz and sox decodes the tone back. 641 bytes write
// 320 frames, 1280 stereo bytes 320; a new start() finishes the file; paused frames are not written; a recording in
// memory reads back; a failed write stops.
TEST(FileWriter, RecordsOggVorbisThatSoxReadsBack)
{
    NodeGraph<SonraFileWriterNode> graph(20, RATE);
    SonraFileWriterNode& writer = *graph.node;
    writer.setVSndFile(boost::make_shared<SonraPlainVSndFileVfs>());
    const std::vector<int16_t> mono = sine(440, RATE, 32000), tones = interleave(mono, sine(1700, RATE, 32000));
    const std::string rec = tempPath("rec.ogg");
    ASSERT_EQ(0, writer.start(rec, 1));
    EXPECT_EQ(std::vector<int16_t>{}, graph.runInPieces(mono, {320})) << "a sink";
    writer.stop();
    const std::vector<std::string> counts = {"32000 1 16000\n", "31999 1 16000\n", "32001 1 16000\n"};
    EXPECT_NE(counts.end(), std::find(counts.begin(), counts.end(), soxi(rec))) << soxi(rec);
    const std::vector<int16_t> back = shell("sox " + rec + " -t raw -e signed -b 16 -").values<int16_t>();
    ASSERT_GE(back.size(), 31999u);
    EXPECT_GT(bestAlignment(slice(mono, 0, 31999), back, 0, 0, 0).correlation, 0.98);

    ASSERT_EQ(0, writer.start(tempPath("odd.ogg"), 1));
    graph.step(boost::make_shared<std::vector<char> >(641, 0));
    ASSERT_EQ(0, writer.start(tempPath("stereo.ogg"), 2));
    EXPECT_EQ("320 1 16000\n", soxi(tempPath("odd.ogg"))) << "finished by the new start()";
    graph.runInPieces(slice(tones, 0, 6400), {640}), writer.pause();
    graph.runInPieces(slice(tones, 0, 6400), {640}), writer.resume();
    graph.runInPieces(slice(tones, 0, 3200), {640}), writer.stop();
    EXPECT_EQ("4800 2 16000\n", soxi(tempPath("stereo.ogg")));

    auto memory = boost::make_shared<SonraMemoryVSndFileVfs>();
    writer.setVSndFile(memory);
    ASSERT_EQ(0, writer.start("call.ogg", 1));
    graph.runInPieces(mono, {320}), writer.stop();
    Reader reader(memory);
    ASSERT_EQ(0, reader.start("call.ogg"));
    EXPECT_EQ(2u, reader.duration);

    LogCapture log("audio2");
    EXPECT_EQ(-1, writer.start("zero.ogg", 0));
    const std::string refused = refusal("Sound file writer"); // before other opens change libsndfile's last error
    writer.setVSndFile(boost::make_shared<FullDisk>());
    ASSERT_EQ(0, writer.start("full.ogg", 1));
    graph.step(frameOf(mono));
    EXPECT_EQ("", writer.fileName()) << "stopped by the failed write";
    EXPECT_EQ((std::vector<std::string>{refused, "Audio2 file writer failed to write data"}),
              log.texts(LogSeverity::Warning));
    auto closed = boost::make_shared<SonraPlainVSndFileVfs>();
    writer.setVSndFile(closed);
    EXPECT_EQ(-1, writer.start(tempPath("no/such/dir.ogg"), 1));
    const boost::shared_ptr<SF_VIRTUAL_IO> io = closed->virtualIo();
    SonraVSndFileVfs* const user = closed.get();
    EXPECT_EQ(0, io->write("x", 1, user));
    EXPECT_EQ((std::vector<sf_count_t>{-1, -1, -1}), (std::vector<sf_count_t>{io->get_filelen(user),
                                                                              io->seek(0, SEEK_SET, user), io->tell(user)}));
    EXPECT_EQ((std::vector<int>{1, 2}), (std::vector<int>{VFS_READ, VFS_WRITE})); // the modes' published values
    ASSERT_TRUE(closed->open(tempPath("stereo.ogg"), VFS_READ));
    char first = 0;
    EXPECT_EQ(1, io->read(&first, 1, user)); // a single byte too
    EXPECT_EQ('O', first);                   // of "OggS"
    ASSERT_TRUE(closed->open(tempPath("one.bin"), VFS_WRITE));
    EXPECT_EQ(1, io->write("x", 1, user));
    closed->close();
}

// Three frames, none for the tail, then a stop (callback once, also after a second stop()) or, looping, the first
// frame again. reset() rewinds; a new start() drops the old callback.
TEST(FilePlay, PlaysOnceOrInALoop)
{
    const std::string ramp = rampFile();
    for (bool loop : {false, true}) {
        Player player;
        ASSERT_EQ(0, player.start(ramp, loop));
        EXPECT_EQ(rampFrame(0, 960, 960), player.play(4, 640)) << "the 80-byte tail is not output";
        EXPECT_EQ(loop ? rampFrame(0) : std::vector<int16_t>{}, samplesOf(player.step()));
        EXPECT_EQ(loop ? std::vector<int>{} : std::vector<int>{0}, player.codes);
        player.node->stop();
        player.node->stop();
        EXPECT_EQ(std::vector<int>{0}, player.codes);
    }
    Player player;
    ASSERT_EQ(0, player.start(ramp, false, 1));
    player.step();
    player.node->reset(0);
    EXPECT_EQ(rampFrame(0), samplesOf(player.step()));
    ASSERT_EQ(0, player.start(ramp, true, 2));
    player.drop();
    EXPECT_EQ(std::vector<int>{2}, player.codes) << "the new callback, by the destructor";
}

// 1000 stereo frames at 8 kHz become SpeexDSP's one-pass conversion padded with silence to seven whole frames, so the
// loop wraps without a gap.
TEST(FilePlay, ConvertsAndPadsForSeamlessLoops)
{
    const std::vector<int16_t> tones = interleave(sine(300, 8000, 1000), sine(700, 8000, 1000));
    std::vector<int16_t> converted = speexRun(tones, 8000, 2);
    converted.resize(7 * 640); // about 2000 frames, then silence
    Player player;
    ASSERT_EQ(0, player.start(soundFile("8k.wav", WAV, 8000, 2, tones), true));
    const std::vector<int16_t> out = player.play(8, 1280);
    EXPECT_EQ(converted, slice(out, 0, 7 * 640));
    EXPECT_EQ(slice(out, 0, 640), slice(out, 7 * 640, 640));
}

// The size limit holds to the byte; missing -4, not audio -3 (logged with libsndfile's text), a directory -2, a name
// the virtual file refuses -2. A failed start() leaves the node silent; a file cut short plays what it holds.
TEST(FilePlay, ResultCodes)
{
    const std::string big = soundFile("1mib.wav", WAV, RATE, 1, std::vector<int16_t>((1048576 - 44) / 2, 100));
    ASSERT_EQ(1048576u, bytesOf(big).size());
    Player player;
    EXPECT_EQ(0, player.start(big));
    EXPECT_TRUE(player.step());
    std::ofstream(big, std::ios::app) << 'x';
    EXPECT_EQ(-1, player.start(big));
    EXPECT_FALSE(player.step());
    EXPECT_EQ(-4, player.start(tempPath("missing.wav")));
    EXPECT_EQ(-2, player.start(testing::TempDir()));
    std::ofstream(tempPath("text.wav")) << "no sound in here";
    LogCapture log("audio2");
    EXPECT_EQ(-3, player.start(tempPath("text.wav")));
    EXPECT_EQ(std::vector<std::string>{refusal("SonraFilePlayNode::start:")}, log.texts(LogSeverity::Warning));
    const std::vector<char> flac = bytesOf(soundFile("long.flac", FLAC, RATE, 1, rampFrame(0, 16000, 16000)));
    std::ofstream(tempPath("cut.flac"), std::ios::binary).write(flac.data(), flac.size() / 2);
    ASSERT_EQ(0, player.start(tempPath("cut.flac")));
    const std::vector<int16_t> held = player.play(60, 640);
    EXPECT_TRUE(!held.empty() && held.size() < 12000) << held.size();
    EXPECT_EQ(rampFrame(0, held.size(), held.size()), held) << "what the cut file holds, no silent rest";
    auto memory = boost::make_shared<SonraMemoryVSndFileVfs>("ramp", bytesOf(rampFile()));
    player.node->setVSndFile(memory.get());
    EXPECT_EQ(-2, player.start("other"));
    EXPECT_EQ(0, player.start("ramp"));
    EXPECT_EQ(rampFrame(0), samplesOf(player.step()));
    EXPECT_EQ(std::vector<int>{}, player.codes);
}
