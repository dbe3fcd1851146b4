#include "g711.h"

#include <algorithm>
#include <array>

namespace ombrel {

namespace {

const uint8_t ALAW_POSITIVE_MASK = 0xD5; // A-law codes are sent with even bits inverted
const uint8_t ALAW_NEGATIVE_MASK = 0x55;
const uint8_t ULAW_POSITIVE_MASK = 0xFF; // mu-law codes are sent inverted
const uint8_t ULAW_NEGATIVE_MASK = 0x7F;
const int ULAW_BIAS = 33;            // added to the 14-bit magnitude so segments double cleanly
const int ULAW_MAX_BIASED = 0x1FFF;  // top of segment 7; louder samples clip to the top code

// Number of significant bits of a positive value.
int bitLength(unsigned value)
{
#if defined(__GNUC__)
    return value ? 32 - __builtin_clz(value) : 0;
#else
    int bits = 0;
    for (; value; value >>= 1)
        ++bits;
    return bits;
#endif
}

// Segment (0..7) of a magnitude whose segment 0 holds `firstSegmentBits`
// bits and each further segment one bit more; the segment is found from the
// magnitude's bit length without a search, as encoding runs per sample.
int segmentOf(int magnitude, int firstSegmentBits)
{
    return std::max(0, bitLength(static_cast<unsigned>(magnitude)) - firstSegmentBits);
}

constexpr int16_t decodeAlaw(uint8_t code)
{
    const int value = code ^ ALAW_NEGATIVE_MASK;
    const int segment = (value & 0x70) >> 4;
    int magnitude = (value & 0x0F) << 4;
    // The middle of the interval: half a step above its lower end.
    magnitude += segment == 0 ? 8 : 0x108;
    if (segment > 1)
        magnitude <<= segment - 1;
    return static_cast<int16_t>((value & 0x80) ? magnitude : -magnitude);
}

constexpr int16_t decodeUlaw(uint8_t code)
{
    const int value = ~code & 0xFF;
    const int magnitude = ((((value & 0x0F) << 3) + 0x84) << ((value & 0x70) >> 4)) - 0x84;
    return static_cast<int16_t>((value & 0x80) ? -magnitude : magnitude);
}

template <int16_t (*decode)(uint8_t)>
constexpr std::array<int16_t, 256> decodingTable()
{
    std::array<int16_t, 256> table{};
    for (int code = 0; code < 256; ++code)
        table[code] = decode(static_cast<uint8_t>(code));
    return table;
}

// Decoding is a lookup in tables built by the compiler.
constexpr std::array<int16_t, 256> ALAW_TO_LINEAR = decodingTable<decodeAlaw>();
constexpr std::array<int16_t, 256> ULAW_TO_LINEAR = decodingTable<decodeUlaw>();

} // namespace

uint8_t linear2alaw(int16_t sample)
{
    // One's complement of a negative sample: its 13-bit truncation (a shift
    // towards minus infinity) then mirrors onto magnitudes 0..4095.
    const bool negative = sample < 0;
    const int magnitude = (negative ? ~sample : sample) >> 3;
    const uint8_t mask = negative ? ALAW_NEGATIVE_MASK : ALAW_POSITIVE_MASK;
    const int segment = segmentOf(magnitude, 5);
    const int mantissa = (magnitude >> (segment < 2 ? 1 : segment)) & 0x0F;
    return static_cast<uint8_t>(((segment << 4) | mantissa) ^ mask);
}

uint8_t linear2ulaw(int16_t sample)
{
    // 14-bit truncation towards minus infinity, then the magnitude: for a
    // negative sample that is -(sample >> 2), which rounds its size up.
    const bool negative = sample < 0;
    int magnitude = negative ? (3 - sample) >> 2 : sample >> 2;
    const uint8_t mask = negative ? ULAW_NEGATIVE_MASK : ULAW_POSITIVE_MASK;
    magnitude = std::min(magnitude + ULAW_BIAS, ULAW_MAX_BIASED);
    const int segment = segmentOf(magnitude, 6);
    const int mantissa = (magnitude >> (segment + 1)) & 0x0F;
    return static_cast<uint8_t>(((segment << 4) | mantissa) ^ mask);
}

int16_t alaw2linear(uint8_t code)
{
    return ALAW_TO_LINEAR[code];
}

int16_t ulaw2linear(uint8_t code)
{
    return ULAW_TO_LINEAR[code];
}

} // namespace ombrel
