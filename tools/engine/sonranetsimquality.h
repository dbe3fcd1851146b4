// How close what was heard comes to what was sent, judged as a listener
// would: spectrum against spectrum, frame by frame, so that a frame that
// sounds like the speech it stands in for scores well even when its
// waveform does not match.
#ifndef SONRA_NETSIMQUALITY_H
#define SONRA_NETSIMQUALITY_H

#include <cstdint>
#include <vector>

namespace sonranetsim {

struct SpectralDistance {
    double mean = 0;     // dB, over the frames judged; lower is better
    unsigned frames = 0; // 20 ms frames of speech judged
};

// The mean log-spectral distance between `sent` and `heard`, with
// heard[i + lag] set against sent[i], over the 20 ms frames of `sent` that
// carry speech (louder than -50 dBFS). Per frame: both Hann-windowed power
// spectra in dB, floored near the 16-bit quantisation noise so that silence
// against silence is no distance, and the root mean square of their
// difference over the frequencies between 0 and half the rate, exclusive.
SpectralDistance logSpectralDistance(const std::vector<int16_t>& sent, const std::vector<int16_t>& heard,
                                     long lag, unsigned sampleRate);

} // namespace sonranetsim

#endif
