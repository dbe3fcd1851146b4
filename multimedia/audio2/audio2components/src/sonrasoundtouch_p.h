// 16-bit PCM in and out of SoundTouch, for the nodes that use it (voice
// change, and the time stretching of the Opus decoder). Internal header,
// not installed.
#ifndef OMBREL_SONRASOUNDTOUCH_P_H
#define OMBREL_SONRASOUNDTOUCH_P_H

#include "sonrarounding_p.h"

#include <SoundTouch.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace ombrel {
namespace soundtouchpcm {

// The graph carries 16-bit PCM, but SoundTouch may be built for float
// samples (Debian's is: SOUNDTOUCH_FLOAT_SAMPLES), with full scale at 1.0.
// The nodes then convert at their boundary: x / 32768 on the way in, and on
// the way out x 32768, rounded half away from zero and saturated to 16 bits
// (SoundTouch's output may overshoot full scale). On a build for 16-bit
// samples the conversion is a plain copy.
typedef soundtouch::SAMPLETYPE ShifterSample;
constexpr float PCM_FULL_SCALE = 32768.0f;
constexpr float PCM_UNIT = 1.0f / PCM_FULL_SCALE; // exact: a power of two

// Samples (all channels) converted per call on the stack.
constexpr std::size_t BLOCK_SAMPLES = 4096;

// A build of SoundTouch for 16-bit samples takes PCM as it is.
[[maybe_unused]] inline void toShifter(const int16_t* in, int16_t* out, std::size_t count)
{
    std::copy(in, in + count, out);
}

inline void toShifter(const int16_t* __restrict in, float* __restrict out, std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k)
        out[k] = static_cast<float>(in[k]) * PCM_UNIT;
}

[[maybe_unused]] inline void fromShifter(int16_t* in, int16_t* out, std::size_t count)
{
    std::copy(in, in + count, out);
}

inline float scaledAndSaturated(float sample)
{
    const float scaled = sample * PCM_FULL_SCALE;
    const float atLeastLowest = scaled > -32768.0f ? scaled : -32768.0f; // NaN gives the lowest
    return atLeastLowest < 32767.0f ? atLeastLowest : 32767.0f;
}

// Saturates `in` in place first, then rounds: two passes, because the
// compiler vectorises each alone but not the two fused.
inline void fromShifter(float* __restrict in, int16_t* __restrict out, std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k)
        in[k] = scaledAndSaturated(in[k]);
    for (std::size_t k = 0; k < count; ++k)
        out[k] = static_cast<int16_t>(rounding::halfAwayFromZero(in[k]));
}

// Hands the shifter `frames` sample frames of `channels` samples each.
inline void putFrames(soundtouch::SoundTouch& shifter, const int16_t* samples, std::size_t frames, unsigned channels)
{
    ShifterSample block[BLOCK_SAMPLES];
    const std::size_t blockFrames = BLOCK_SAMPLES / channels;
    while (frames > 0) {
        const std::size_t count = std::min(frames, blockFrames);
        const std::size_t sampleCount = count * channels;
        toShifter(samples, block, sampleCount);
        shifter.putSamples(block, static_cast<unsigned>(count));
        samples += sampleCount;
        frames -= count;
    }
}

// Takes at most `frames` sample frames into `samples`; whatever the shifter
// cannot deliver yet is left as it is.
inline void receiveFrames(soundtouch::SoundTouch& shifter, int16_t* samples, std::size_t frames, unsigned channels)
{
    ShifterSample block[BLOCK_SAMPLES];
    const std::size_t blockFrames = BLOCK_SAMPLES / channels;
    while (frames > 0) {
        const std::size_t wanted = std::min(frames, blockFrames);
        const std::size_t got = shifter.receiveSamples(block, static_cast<unsigned>(wanted));
        const std::size_t sampleCount = got * channels;
        fromShifter(block, samples, sampleCount);
        if (got < wanted)
            return;
        samples += sampleCount;
        frames -= got;
    }
}

} // namespace soundtouchpcm
} // namespace ombrel

#endif
