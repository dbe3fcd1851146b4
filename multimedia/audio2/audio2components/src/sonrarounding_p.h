// Rounding of float samples to whole numbers as roundf() does it, for the
// nodes that scale samples in single precision (volume and mixer limiter,
// reverb, voice change). Internal header, not installed.
#ifndef OMBREL_SONRAROUNDING_P_H
#define OMBREL_SONRAROUNDING_P_H

#include <cstdint>

namespace ombrel {
namespace rounding {

// roundf() (halves away from zero) then conversion to int, with no libm
// call and no branch, so that loops over it vectorise. Exact for every
// float of magnitude below 2^31: the conversion truncates to the whole
// part, itself a float, so converting it back is exact; for a magnitude of
// 1 or more the whole part lies within a factor of two of the value, so
// their difference, the fraction, is exact too (Sterbenz), and below 1 the
// whole part is 0. With the fraction exact, comparing it with one half
// decides just as roundf() does. Larger magnitudes and NaN are the
// caller's to avoid.
inline int32_t halfAwayFromZero(float value)
{
    const int32_t whole = static_cast<int32_t>(value);
    const float fraction = value - static_cast<float>(whole);
    return whole + (fraction >= 0.5f) - (fraction <= -0.5f);
}

} // namespace rounding
} // namespace ombrel

#endif
