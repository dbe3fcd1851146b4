// The ring buffer's put+get of one 20 ms frame (16 kHz mono, 640 bytes)
// against a bare memcpy of the same bytes, in the same process.
#include "sonraringbuffer.h"

#include "benchratio.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

const unsigned FRAME_BYTES = 640;  // 20 ms of one channel at 16 kHz
const unsigned RING_BYTES = 11520; // 360 ms, as the device container sizes it

std::vector<char> frameBytes()
{
    std::vector<char> bytes(FRAME_BYTES);
    for (unsigned i = 0; i < FRAME_BYTES; ++i)
        bytes[i] = static_cast<char>(i * 13);
    return bytes;
}

void BM_Memcpy(benchmark::State& state)
{
    const std::vector<char> in = frameBytes();
    std::vector<char> out(FRAME_BYTES);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), FRAME_BYTES);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FRAME_BYTES);
}
BENCHMARK(BM_Memcpy);

// Producer and consumer in step: the ring is empty at every put.
void BM_RingPutGet(benchmark::State& state)
{
    ombrel::SonraRingBuffer ring(RING_BYTES);
    const std::vector<char> in = frameBytes();
    std::vector<char> out(FRAME_BYTES);
    for (auto _ : state) {
        ring.put(in.data(), FRAME_BYTES);
        benchmark::DoNotOptimize(ring.get(out.data(), FRAME_BYTES));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FRAME_BYTES);
}
BENCHMARK(BM_RingPutGet);
SONRA_BASELINE(BM_RingPutGet, "ring buffer put+get, 640 bytes", BM_Memcpy, "memcpy");

// The consumer one frame behind: every put appends to held bytes, and the
// content wraps around the storage's end every 18 frames.
void BM_RingPutGetOneFrameQueued(benchmark::State& state)
{
    ombrel::SonraRingBuffer ring(RING_BYTES);
    const std::vector<char> in = frameBytes();
    std::vector<char> out(FRAME_BYTES);
    ring.put(in.data(), FRAME_BYTES);
    for (auto _ : state) {
        ring.put(in.data(), FRAME_BYTES);
        benchmark::DoNotOptimize(ring.get(out.data(), FRAME_BYTES));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FRAME_BYTES);
}
BENCHMARK(BM_RingPutGetOneFrameQueued);

// The consumer eight frames behind (5120 bytes held): past the size up to
// which appending rebuilds the content with block copies, the
// circular_buffer grows element by element.
void BM_RingPutGetEightFramesQueued(benchmark::State& state)
{
    ombrel::SonraRingBuffer ring(RING_BYTES);
    const std::vector<char> in = frameBytes();
    std::vector<char> out(FRAME_BYTES);
    for (int i = 0; i < 8; ++i)
        ring.put(in.data(), FRAME_BYTES);
    for (auto _ : state) {
        ring.put(in.data(), FRAME_BYTES);
        benchmark::DoNotOptimize(ring.get(out.data(), FRAME_BYTES));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FRAME_BYTES);
}
BENCHMARK(BM_RingPutGetEightFramesQueued);

// A ring nobody drains: every put overwrites the oldest frame.
void BM_RingPutIntoFullRing(benchmark::State& state)
{
    ombrel::SonraRingBuffer ring(RING_BYTES);
    const std::vector<char> in = frameBytes();
    for (unsigned i = 0; i < RING_BYTES / FRAME_BYTES + 1; ++i)
        ring.put(in.data(), FRAME_BYTES);
    for (auto _ : state) {
        ring.put(in.data(), FRAME_BYTES);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FRAME_BYTES);
}
BENCHMARK(BM_RingPutIntoFullRing);

} // namespace
