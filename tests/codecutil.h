// Helpers the codec tests share: a speech-like test signal, delay-aligned
// correlation, and a harness that drives one node frame by frame.
#ifndef SONRA_CODECUTIL_H
#define SONRA_CODECUTIL_H

#include "testutil.h"

#include <boost/make_shared.hpp>
#include <boost/noncopyable.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace codectest {

using sonratest::Frame;

// A voiced, speech-like signal: a gliding fundamental (110-190 Hz) with
// harmonics up to 3.4 kHz (or 0.4 x the rate) shaped by three formant
// peaks, and a syllable-rate (4 Hz) envelope. Deterministic, peaks near
// 12000.
inline std::vector<int16_t> speechLike(unsigned sampleRate, std::size_t count)
{
    const double topFrequency = std::min(3400.0, 0.4 * sampleRate); // Hz
    const double formants[] = {600.0, 1400.0, 2600.0};                  // Hz
    std::vector<double> signal(count);
    double phase = 0; // radians of the fundamental
    double peak = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate; // s
        const double f0 = 150.0 + 40.0 * std::sin(2 * M_PI * 1.3 * t);
        phase += 2 * M_PI * f0 / sampleRate;
        double value = 0;
        for (int k = 1; k * f0 < topFrequency; ++k) {
            double weight = 0.15;
            for (double formant : formants)
                weight += std::exp(-std::pow((k * f0 - formant) / 250.0, 2));
            value += weight / std::sqrt(double(k)) * std::sin(k * phase);
        }
        const double envelope = 0.25 + 0.75 * std::pow(std::sin(M_PI * 4.0 * t), 2);
        signal[i] = value * envelope;
        peak = std::max(peak, std::fabs(signal[i]));
    }
    std::vector<int16_t> samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(std::lround(12000.0 * signal[i] / peak));
    return samples;
}

// Normalised correlation of output[i + delay] with reference[i] over
// reference[skip..], at the delay (0..maxDelay samples) where it is best.
struct Alignment {
    int delay = 0;            // samples the output lags the reference
    double correlation = 0.0; // -1..1
};

inline double correlationAt(const std::vector<int16_t>& reference, const std::vector<int16_t>& output,
                            std::size_t skip, int delay)
{
    double cross = 0, referencePower = 0, outputPower = 0;
    for (std::size_t i = skip; i + delay < output.size() && i < reference.size(); ++i) {
        const double r = reference[i], o = output[i + delay];
        cross += r * o;
        referencePower += r * r;
        outputPower += o * o;
    }
    if (referencePower == 0 || outputPower == 0)
        return 0.0;
    return cross / std::sqrt(referencePower * outputPower);
}

inline Alignment bestAlignment(const std::vector<int16_t>& reference, const std::vector<int16_t>& output,
                               std::size_t skip, int maxDelay)
{
    Alignment best;
    best.correlation = -2.0;
    for (int delay = 0; delay <= maxDelay; ++delay) {
        const double correlation = correlationAt(reference, output, skip, delay);
        if (correlation > best.correlation) {
            best.delay = delay;
            best.correlation = correlation;
        }
    }
    return best;
}

inline std::vector<int16_t> slice(const std::vector<int16_t>& samples, std::size_t first, std::size_t count)
{
    return std::vector<int16_t>(samples.begin() + first, samples.begin() + first + count);
}

inline Frame bytesFrame(const std::vector<unsigned char>& bytes)
{
    return boost::make_shared<std::vector<char> >(bytes.begin(), bytes.end());
}

inline std::vector<unsigned char> bytesOf(const Frame& frame)
{
    return frame ? std::vector<unsigned char>(frame->begin(), frame->end()) : std::vector<unsigned char>();
}

// One node fed by a queue in its own pipe; run() pushes one input frame
// (possibly empty), processes one graph frame and returns the node's output.
template <class Node>
class Harness : private boost::noncopyable {
public:
    Harness(unsigned frameDuration, unsigned sampleRate)
        : node(boost::make_shared<Node>(sonratest::ioService(), frameDuration, sampleRate)),
          pipe(boost::make_shared<ombrel::SonraPipe>(frameDuration))
    {
        pipe->connect(m_source.node(frameDuration, sampleRate), node);
    }

    Frame run(const Frame& input)
    {
        m_source.push(input);
        pipe->processFrame();
        return node->outputData();
    }

    boost::shared_ptr<Node> node;
    boost::shared_ptr<ombrel::SonraPipe> pipe;

private:
    sonratest::QueueSource m_source;
};

} // namespace codectest

#endif
