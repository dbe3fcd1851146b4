// A speech-like test signal for the tools, the benchmarks and the tests:
// nothing real is needed, yet codecs and effects see voiced sound.
#ifndef SONRA_SIGNAL_H
#define SONRA_SIGNAL_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sonratool {

// A voiced signal: harmonics of a fundamental that glides around `pitch`
// (Hz), under a syllable-rate envelope; peaks near 8000. `count` samples
// at `sampleRate` Hz.
std::vector<int16_t> voice(unsigned sampleRate, std::size_t count, double pitch);

} // namespace sonratool

#endif
