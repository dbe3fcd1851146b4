// A speech-like test signal for the tools, the benchmarks and the tests:
// nothing real is needed, yet codecs and effects see voiced sound.
#ifndef SONRA_SIGNAL_H
#define SONRA_SIGNAL_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sonratool {

// Voiced speech-like: a fundamental gliding 40 Hz either side of `pitch`
// (Hz), harmonics up to 3.4 kHz (or 0.4 x the rate) shaped by three
// formants, a 4 Hz syllable envelope; `count` samples at `sampleRate` Hz,
// peaks at 12000.
std::vector<int16_t> speechLike(unsigned sampleRate, std::size_t count, double pitch = 150.0);

} // namespace sonratool

#endif
