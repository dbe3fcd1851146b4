// The soft limiter the mixer and the volume node share: a gain that drops at
// once when a sample comes near full scale and climbs back on timer ticks.
// Internal header, not installed.
#ifndef OMBREL_SONRALIMITER_P_H
#define OMBREL_SONRALIMITER_P_H

#include "sonrabase.h"
#include "sonrarounding_p.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace ombrel {
namespace limiter {

const float RECOVERY_CEILING = 0.999f;
const float GAIN_CEILING = 1.0f;
const double HEADROOM = 0.9;

// roundf() then conversion to int for any float: magnitudes beyond the int
// range saturate instead of being undefined, and NaN gives the lower bound.
inline int32_t roundToInt(float value)
{
    const float largestBelowTwoTo31 = 2147483520.0f;
    // Argument order matters: NaN loses both comparisons.
    value = std::min(std::max(-largestBelowTwoTo31, value), largestBelowTwoTo31);
    return rounding::halfAwayFromZero(value);
}

// A 16-bit sample times `factor` stays inside the int range.
inline bool scalesInRange(float factor)
{
    return std::fabs(factor) < 65536.0f; // false for NaN too
}

// The gain that brings `value` to 0.9 of `threshold`: the quotient in single
// precision, the headroom factor in double, the result stored as single.
inline float cutGain(int threshold, int32_t value)
{
    const float quotient = static_cast<float>(threshold) / static_cast<float>(value);
    return static_cast<float>(static_cast<double>(quotient) * HEADROOM);
}

// One timer tick of recovery (a gain between 0.999 and 1.0 stays there).
inline void recover(float& gain, float gainStep)
{
    if (gain < RECOVERY_CEILING)
        gain += gainStep;
    if (gain > GAIN_CEILING)
        gain = GAIN_CEILING;
}

struct Levels {
    int maxLevel; // a value at or above it is limited
    int minLevel; // a value at or below it is limited
};

// Stores `values` through the limiter, sample by sample in order: a value
// reaching a level may lower the gain, which then applies from that very
// sample on. When the gain is exactly 1.0 and nothing reaches a level the
// result is the values themselves (roundf(v * 1.0f) == v for |v| < 2^24),
// so a plain copy gives the same bits as the per-sample rule.
inline void store(const int32_t* values, unsigned count, int16_t* out, Levels levels,
                  float& gain, float& gainStep, unsigned frameDuration, int32_t gainRecoveryTime)
{
    if (count == 0)
        return;
    if (gain == GAIN_CEILING) {
        int32_t lowest = values[0];
        int32_t highest = values[0];
        for (unsigned k = 1; k < count; ++k) {
            lowest = std::min(lowest, values[k]);
            highest = std::max(highest, values[k]);
        }
        if (highest < levels.maxLevel && lowest > levels.minLevel) {
            for (unsigned k = 0; k < count; ++k)
                out[k] = static_cast<int16_t>(values[k]);
            return;
        }
    }
    for (unsigned k = 0; k < count; ++k) {
        const int32_t value = values[k];
        const bool limited = value >= levels.maxLevel || value <= levels.minLevel;
        if (limited) {
            const int threshold = value >= levels.maxLevel ? levels.maxLevel : levels.minLevel;
            const float limit = cutGain(threshold, value);
            if (gain > limit) {
                gain = limit;
                gainStep = static_cast<float>(frameDuration) * (1.0f - gain) /
                           static_cast<float>(gainRecoveryTime);
            }
        }
        out[k] = SonraNode::normalize(roundToInt(static_cast<float>(value) * gain));
    }
}

// Values are worked on in blocks of this many samples on the stack.
const unsigned BLOCK_SAMPLES = 512;

} // namespace limiter
} // namespace ombrel

#endif
