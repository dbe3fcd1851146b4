#include "sonrasignal.h"

#include <algorithm>
#include <cmath>

namespace sonratool {

std::vector<int16_t> speechLike(unsigned sampleRate, std::size_t count, double pitch)
{
    const double GLIDE_HZ = 40, GLIDE_RATE_HZ = 1.3, FORMANT_WIDTH_HZ = 250, PEAK = 12000;
    const double topFrequency = std::min(3400.0, 0.4 * sampleRate); // Hz
    std::vector<double> signal(count);
    double phase = 0, peak = 0; // radians of the fundamental; largest magnitude
    for (std::size_t i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate; // s
        const double f0 = pitch + GLIDE_HZ * std::sin(2 * M_PI * GLIDE_RATE_HZ * t);
        phase += 2 * M_PI * f0 / sampleRate;
        double value = 0;
        for (int k = 1; k * f0 < topFrequency; ++k) {
            double weight = 0.15;
            for (double formant : {600.0, 1400.0, 2600.0}) // Hz
                weight += std::exp(-std::pow((k * f0 - formant) / FORMANT_WIDTH_HZ, 2));
            value += weight / std::sqrt(double(k)) * std::sin(k * phase);
        }
        signal[i] = value * (0.25 + 0.75 * std::pow(std::sin(M_PI * 4.0 * t), 2));
        peak = std::max(peak, std::fabs(signal[i]));
    }
    std::vector<int16_t> samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(std::lround(PEAK * signal[i] / peak));
    return samples;
}

} // namespace sonratool
