// Helpers the tests share: frames and samples, one node driven frame by frame
// in its own pipe, signals and their measurements, log capture, and the
// output of shell commands (sox and other real tools as judges).
#ifndef SONRA_TESTUTIL_H
#define SONRA_TESTUTIL_H

#include "shared.h"
#include "sonrabase.h"
#include "sonrasignal.h"
#include "sonradevnode.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace sonratest {

typedef boost::shared_ptr<std::vector<char> > Frame;
typedef std::vector<int16_t> Samples;
typedef std::vector<unsigned char> Bytes;

inline boost::shared_ptr<boost::asio::io_service> ioService()
{
    static auto service = boost::make_shared<boost::asio::io_service>();
    return service;
}

inline Frame frameOf(const Samples& samples)
{
    auto frame = boost::make_shared<std::vector<char> >(samples.size() * 2);
    if (!samples.empty())
        std::memcpy(frame->data(), samples.data(), frame->size());
    return frame;
}

inline Samples samplesOf(const Frame& frame)
{
    Samples samples(frame ? frame->size() / 2 : 0);
    if (!samples.empty())
        std::memcpy(samples.data(), frame->data(), samples.size() * 2);
    return samples;
}

inline Frame bytesFrame(const std::vector<char>& bytes) { return boost::make_shared<std::vector<char> >(bytes); }
template <class Container>
Frame bytesFrame(const Container& bytes) { return boost::make_shared<std::vector<char> >(bytes.begin(), bytes.end()); }
inline Bytes bytesOf(const Frame& frame) { return frame ? Bytes(frame->begin(), frame->end()) : Bytes(); }

template <typename T>
std::vector<T> slice(const std::vector<T>& values, std::size_t first, std::size_t count)
{
    return std::vector<T>(values.begin() + first, values.begin() + first + count);
}

template <typename T>
std::vector<T> concat(std::vector<T> a, const std::vector<T>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline Samples interleave(const Samples& left, const Samples& right)
{
    Samples both;
    for (std::size_t i = 0; i < left.size(); ++i)
        both.insert(both.end(), {left[i], right[i]});
    return both;
}

inline Samples channel(const Samples& interleaved, unsigned channels, unsigned channel)
{
    Samples samples;
    for (std::size_t k = channel; k < interleaved.size(); k += channels)
        samples.push_back(interleaved[k]);
    return samples;
}

// A source node that hands out the queued frames in order, then nothing.
class QueueSource {
public:
    boost::shared_ptr<ombrel::SonraDevNode> node(unsigned frameDuration, unsigned sampleRate, unsigned channels = 1)
    {
        std::deque<Frame>* queue = &m_frames;
        auto node = boost::make_shared<ombrel::SonraDevNode>(
            [queue]() {
                Frame frame = queue->empty() ? Frame() : queue->front();
                if (!queue->empty())
                    queue->pop_front();
                return frame;
            },
            ioService(), frameDuration, sampleRate);
        node->setOutputChannels(channels);
        return node;
    }
    void push(const Frame& frame) { m_frames.push_back(frame); }
    void push(const Samples& samples) { m_frames.push_back(frameOf(samples)); }

private:
    std::deque<Frame> m_frames;
};

// A source node that produces the same contents every cycle, in a fresh buffer each time.
inline boost::shared_ptr<ombrel::SonraDevNode> constantSource(const Samples& samples, unsigned frameDuration,
                                                              unsigned sampleRate, unsigned channels = 1)
{
    auto node = boost::make_shared<ombrel::SonraDevNode>([samples]() { return frameOf(samples); }, ioService(),
                                                         frameDuration, sampleRate);
    node->setOutputChannels(channels);
    return node;
}

// One node fed by a queue in its own pipe (at the node's frame duration);
// each step is one graph frame, and a step without a frame is a gap.
template <class Node>
struct NodeGraph {
    explicit NodeGraph(boost::shared_ptr<Node> n, unsigned inputChannels = 1, unsigned sourceRate = 0)
        : pipe(boost::make_shared<ombrel::SonraPipe>(n->frameDuration())), node(n)
    {
        pipe->connect(queue.node(n->frameDuration(), sourceRate ? sourceRate : n->sampleRate(), inputChannels), n);
    }
    NodeGraph(unsigned frameDuration, unsigned sampleRate)
        : NodeGraph(boost::make_shared<Node>(ioService(), frameDuration, sampleRate)) {}
    NodeGraph(const NodeGraph&) = delete; // the source node points into this queue
    ~NodeGraph() { pipe->clear(); }
    Frame step(const Frame& in = Frame())
    {
        if (in)
            queue.push(in);
        pipe->processFrame();
        return node->outputData();
    }
    Samples run(const Samples& in) { return samplesOf(step(frameOf(in))); }
    // Feeds `signal` in frames of the given lengths, cycling through them.
    Samples runInPieces(const Samples& signal, const std::vector<std::size_t>& lengths)
    {
        Samples out;
        for (std::size_t first = 0, piece = 0, count; first < signal.size(); first += count, ++piece) {
            count = std::min(lengths[piece % lengths.size()], signal.size() - first);
            out = concat(out, run(slice(signal, first, count)));
        }
        return out;
    }

    QueueSource queue;
    boost::shared_ptr<ombrel::SonraPipe> pipe;
    boost::shared_ptr<Node> node;
};

inline Samples sine(double frequency, unsigned sampleRate, std::size_t count, double amplitude = 10000.0)
{
    Samples samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * frequency * i / sampleRate)));
    return samples;
}

