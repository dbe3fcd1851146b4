// The file reader and the file play node on the same arbitrary file bytes
// from memory, in a graph of any valid frame duration and rate, the reader
// optionally sought, the player once or in a loop. Oracles (in full in
// docs/reliability.md): the result codes; whole graph frames only, none
// after a callback or a failed start; how often each callback fires.
#include "fuzzutil.h"
#include "sonrafileplaynode.h"
#include "sonrafilereadernode.h"
#include "sonramemoryvsndfilevfs.h"

using namespace sonrafuzz;
using ombrel::SonraFilePlayNode;
using ombrel::SonraFileReaderNode;

// libsndfile leaks the Vorbis and Ogg states it made when opening a corrupt
// Ogg file fails; the leaks are its own, made inside those codec libraries.
extern "C" const char* __lsan_default_suppressions() { return "leak:libvorbis.so\nleak:libogg.so\n"; }

namespace {

const unsigned MAX_FRAMES = 200; // graph frames played of one file

// A graph frame duration (ms) and rate (Hz) every node accepts.
struct GraphConfig { unsigned frameDuration, sampleRate; };
const unsigned DURATIONS[] = {10, 20, 30, 40, 60};                 // ms
const unsigned RATES[] = {8000, 16000, 24000, 32000, 44100, 48000}; // Hz

bool isWholeFrame(const Frame& frame, const GraphConfig& config, unsigned channels)
{
    const unsigned frameBytes = ombrel::SonraNode::frameSize(config.frameDuration, config.sampleRate);
    return frame->size() == std::size_t(frameBytes) * channels;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    ombrel::setLogSink([](const ombrel::LogRecord&) {}); // corrupt files warn on every run
    Reader in(data, size);
    const GraphConfig config{DURATIONS[in.choice(5)], RATES[in.choice(6)]};
    const unsigned choice = in.byte(), seekSeconds = (choice >> 1) % 4; // s, 0: no seek
    const bool loop = choice & 1;
    const std::size_t header = std::min<std::size_t>(size, 3);
    const std::vector<char> file(data + header, data + size);
    // One memory file each: a memory file serves one open file at a time.
    auto readerFile = boost::make_shared<ombrel::SonraMemoryVSndFileVfs>("f", file);
    auto playerFile = boost::make_shared<ombrel::SonraMemoryVSndFileVfs>("f", file);
    auto pipe = boost::make_shared<ombrel::SonraPipe>(config.frameDuration);
    auto reader = boost::make_shared<SonraFileReaderNode>(ioService(), config.frameDuration, config.sampleRate);
    auto player = boost::make_shared<SonraFilePlayNode>(ioService(), SonraFilePlayNode::DEFAULT_MAX_FILESIZE,
                                                        config.frameDuration, config.sampleRate);
    pipe->addNode(reader);
    pipe->addNode(player);
    reader->setVSndFile(readerFile);
    std::vector<int> codes;
    unsigned readChannels = 0, seconds = 0, calls = 0, playChannels = 0;
    const int read = reader->start("f", readChannels, seconds, [&codes](int code) { codes.push_back(code); });
    FUZZ_CHECK(read == SonraFileReaderNode::START_OK || read == SonraFileReaderNode::START_FAILED);
    FUZZ_CHECK(codes.empty() || (read != 0 && codes == std::vector<int>{SonraFileReaderNode::CODE_FAILED}));
    if (read == 0 && seekSeconds)
        reader->seek(seekSeconds);
    player->setVSndFile(playerFile.get());
    const int played = player->start("f", playChannels, [&calls] { ++calls; }, loop);
    FUZZ_CHECK((played == SonraFilePlayNode::START_OK || played == SonraFilePlayNode::START_NOT_AUDIO) && calls == 0);
    unsigned delivered = 0;
    for (unsigned i = 0; i < MAX_FRAMES; ++i) {
        const std::size_t codesBefore = codes.size();
        pipe->processFrame();
        const Frame frame = reader->outputData(), playedFrame = player->outputData();
        if (frame && !frame->empty()) {
            FUZZ_CHECK(read == 0 && codes.empty() && isWholeFrame(frame, config, readChannels));
            ++delivered;
        }
        if (codes.size() != codesBefore) // the end of a started file, once, after a frame at least
            FUZZ_CHECK(read == 0 && codes == std::vector<int>{SonraFileReaderNode::CODE_FINISHED} &&
                       (delivered > 0 || seekSeconds));
        if (playedFrame && !playedFrame->empty())
            FUZZ_CHECK(played == 0 && calls == 0 && isWholeFrame(playedFrame, config, playChannels));
        FUZZ_CHECK(calls == 0 || (played == 0 && !loop && calls == 1));
    }
    pipe->clear(), pipe.reset(); // the pipe lets go of its nodes only once gone
    reader.reset(), player.reset();
    FUZZ_CHECK(codes.size() == 1 && (codes[0] == SonraFileReaderNode::CODE_FINISHED ||
                                     (read != 0 && codes[0] == SonraFileReaderNode::CODE_FAILED)));
    FUZZ_CHECK(calls == (played == 0 ? 1u : 0u));
    return 0;
}
