#include "sonranetsim.h"

#include "sonradevnode.h"
#include "sonramixernode.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>

namespace sonranetsim {

using namespace ombrel;

namespace {

// The nodes of one path on one pipe.
struct Path {
    boost::shared_ptr<boost::asio::io_service> io = boost::make_shared<boost::asio::io_service>();
    boost::shared_ptr<SonraReceiverNode> receiver;
    boost::shared_ptr<SonraSenderNode> sender;
    boost::shared_ptr<SonraMixerNode> mixer;
    boost::shared_ptr<SonraPipe> pipe;
};

// Graph frame `index` of `input`, zero-padded at the end.
Frame inputFrame(const std::vector<int16_t>& input, std::size_t index, std::size_t frameSamples)
{
    auto frame = boost::make_shared<std::vector<char> >(frameSamples * 2, 0);
    const std::size_t first = index * frameSamples;
    const std::size_t count = std::min(frameSamples, input.size() - first);
    std::memcpy(frame->data(), input.data() + first, count * 2);
    return frame;
}

// `input` is read by the source, frame by frame, while the path runs.
Path buildPath(const std::vector<int16_t>& input, const Config& config, std::size_t frameSamples)
{
    const std::size_t inputFrames = (input.size() + frameSamples - 1) / frameSamples;
    Path path;
    auto nextInputFrame = boost::make_shared<std::size_t>(0);
    auto source = boost::make_shared<SonraDevNode>(
        [&input, frameSamples, inputFrames, nextInputFrame]() -> Frame {
            if (*nextInputFrame >= inputFrames)
                return Frame();
            return inputFrame(input, (*nextInputFrame)++, frameSamples);
        },
        path.io, config.frameDuration, config.sampleRate);
    path.pipe = boost::make_shared<SonraPipe>(config.frameDuration);
    const ClientPathBuilder build(config, path.io, *path.pipe);
    path.sender = build.sendHalf(source);
    const ClientPathBuilder::ReceiveHalf received = build.receiveHalf();
    path.receiver = received.receiver;
    path.mixer = boost::make_shared<SonraMixerNode>(path.io, config.frameDuration, config.sampleRate);
    path.pipe->connect(received.output, path.mixer);
    return path;
}

// Runs the graph frame starting at `now` (ms) and records what the jitter
// buffer played.
FrameRecord runFrame(Path& path, Link& link, unsigned now)
{
    uint64_t playedBefore = 0;
    FrameRecord record = startFrame(link, *path.receiver, now, playedBefore);
    path.pipe->processFrame();
    finishFrame(link, *path.receiver, playedBefore, record);
    return record;
}

// The mixer's output of the last graph frame, silence when it has none.
void appendOutput(SonraMixerNode& mixer, std::size_t frameSamples, std::vector<int16_t>& output)
{
    const Frame out = mixer.outputData();
    std::vector<int16_t> samples(frameSamples, 0);
    if (out)
        std::memcpy(samples.data(), out->data(), std::min(out->size(), frameSamples * 2));
    output.insert(output.end(), samples.begin(), samples.end());
}

} // namespace

Network networkOf(const Config& config)
{
    return config.useScenario ? Network(config.scenario) : Network(config.network);
}

unsigned drainFrames(const PathSettings& settings)
{
    return settings.jitterBuffer.deepestMs() / settings.frameDuration + 2;
}

Result simulate(const std::vector<int16_t>& input, const Config& config)
{
    const std::size_t frameSamples = SonraNode::frameSize(config.frameDuration, config.sampleRate) / 2;
    const std::size_t inputFrames = (input.size() + frameSamples - 1) / frameSamples;
    Path path = buildPath(input, config, frameSamples);
    Link link(networkOf(config));
    path.sender->setSendHandler([&link](Frame packet) { link.send(packet); });

    Result result;
    // A decoder that waits for each packet's successor plays it a frame late.
    result.outputLag = config.codec == Codec::Opus && config.fecLoss > 0 ? 1 : 0;
    const unsigned drain = drainFrames(config);
    unsigned quietFrames = 0;
    for (unsigned frame = 0; frame < inputFrames || link.inFlight() || quietFrames < drain; ++frame) {
        result.frames.push_back(runFrame(path, link, path.pipe->elapsedTime()));
        appendOutput(*path.mixer, frameSamples, result.output);
        quietFrames = frame >= inputFrames && !link.inFlight() ? quietFrames + 1 : 0;
    }
    result.summary.jbuf = path.receiver->statistics();
    // The receiver holds the pipe as its clock: detach before letting go.
    path.pipe->clear();

    result.packets = std::move(link.packets());
    summarise(input, config.sampleRate, frameSamples, result);
    return result;
}

} // namespace sonranetsim
