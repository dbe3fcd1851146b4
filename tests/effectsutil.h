// Helpers for the effect nodes' tests: driving a node frame by frame, sox as
// an independent judge, and finding the pitch of a tone.
#ifndef SONRA_EFFECTSUTIL_H
#define SONRA_EFFECTSUTIL_H

#include "testutil.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>

namespace effectstest {

using sonratest::Frame;

// A pipe that feeds `node` from a queue: push frames (or nothing, for a
// gap), then step() runs one graph frame and returns the node's output.
template <typename Node>
class Rig {
public:
    Rig(boost::shared_ptr<Node> node, unsigned inputChannels = 1)
        : m_pipe(boost::make_shared<ombrel::SonraPipe>(node->frameDuration())), m_node(node)
    {
        m_pipe->connect(m_queue.node(node->frameDuration(), node->sampleRate(), inputChannels), node);
    }
    ~Rig() { m_pipe->clear(); }

    Frame step(const Frame& in)
    {
        if (in)
            m_queue.push(in);
        m_pipe->processFrame();
        return m_node->outputData();
    }
    Frame step(const std::vector<int16_t>& in) { return step(sonratest::frameOf(in)); }
    Frame gap() { return step(Frame()); }

    ombrel::SonraPipe& pipe() { return *m_pipe; }

private:
    sonratest::QueueSource m_queue;
    boost::shared_ptr<ombrel::SonraPipe> m_pipe;
    boost::shared_ptr<Node> m_node;
};

inline std::vector<int16_t> noise(std::size_t count, unsigned seed, int amplitude = 20000)
{
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> distribution(-amplitude, amplitude);
    std::vector<int16_t> samples(count);
    for (int16_t& sample : samples)
        sample = static_cast<int16_t>(distribution(generator));
    return samples;
}

inline std::vector<int16_t> slice(const std::vector<int16_t>& samples, std::size_t first, std::size_t count)
{
    return std::vector<int16_t>(samples.begin() + first, samples.begin() + first + count);
}

inline void append(std::vector<int16_t>& to, const std::vector<int16_t>& samples)
{
    to.insert(to.end(), samples.begin(), samples.end());
}

// Every `channels`-th sample from `channel` on.
inline std::vector<int16_t> channel(const std::vector<int16_t>& interleaved, unsigned channels, unsigned channel)
{
    std::vector<int16_t> samples;
    for (std::size_t k = channel; k < interleaved.size(); k += channels)
        samples.push_back(interleaved[k]);
    return samples;
}

inline std::vector<int16_t> interleave(const std::vector<int16_t>& left, const std::vector<int16_t>& right)
{
    std::vector<int16_t> samples;
    for (std::size_t k = 0; k < left.size(); ++k) {
        samples.push_back(left[k]);
        samples.push_back(right[k]);
    }
    return samples;
}

// Runs sox on raw 16-bit native-endian PCM, without dither, and returns
// what it writes: sox -D -t raw ... in -t raw -c outChannels out EFFECTS.
inline std::vector<int16_t> sox(const std::vector<int16_t>& in, unsigned sampleRate, unsigned inChannels,
                                unsigned outChannels, const std::string& effects)
{
    const std::string stem = "effects-sox-" + std::to_string(::getpid()) + "-" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string inPath = stem + "-in.raw";
    const std::string outPath = stem + "-out.raw";
    {
        std::ofstream file(inPath, std::ios::binary);
        file.write(reinterpret_cast<const char*>(in.data()), static_cast<std::streamsize>(in.size() * 2));
    }
    std::ostringstream command;
    command << "sox -D -V1 -t raw -r " << sampleRate << " -e signed -b 16 -c " << inChannels << " " << inPath
            << " -t raw -e signed -b 16 -c " << outChannels << " " << outPath << " " << effects;
    const int status = std::system(command.str().c_str());
    std::ifstream file(outPath, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::remove(inPath.c_str());
    std::remove(outPath.c_str());
    EXPECT_EQ(0, status) << command.str();
    std::vector<int16_t> out(bytes.size() / 2);
    if (!out.empty())
        std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return out;
}

// The frequency in [low, high] where the signal is strongest: a Goertzel
// scan in 1 Hz steps, then in 0.1 Hz steps around the best of them.
inline double dominantFrequency(const std::vector<int16_t>& samples, unsigned sampleRate, double low, double high)
{
    const auto strongest = [&](double from, double to, double step) {
        double best = from;
        double bestAmplitude = -1;
        for (double frequency = from; frequency <= to; frequency += step) {
            const double amplitude = sonratest::toneAmplitude(samples, frequency, sampleRate);
            if (amplitude > bestAmplitude) {
                bestAmplitude = amplitude;
                best = frequency;
            }
        }
        return best;
    };
    const double coarse = strongest(low, high, 1.0);
    return strongest(coarse - 1.0, coarse + 1.0, 0.1);
}

} // namespace effectstest

#endif
