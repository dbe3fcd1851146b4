// The file play node on arbitrary file bytes served from memory, once or in
// a loop, in a graph of any valid frame duration and rate. Oracle: start()
// gives 0 or -3 (the memory file always has the name) and calls no
// callback; a started node delivers frames of exactly one graph frame of the
// file's channels, and nothing once its callback fired; played once, the
// callback fires at most once at the end, in a loop never; by the time the
// node is gone it fired exactly once after a start, and never after a
// failure, which leaves the node silent.
#include "fuzzutil.h"
#include "sonramemoryvsndfilevfs.h"
#include "sonrafileplaynode.h"

using namespace sonrafuzz;
using ombrel::SonraFilePlayNode;

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
    const bool loop = in.choice(2);
    const std::size_t header = std::min<std::size_t>(size, 3);
    auto memory = boost::make_shared<ombrel::SonraMemoryVSndFileVfs>(
        "f", std::vector<char>(data + header, data + size));
    auto pipe = boost::make_shared<ombrel::SonraPipe>(config.frameDuration);
    auto player = boost::make_shared<SonraFilePlayNode>(ioService(), SonraFilePlayNode::DEFAULT_MAX_FILESIZE,
                                                        config.frameDuration, config.sampleRate);
    pipe->addNode(player);
    player->setVSndFile(memory.get());
    unsigned calls = 0, channels = 0;
    const int result = player->start("f", channels, [&calls] { ++calls; }, loop);
    FUZZ_CHECK(result == SonraFilePlayNode::START_OK || result == SonraFilePlayNode::START_NOT_AUDIO);
    FUZZ_CHECK(calls == 0);
    for (unsigned i = 0; i < MAX_FRAMES; ++i) {
        pipe->processFrame();
        const Frame frame = player->outputData();
        if (frame && !frame->empty()) {
            FUZZ_CHECK(result == 0 && calls == 0);
            FUZZ_CHECK(frame->size() == std::size_t(ombrel::SonraNode::frameSize(config.frameDuration,
                                                                                 config.sampleRate)) * channels);
        }
        FUZZ_CHECK(calls == 0 || (result == 0 && !loop && calls == 1));
    }
    pipe->clear(), pipe.reset(); // the pipe lets go of its nodes only once gone
    player.reset();
    FUZZ_CHECK(calls == (result == 0 ? 1u : 0u));
    return 0;
}