inline Samples noise(std::size_t count, unsigned seed, int amplitude = 20000)
{
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> distribution(-amplitude, amplitude);
    Samples samples(count);
    std::generate(samples.begin(), samples.end(), [&] { return static_cast<int16_t>(distribution(generator)); });
    return samples;
}

using sonratool::speechLike; // the one speech-like signal, the tools' and the benchmarks' too

// Amplitude of one frequency in the signal (Goertzel).
inline double toneAmplitude(const Samples& samples, double frequency, unsigned sampleRate)
{
    const double coefficient = 2 * std::cos(2 * M_PI * frequency / sampleRate);
    double s1 = 0, s2 = 0;
    for (int16_t sample : samples) {
        const double s0 = sample + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return 2 * std::sqrt(std::max(s1 * s1 + s2 * s2 - coefficient * s1 * s2, 0.0)) / samples.size();
}

inline double rms(const Samples& samples)
{
    double sum = 0;
    for (int16_t sample : samples)
        sum += double(sample) * sample;
    return samples.empty() ? 0.0 : std::sqrt(sum / samples.size());
}

struct Alignment {
    int delay = 0;             // samples the output lags the reference
    double correlation = -2.0; // of output[i + delay] with reference[i], -1..1 once measured
};

// The delay in firstDelay..lastDelay where output best matches reference[skip..].
inline Alignment bestAlignment(const Samples& reference, const Samples& output, std::size_t skip, int firstDelay,
                               int lastDelay)
{
    Alignment best;
    for (int delay = firstDelay; delay <= lastDelay; ++delay) {
        double cross = 0, referencePower = 0, outputPower = 0;
        for (std::size_t i = skip; i + delay < output.size() && i < reference.size(); ++i) {
            const double r = reference[i], o = output[i + delay];
            cross += r * o, referencePower += r * r, outputPower += o * o;
        }
        const double correlation = cross / std::sqrt(referencePower * outputPower);
        if (referencePower > 0 && outputPower > 0 && correlation > best.correlation)
            best = {delay, correlation};
    }
    return best;
}

// What a shell command writes to its standard output, and its exit code
// (-1 when it could not run or did not exit).
struct Command {
    std::string output;
    int exitCode = -1;
    template <typename T>
    std::vector<T> values() const
    {
        std::vector<T> values(output.size() / sizeof(T));
        if (!values.empty())
            std::memcpy(values.data(), output.data(), values.size() * sizeof(T));
        return values;
    }
};

inline Command shell(const std::string& command)
{
    Command result;
    FILE* pipe = ::popen(command.c_str(), "r");
    char buffer[4096];
    for (std::size_t n; pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        result.output.append(buffer, n);
    const int status = pipe ? ::pclose(pipe) : -1;
    result.exitCode = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// A file name in the test's temporary folder, unique to this process.
inline std::string tempPath(const std::string& name)
{
    return ::testing::TempDir() + "sonra_" + std::to_string(::getpid()) + "_" + name;
}

// Raw 16-bit native samples through sox: `in` at `rate` with `inChannels`,
// out with `outChannels` after `effects` (or a format and effects).
inline Samples sox(const Samples& in, unsigned rate, unsigned inChannels, const std::string& outputAndEffects)
{
    const std::string path = tempPath("sox.raw");
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(in.data()), in.size() * 2);
    const std::string command = "sox -D -V1 -t raw -r " + std::to_string(rate) + " -e signed -b 16 -c " +
                                std::to_string(inChannels) + " " + path + " -t raw -e signed -b 16 " + outputAndEffects;
    const Command sox = shell(command);
    EXPECT_EQ(0, sox.exitCode) << command;
    std::remove(path.c_str());
    return sox.values<int16_t>();
}

// Collects the records of one category (its debug records enabled) while alive.
struct LogCapture {
    explicit LogCapture(const std::string& category) : m_category(category)
    {
        ombrel::setLogSink([this](const ombrel::LogRecord& record) {
            if (record.category == m_category)
                records.push_back(record);
        });
        ombrel::setDebugEnabled(category, true);
    }
    ~LogCapture() { ombrel::setDebugEnabled(m_category, false), ombrel::setLogSink(ombrel::LogSink()); }
    std::vector<std::string> texts(ombrel::LogSeverity severity = ombrel::LogSeverity::Debug) const
    {
        std::vector<std::string> texts;
        for (const ombrel::LogRecord& record : records)
            if (record.severity == severity)
                texts.push_back(record.text);
        return texts;
    }
    long count(const std::string& part) const
    {
        return std::count_if(records.begin(), records.end(),
                             [&](const ombrel::LogRecord& r) { return r.text.find(part) != std::string::npos; });
    }
    std::vector<ombrel::LogRecord> records;

private:
    std::string m_category;
};

// The message of a failed SONRA_ASSERT in one of the library's sources.
inline std::string assertion(const std::string& expression, const std::string& function, const std::string& source)
{
    const std::string text = "Assertion \"" + expression + "\" failed in function \"" + function + "\" of \"" +
                             "multimedia/audio2/audio2components/src/" + source;
    std::string pattern; // the text as a regular expression
    for (char c : text)
        pattern += (std::string(".^$|()[]{}*+?\\").find(c) != std::string::npos ? "\\" : "") + std::string(1, c);
    return pattern;
}

} // namespace sonratest

#endif
