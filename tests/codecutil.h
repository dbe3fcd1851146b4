// Helpers the codec tests share.
#ifndef SONRA_CODECUTIL_H
#define SONRA_CODECUTIL_H

#include "testutil.h"

#include <boost/make_shared.hpp>
#include <cmath>

namespace codectest {

using sonratest::Frame;
using sonratest::frameOf;
using sonratest::samplesOf;

// Voiced speech-like: a 110-190 Hz gliding fundamental, harmonics up to 3.4 kHz
// (or 0.4 x the rate) shaped by three formants, a 4 Hz envelope; peaks at 12000.
inline std::vector<int16_t> speechLike(unsigned sampleRate, std::size_t count)
{
    const double topFrequency = std::min(3400.0, 0.4 * sampleRate); // Hz
    std::vector<double> signal(count);
    double phase = 0, peak = 0; // radians of the fundamental; largest magnitude
    for (std::size_t i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate; // s
        const double f0 = 150.0 + 40.0 * std::sin(2 * M_PI * 1.3 * t);
        phase += 2 * M_PI * f0 / sampleRate;
        double value = 0;
        for (int k = 1; k * f0 < topFrequency; ++k) {
            double weight = 0.15;
            for (double formant : {600.0, 1400.0, 2600.0})
                weight += std::exp(-std::pow((k * f0 - formant) / 250.0, 2));
            value += weight / std::sqrt(double(k)) * std::sin(k * phase);
        }
        signal[i] = value * (0.25 + 0.75 * std::pow(std::sin(M_PI * 4.0 * t), 2));
        peak = std::max(peak, std::fabs(signal[i]));
    }
    std::vector<int16_t> samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(std::lround(12000.0 * signal[i] / peak));
    return samples;
}

struct Alignment {
    int delay = 0;             // samples the output lags the reference
    double correlation = -2.0; // of output[i + delay] with reference[i], -1..1 once measured
};

// The delay in firstDelay..lastDelay where output best matches reference[skip..].
inline Alignment bestAlignment(const std::vector<int16_t>& reference, const std::vector<int16_t>& output,
                               std::size_t skip, int firstDelay, int lastDelay)
{
    Alignment best;
    for (int delay = firstDelay; delay <= lastDelay; ++delay) {
        double cross = 0, referencePower = 0, outputPower = 0;
        for (std::size_t i = skip; i + delay < output.size() && i < reference.size(); ++i) {
            const double r = reference[i], o = output[i + delay];
            cross += r * o;
            referencePower += r * r;
            outputPower += o * o;
        }
        if (referencePower > 0 && outputPower > 0 && cross / std::sqrt(referencePower * outputPower) > best.correlation)
            best = {delay, cross / std::sqrt(referencePower * outputPower)};
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

// One node fed by a queue in its own pipe; run() processes one graph frame.
template <class Node>
struct Harness {
    Harness(unsigned frameDuration, unsigned sampleRate)
        : node(boost::make_shared<Node>(sonratest::ioService(), frameDuration, sampleRate)),
          pipe(boost::make_shared<ombrel::SonraPipe>(frameDuration))
    {
        pipe->connect(source.node(frameDuration, sampleRate), node);
    }
    Harness(const Harness&) = delete; // the source node points into this queue
    Frame run(const Frame& input)
    {
        source.push(input);
        pipe->processFrame();
        return node->outputData();
    }

    boost::shared_ptr<Node> node;
    boost::shared_ptr<ombrel::SonraPipe> pipe;
    sonratest::QueueSource source;
};

} // namespace codectest

#endif
