// A one-node graph driven frame by frame, and sample helpers.
#ifndef SONRA_SIGNALUTIL_H
#define SONRA_SIGNALUTIL_H

#include "testutil.h"

#include <cstdio>
#include <string>

namespace sonratest {

inline std::vector<int16_t> slice(const std::vector<int16_t>& s, std::size_t first, std::size_t count)
{
    return std::vector<int16_t>(s.begin() + first, s.begin() + first + count);
}

template <class Node>
struct NodeGraph {
    NodeGraph(boost::shared_ptr<Node> n, unsigned rate, unsigned channels = 1)
        : pipe(boost::make_shared<ombrel::SonraPipe>(20)), node(n)
    {
        node->setOutputChannels(channels);
        pipe->connect(queue.node(20, rate, channels), node);
    }
    ~NodeGraph() { pipe->clear(); }

    Frame run(const Frame& in = Frame())
    {
        queue.push(in);
        pipe->processFrame();
        return node->outputData();
    }

    std::vector<int16_t> runAll(const std::vector<int16_t>& samples, std::size_t step)
    {
        std::vector<int16_t> out;
        for (std::size_t first = 0; first + step <= samples.size(); first += step) {
            const std::vector<int16_t> got = samplesOf(run(frameOf(slice(samples, first, step))));
            out.insert(out.end(), got.begin(), got.end());
        }
        return out;
    }

    QueueSource queue;
    boost::shared_ptr<ombrel::SonraPipe> pipe;
    boost::shared_ptr<Node> node;
};

// The 16-bit samples a shell command writes; empty when it fails.
inline std::vector<int16_t> readPipe(const std::string& command)
{
    std::vector<int16_t> samples;
    FILE* pipe = popen(command.c_str(), "r");
    int16_t buffer[4096];
    for (std::size_t got; pipe && (got = std::fread(buffer, 2, 4096, pipe)) > 0;)
        samples.insert(samples.end(), buffer, buffer + got);
    return pipe && pclose(pipe) == 0 ? samples : std::vector<int16_t>();
}

inline std::vector<int16_t> interleave(const std::vector<int16_t>& left, const std::vector<int16_t>& right)
{
    std::vector<int16_t> both;
    for (std::size_t i = 0; i < left.size(); ++i)
        both.insert(both.end(), {left[i], right[i]});
    return both;
}

} // namespace sonratest

#endif
