// Helpers for the effect nodes' tests: a node driven frame by frame, sox as an
// independent judge, and the pitch of a tone.
#ifndef SONRA_EFFECTSUTIL_H
#define SONRA_EFFECTSUTIL_H

#include "testutil.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>

namespace effectstest {

using sonratest::Frame;
using Samples = std::vector<int16_t>;

inline Samples slice(const Samples& samples, std::size_t first, std::size_t count)
{
    return Samples(samples.begin() + first, samples.begin() + first + count);
}

inline void append(Samples& to, const Samples& samples) { to.insert(to.end(), samples.begin(), samples.end()); }

// A pipe that feeds `node` from a queue; a step without a frame is a gap.
template <typename Node>
struct Rig {
    sonratest::QueueSource queue;
    boost::shared_ptr<ombrel::SonraPipe> pipe;
    boost::shared_ptr<Node> node;

    explicit Rig(boost::shared_ptr<Node> n, unsigned inputChannels = 1)
        : pipe(boost::make_shared<ombrel::SonraPipe>(n->frameDuration())), node(n)
    {
        pipe->connect(queue.node(n->frameDuration(), n->sampleRate(), inputChannels), n);
    }
    ~Rig() { pipe->clear(); }
    Frame step(const Frame& in)
    {
        if (in)
            queue.push(in);
        pipe->processFrame();
        return node->outputData();
    }
    Frame step(const Samples& in) { return step(sonratest::frameOf(in)); }
    Frame gap() { return step(Frame()); }
    Samples run(const Samples& in) { return sonratest::samplesOf(step(in)); }
    // Feeds `signal` in frames of the given lengths, cycling through them.
    Samples runInPieces(const Samples& signal, const std::vector<std::size_t>& lengths)
    {
        Samples out;
        for (std::size_t first = 0, piece = 0, count; first < signal.size(); first += count, ++piece) {
            count = std::min(lengths[piece % lengths.size()], signal.size() - first);
            append(out, run(slice(signal, first, count)));
        }
        return out;
    }
};

inline Samples noise(std::size_t count, unsigned seed, int amplitude = 20000)
{
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> distribution(-amplitude, amplitude);
    Samples samples(count);
    std::generate(samples.begin(), samples.end(), [&] { return static_cast<int16_t>(distribution(generator)); });
    return samples;
}

inline Samples channel(const Samples& interleaved, unsigned channels, unsigned channel)
{
    Samples samples;
    for (std::size_t k = channel; k < interleaved.size(); k += channels)
        samples.push_back(interleaved[k]);
    return samples;
}

// sox -D -t raw ... in -t raw -c outChannels - EFFECTS on 16-bit native PCM.
inline Samples sox(const Samples& in, unsigned rate, unsigned inChannels, unsigned outChannels, const std::string& effects)
{
    const std::string path = "effects-sox-" + std::to_string(::getpid()) + ".raw";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(in.data()), in.size() * 2);
    const std::string command = "sox -D -V1 -t raw -r " + std::to_string(rate) + " -e signed -b 16 -c " +
                                std::to_string(inChannels) + " " + path + " -t raw -e signed -b 16 -c " +
                                std::to_string(outChannels) + " - " + effects;
    FILE* pipe = ::popen(command.c_str(), "r");
    Samples out(4 * in.size() + 1024);
    out.resize(std::fread(out.data(), 2, out.size(), pipe));
    EXPECT_EQ(0, ::pclose(pipe)) << command;
    std::remove(path.c_str());
    return out;
}

// The strongest frequency in [low, high]: a Goertzel scan in 1 Hz steps, then
// in 0.1 Hz steps around the best of them.
inline double dominantFrequency(const Samples& samples, unsigned sampleRate, double low, double high)
{
    const auto strongest = [&](double from, double to, double step) {
        double best = from, bestAmplitude = -1;
        for (double frequency = from; frequency <= to; frequency += step) {
            const double amplitude = sonratest::toneAmplitude(samples, frequency, sampleRate);
            if (amplitude > bestAmplitude)
                bestAmplitude = amplitude, best = frequency;
        }
        return best;
    };
    const double coarse = strongest(low, high, 1.0);
    return strongest(coarse - 1.0, coarse + 1.0, 0.1);
}

} // namespace effectstest

#endif
