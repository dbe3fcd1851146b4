#include "sonranetsimquality.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>

namespace sonranetsim {

namespace {

typedef std::complex<double> Complex;

const double FULL_SCALE = 32768.0;          // of 16-bit samples
const double SPEECH_THRESHOLD_DB = -50.0;   // dBFS, mean power of a frame judged
const unsigned ANALYSIS_FRAME = 20;         // ms
const double DYNAMIC_RANGE_DB = 50.0;       // dB below a frame's loudest frequency that still count

// In place, radix 2; the length is a power of two.
void fft(std::vector<Complex>& x)
{
    const std::size_t n = x.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(x[i], x[j]);
    }
    for (std::size_t length = 2; length <= n; length <<= 1) {
        const Complex step = std::polar(1.0, -2.0 * M_PI / double(length));
        for (std::size_t start = 0; start < n; start += length) {
            Complex twiddle = 1.0;
            for (std::size_t k = 0; k < length / 2; ++k) {
                const Complex even = x[start + k], odd = x[start + k + length / 2] * twiddle;
                x[start + k] = even + odd;
                x[start + k + length / 2] = even - odd;
                twiddle *= step;
            }
        }
    }
}

class Spectrum {
public:
    explicit Spectrum(std::size_t frameSamples) : m_window(frameSamples), m_bins(1)
    {
        for (std::size_t i = 0; i < frameSamples; ++i)
            m_window[i] = 0.5 - 0.5 * std::cos(2.0 * M_PI * (double(i) + 0.5) / double(frameSamples));
        while (m_bins < frameSamples)
            m_bins <<= 1;
        // White noise of one quantisation step squared per sample, through
        // the window: below it a bin counts as silent.
        m_floor = 0.375 * double(frameSamples);
    }

    // dB per frequency strictly between 0 and half the rate, of
    // samples[first + i] (0 outside the signal).
    std::vector<double> levels(const std::vector<int16_t>& samples, long first)
    {
        std::vector<Complex> x(m_bins, 0.0);
        for (std::size_t i = 0; i < m_window.size(); ++i) {
            const long at = first + static_cast<long>(i);
            if (at >= 0 && at < static_cast<long>(samples.size()))
                x[i] = m_window[i] * samples[static_cast<std::size_t>(at)];
        }
        fft(x);
        std::vector<double> db(m_bins / 2 - 1);
        for (std::size_t k = 1; k < m_bins / 2; ++k)
            db[k - 1] = 10.0 * std::log10(std::max(std::norm(x[k]), m_floor));
        return db;
    }

private:
    std::vector<double> m_window;
    std::size_t m_bins; // the frame zero-padded to a power of two
    double m_floor;
};

bool carriesSpeech(const std::vector<int16_t>& samples, std::size_t first, std::size_t count)
{
    double power = 0;
    for (std::size_t i = first; i < first + count; ++i)
        power += double(samples[i]) * samples[i];
    power /= double(count) * FULL_SCALE * FULL_SCALE;
    return power > 0 && 10.0 * std::log10(power) > SPEECH_THRESHOLD_DB;
}

} // namespace

SpectralDistance logSpectralDistance(const std::vector<int16_t>& sent, const std::vector<int16_t>& heard,
                                     long lag, unsigned sampleRate)
{
    const std::size_t frameSamples = std::size_t(sampleRate) * ANALYSIS_FRAME / 1000;
    SpectralDistance result;
    if (frameSamples == 0)
        return result;
    Spectrum spectrum(frameSamples);
    double sum = 0;
    for (std::size_t first = 0; first + frameSamples <= sent.size(); first += frameSamples) {
        if (!carriesSpeech(sent, first, frameSamples))
            continue;
        const std::vector<double> a = spectrum.levels(sent, static_cast<long>(first));
        const std::vector<double> b = spectrum.levels(heard, static_cast<long>(first) + lag);
        // What lies this far below the frame's loudest frequency is not heard
        // beside it.
        const double floor = *std::max_element(a.begin(), a.end()) - DYNAMIC_RANGE_DB;
        double squares = 0;
        for (std::size_t k = 0; k < a.size(); ++k) {
            const double difference = std::max(a[k], floor) - std::max(b[k], floor);
            squares += difference * difference;
        }
        sum += std::sqrt(squares / double(a.size()));
        ++result.frames;
    }
    result.mean = result.frames ? sum / result.frames : 0;
    return result;
}

} // namespace sonranetsim
