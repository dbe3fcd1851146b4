#include "sonrasignal.h"

#include <cmath>

namespace sonratool {

std::vector<int16_t> voice(unsigned sampleRate, std::size_t count, double pitch)
{
    const double GLIDE = 0.2, GLIDE_HZ = 1.1, SYLLABLES_HZ = 3.0, AMPLITUDE = 4000;
    const int HARMONICS = 8;
    std::vector<int16_t> samples(count);
    double phase = 0; // radians of the fundamental
    for (std::size_t i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate; // s
        phase += 2 * M_PI * pitch * (1 + GLIDE * std::sin(2 * M_PI * GLIDE_HZ * t)) / sampleRate;
        double value = 0;
        for (int k = 1; k <= HARMONICS; ++k)
            value += std::sin(k * phase) / k;
        samples[i] = static_cast<int16_t>(AMPLITUDE * value * std::pow(std::sin(M_PI * SYLLABLES_HZ * t), 2));
    }
    return samples;
}

} // namespace sonratool
