// Helpers the tests share: frames from samples and back, frame sources for
// graphs, and signal measurements.
#ifndef SONRA_TESTUTIL_H
#define SONRA_TESTUTIL_H

#include "sonrabase.h"
#include "sonradevnode.h"

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <vector>

namespace sonratest {

typedef boost::shared_ptr<std::vector<char> > Frame;

inline boost::shared_ptr<boost::asio::io_service> ioService()
{
    static auto service = boost::make_shared<boost::asio::io_service>();
    return service;
}

inline Frame frameOf(const std::vector<int16_t>& samples)
{
    auto frame = boost::make_shared<std::vector<char> >(samples.size() * 2);
    if (!samples.empty())
        std::memcpy(frame->data(), samples.data(), frame->size());
    return frame;
}

inline std::vector<int16_t> samplesOf(const Frame& frame)
{
    std::vector<int16_t> samples(frame ? frame->size() / 2 : 0);
    if (!samples.empty())
        std::memcpy(samples.data(), frame->data(), samples.size() * 2);
    return samples;
}

// A source node that hands out the queued frames in order, then nothing.
class QueueSource {
public:
    boost::shared_ptr<ombrel::SonraDevNode> node(unsigned frameDuration, unsigned sampleRate,
                                                 unsigned channels = 1)
    {
        std::deque<Frame>* queue = &m_frames;
        auto node = boost::make_shared<ombrel::SonraDevNode>(
            [queue]() {
                if (queue->empty())
                    return Frame();
                Frame frame = queue->front();
                queue->pop_front();
                return frame;
            },
            ioService(), frameDuration, sampleRate);
        node->setOutputChannels(channels);
        return node;
    }
    void push(const Frame& frame) { m_frames.push_back(frame); }
    void push(const std::vector<int16_t>& samples) { m_frames.push_back(frameOf(samples)); }
    std::size_t pending() const { return m_frames.size(); }

private:
    std::deque<Frame> m_frames;
};

// A source node that produces the same frame contents every cycle (a fresh
// buffer each time, as a real source would).
inline boost::shared_ptr<ombrel::SonraDevNode> constantSource(const std::vector<int16_t>& samples,
                                                              unsigned frameDuration, unsigned sampleRate,
                                                              unsigned channels = 1)
{
    auto node = boost::make_shared<ombrel::SonraDevNode>([samples]() { return frameOf(samples); },
                                                         ioService(), frameDuration, sampleRate);
    node->setOutputChannels(channels);
    return node;
}

inline std::vector<int16_t> sine(double frequency, unsigned sampleRate, std::size_t count,
                                 double amplitude = 10000.0, double phase = 0.0)
{
    std::vector<int16_t> samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * frequency * i / sampleRate + phase)));
    return samples;
}

// Amplitude of one frequency in the signal (Goertzel).
inline double toneAmplitude(const std::vector<int16_t>& samples, double frequency, unsigned sampleRate)
{
    const double w = 2 * M_PI * frequency / sampleRate;
    const double coefficient = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (int16_t sample : samples) {
        const double s0 = sample + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    const double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
    return 2 * std::sqrt(std::max(power, 0.0)) / samples.size();
}

inline double rms(const std::vector<int16_t>& samples)
{
    double sum = 0;
    for (int16_t sample : samples)
        sum += double(sample) * sample;
    return samples.empty() ? 0.0 : std::sqrt(sum / samples.size());
}

} // namespace sonratest

#endif
