// G.711 A-law and mu-law conversions of single samples (ITU-T G.711).
//
// A 16-bit linear sample is truncated, not rounded, to the codec's
// resolution before it is encoded: to 13 bits for A-law and to 14 bits for
// mu-law (an arithmetic shift right by 3 or 2, so negative values move
// towards minus infinity), as the ITU reference and Sun's classic
// implementation do. Decoding gives the middle of the code's interval,
// scaled back to 16 bits.
#ifndef OMBREL_G711_H
#define OMBREL_G711_H

#include <cstdint>

namespace ombrel {

// A-law code of a 16-bit sample; 0 encodes as 0xD5.
uint8_t linear2alaw(int16_t sample);
// mu-law code of a 16-bit sample; 0 encodes as 0xFF.
uint8_t linear2ulaw(int16_t sample);
// The 16-bit sample an A-law code stands for.
int16_t alaw2linear(uint8_t code);
// The 16-bit sample a mu-law code stands for.
int16_t ulaw2linear(uint8_t code);

} // namespace ombrel

#endif
