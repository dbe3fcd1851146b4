// The file reader and play nodes against the bare calls they wrap, per
// 20 ms graph frame at 16 kHz. Compare each Node benchmark with its Bare
// twin of the same arguments: the difference is the node's own cost.
//
// Reader: one block of `sf_readf_short` from the same in-memory WAV file
// (plus the SpeexDSP conversion, quality 5, when the file's rate differs).
// Player: a `memcpy` of one frame out of the decoded store.
// Nodes are driven through doProcess() directly: they are sources.
#include "sonrafileplaynode.h"
#include "sonrafilereadernode.h"
#include "sonramemoryvsndfilevfs.h"

#include <speex/speex_resampler.h>

#include "benchratio.h"

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstring>
#include <vector>

using namespace ombrel;

namespace {

const unsigned FRAME_MS = 20;
const unsigned GRAPH_RATE = 16000;    // Hz
const unsigned FILE_SECONDS = 10;     // then both twins go back to the start
const unsigned GRAPH_FRAMES = FILE_SECONDS * 1000 / FRAME_MS;

boost::shared_ptr<boost::asio::io_service> ioService()
{
    static auto service = boost::make_shared<boost::asio::io_service>();
    return service;
}

// A WAV file of two tones, one per channel, in memory under the name "f".
boost::shared_ptr<SonraMemoryVSndFileVfs> wavFile(unsigned rate, unsigned channels)
{
    std::vector<short> samples(static_cast<std::size_t>(FILE_SECONDS) * rate * channels);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<short>(8000 * std::sin(2 * M_PI * (300 + 500 * (i % channels)) * (i / channels) / rate));
    auto vfs = boost::make_shared<SonraMemoryVSndFileVfs>();
    vfs->open("f", VFS_WRITE);
    SF_INFO info = SF_INFO();
    info.samplerate = rate, info.channels = channels, info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open_virtual(vfs->virtualIo().get(), SFM_WRITE, &info, static_cast<SonraVSndFileVfs*>(vfs.get()));
    sf_writef_short(file, samples.data(), samples.size() / channels);
    sf_close(file);
    vfs->close();
    return vfs;
}

// Arguments: file rate, channels.
void BM_ReaderBare(benchmark::State& state)
{
    const unsigned rate = state.range(0), channels = state.range(1);
    const auto vfs = wavFile(rate, channels);
    vfs->open("f", VFS_READ);
    SF_INFO info = SF_INFO();
    SNDFILE* file = sf_open_virtual(vfs->virtualIo().get(), SFM_READ, &info, static_cast<SonraVSndFileVfs*>(vfs.get()));
    const unsigned block = GRAPH_RATE * FRAME_MS / 1000 * rate / GRAPH_RATE;
    int error = 0;
    SpeexResamplerState* resampler = rate == GRAPH_RATE ? nullptr : speex_resampler_init(channels, rate, GRAPH_RATE, 5, &error);
    std::vector<short> in(block * channels), out(GRAPH_RATE * FRAME_MS / 1000 * channels);
    std::size_t k = 0;
    for (auto _ : state) {
        if (++k % GRAPH_FRAMES == 0)
            sf_seek(file, 0, SEEK_SET);
        sf_readf_short(file, resampler ? in.data() : out.data(), block);
        if (resampler) {
            spx_uint32_t inLen = block, outLen = out.size() / channels;
            speex_resampler_process_interleaved_int(resampler, in.data(), &inLen, out.data(), &outLen);
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    if (resampler)
        speex_resampler_destroy(resampler);
    sf_close(file);
}

void BM_ReaderNode(benchmark::State& state)
{
    const unsigned rate = state.range(0), channels = state.range(1);
    SonraFileReaderNode reader(ioService(), FRAME_MS, GRAPH_RATE);
    reader.setVSndFile(wavFile(rate, channels));
    unsigned fileChannels = 0, seconds = 0;
    reader.start("f", fileChannels, seconds, boost::function<void (int)>());
    std::size_t k = 0;
    for (auto _ : state) {
        if (++k % GRAPH_FRAMES == 0)
            reader.seek(0);
        const boost::shared_ptr<std::vector<char> > out = reader.doProcess();
        benchmark::DoNotOptimize(out->data());
        benchmark::ClobberMemory();
    }
}

// Arguments: channels.
void BM_PlayerBare(benchmark::State& state)
{
    const unsigned channels = state.range(0);
    const std::size_t frameBytes = GRAPH_RATE * FRAME_MS / 1000 * 2 * channels;
    const std::vector<char> store(frameBytes * 50, 1);
    std::vector<char> out(frameBytes);
    std::size_t k = 0;
    for (auto _ : state) {
        std::memcpy(out.data(), store.data() + (k++ % 50) * frameBytes, frameBytes);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
}

void BM_PlayerNode(benchmark::State& state)
{
    const unsigned channels = state.range(0);
    SonraFilePlayNode player(ioService(), SonraFilePlayNode::DEFAULT_MAX_FILESIZE, FRAME_MS, GRAPH_RATE);
    const auto vfs = wavFile(GRAPH_RATE, channels);
    player.setVSndFile(vfs.get());
    unsigned fileChannels = 0;
    player.start("f", fileChannels, boost::function<void ()>(), true);
    for (auto _ : state) {
        const boost::shared_ptr<std::vector<char> > out = player.doProcess();
        benchmark::DoNotOptimize(out->data());
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(BM_ReaderBare)->Args({16000, 1})->Args({48000, 2})->Args({44100, 1});
BENCHMARK(BM_ReaderNode)->Args({16000, 1})->Args({48000, 2})->Args({44100, 1});
SONRA_BASELINE(BM_ReaderNode, "file reader node (file Hz, channels)", BM_ReaderBare, "sf_readf_short (+ resampler)");
BENCHMARK(BM_PlayerBare)->Arg(1)->Arg(2);
BENCHMARK(BM_PlayerNode)->Arg(1)->Arg(2);
SONRA_BASELINE(BM_PlayerNode, "file play node (channels)", BM_PlayerBare, "memcpy of a frame");
