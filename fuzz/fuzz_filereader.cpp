// The file reader node on arbitrary file bytes served from memory, in a
// graph of any valid frame duration and rate, optionally sought. Oracle:
// start() gives 0 or -2 (the memory file always has the name); a started
// node delivers frames of exactly one graph frame of the file's channels,
// at least one before the end of the file, and nothing after its callback;
// a failed one delivers nothing; the callback fires exactly once per
// start() by the time the node is gone, with -4 after a start, and -2 or -4
// after a failure.
#include "fuzzutil.h"
#include "sonramemoryvsndfilevfs.h"
#include "sonrafilereadernode.h"

using namespace sonrafuzz;
using ombrel::SonraFileReaderNode;

// libsndfile leaks the Vorbis and Ogg states it made when opening a corrupt
// Ogg file fails; the leaks are its own, made inside those codec libraries.
extern "C" const char* __lsan_default_suppressions() { return "leak:libvorbis.so\nleak:libogg.so\n"; }

namespace {

const unsigned MAX_FRAMES = 200; // graph frames played of one file

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    ombrel::setLogSink([](const ombrel::LogRecord&) {}); // corrupt files warn on every run
    Reader in(data, size);
    const GraphConfig config = graphConfig(in);
    const unsigned seekSeconds = in.choice(4); // 0: no seek
    const std::size_t header = std::min<std::size_t>(size, 3);
    auto memory = boost::make_shared<ombrel::SonraMemoryVSndFileVfs>(
        "f", std::vector<char>(data + header, data + size));
    auto pipe = boost::make_shared<ombrel::SonraPipe>(config.frameDuration);
    auto reader = boost::make_shared<SonraFileReaderNode>(ioService(), config.frameDuration, config.sampleRate);
    pipe->addNode(reader);
    reader->setVSndFile(memory);
    std::vector<int> codes;
    unsigned channels = 0, seconds = 0;
    const int result = reader->start("f", channels, seconds, [&codes](int code) { codes.push_back(code); });
    FUZZ_CHECK(result == SonraFileReaderNode::START_OK || result == SonraFileReaderNode::START_FAILED);
    FUZZ_CHECK(codes.empty() || (result != 0 && codes == std::vector<int>{SonraFileReaderNode::CODE_FAILED}));
    if (result == 0 && seekSeconds)
        reader->seek(seekSeconds);
    unsigned delivered = 0;
    for (unsigned i = 0; i < MAX_FRAMES; ++i) {
        const std::size_t codesBefore = codes.size();
        pipe->processFrame();
        const Frame frame = reader->outputData();
        if (frame && !frame->empty()) {
            FUZZ_CHECK(result == 0 && codes.empty());
            FUZZ_CHECK(frame->size() == std::size_t(ombrel::SonraNode::frameSize(config.frameDuration,
                                                                                 config.sampleRate)) * channels);
            ++delivered;
        }
        if (codes.size() != codesBefore) // the end of a started file, once, after a frame at least
            FUZZ_CHECK(result == 0 && codes == std::vector<int>{SonraFileReaderNode::CODE_FINISHED} &&
                       (delivered > 0 || seekSeconds));
    }
    pipe->clear(), pipe.reset(); // the pipe lets go of its nodes only once gone
    reader.reset();
    FUZZ_CHECK(codes.size() == 1);
    FUZZ_CHECK(codes[0] == SonraFileReaderNode::CODE_FINISHED || (result != 0 && codes[0] == SonraFileReaderNode::CODE_FAILED));
    return 0;
}
