#include "sonranetsim.h"

#include "sonradevnode.h"
#include "sonramixernode.h"
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
#include "sonrapacket.h"
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
    boost::shared_ptr<SonraDevNode> source;
    boost::shared_ptr<SonraSenderNode> sender;
    boost::shared_ptr<SonraReceiverNode> receiver;
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

void connectCodec(const Config& config, Path& path)
{
    const unsigned frameDuration = config.frameDuration, rate = config.sampleRate;
    if (config.codec == Codec::Opus) {
        auto encoder = boost::make_shared<SonraOpusEncNode>(path.io, frameDuration, rate);
        auto decoder = boost::make_shared<SonraOpusDecNode>(path.io, frameDuration, rate);
        decoder->setConcealment(config.concealment);
        if (config.fecLoss > 0) {
            encoder->setInbandFec(config.fecLoss);
            decoder->setFecRecovery(true);
        }
        path.pipe->connect(path.source, encoder);
        path.pipe->connect(encoder, path.sender);
        path.pipe->connect(path.receiver, decoder);
        path.pipe->connect(decoder, path.mixer);
    } else {
        path.pipe->connect(path.source, path.sender);
        path.pipe->connect(path.receiver, path.mixer);
    }
}

// `input` is read by the source, frame by frame, while the path runs.
Path buildPath(const std::vector<int16_t>& input, const Config& config, std::size_t frameSamples)
{
    const unsigned frameDuration = config.frameDuration, rate = config.sampleRate;
    const std::size_t inputFrames = (input.size() + frameSamples - 1) / frameSamples;
    Path path;
    auto nextInputFrame = boost::make_shared<std::size_t>(0);
    path.source = boost::make_shared<SonraDevNode>(
        [&input, frameSamples, inputFrames, nextInputFrame]() -> Frame {
            if (*nextInputFrame >= inputFrames)
                return Frame();
            return inputFrame(input, (*nextInputFrame)++, frameSamples);
        },
        path.io, frameDuration, rate);
    path.sender = boost::make_shared<SonraSenderNode>(path.io, frameDuration, rate);
    path.receiver = boost::make_shared<SonraReceiverNode>(path.io, frameDuration, rate);
    path.mixer = boost::make_shared<SonraMixerNode>(path.io, frameDuration, rate);
    if (config.setDelays)
        path.receiver->setDelays(config.delays[0], config.delays[1], config.delays[2], config.delays[3]);
    path.receiver->setRecovery(config.recovery);
    if (config.histogramPlayout)
        path.receiver->setPlayoutPolicy(SonraJbuf::PLAYOUT_HISTOGRAM);
    else if (config.adaptivePlayout)
        path.receiver->setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
    path.pipe = boost::make_shared<SonraPipe>(frameDuration);
    connectCodec(config, path);
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

FrameRecord startFrame(Link& link, SonraReceiverNode& receiver, unsigned now, uint64_t& playedBefore)
{
    FrameRecord record;
    record.time = now;
    record.datagrams = link.deliverDue(now, receiver);
    playedBefore = receiver.statistics().framesPlayed;
    return record;
}

void finishFrame(Link& link, const SonraReceiverNode& receiver, uint64_t playedBefore, FrameRecord& record)
{
    const SonraJbufStatistics stats = receiver.statistics();
    record.played = stats.framesPlayed != playedBefore;
    if (record.played) {
        record.seqNum = stats.lastSeqNum;
        record.timeStamp = stats.lastTimeStamp;
        record.residence = stats.lastResidenceTime;
        link.markPlayed(stats.lastSeqNum, record.time);
    }
    record.queued = stats.queuedFrames;
}

Network networkOf(const Config& config)
{
    return config.useScenario ? Network(config.scenario) : Network(config.network);
}

void Link::send(const Frame& packet)
{
    const SonraPacket view(packet);
    PacketRecord record;
    record.seqNum = view.m_header->seqNum;
    record.sendTime = view.m_header->timeStamp;
    record.arrivalTimes = m_network.arrivals(record.seqNum, record.sendTime);
    record.lost = record.arrivalTimes.empty();
    // Each copy is its own datagram, as it would come off a socket.
    for (double arrival : record.arrivalTimes)
        m_inFlight.insert(std::make_pair(arrival, boost::make_shared<std::vector<char> >(*packet)));
    m_packets.push_back(record);
}

unsigned Link::deliverDue(unsigned now, SonraReceiverNode& receiver)
{
    unsigned delivered = 0;
    while (!m_inFlight.empty() && m_inFlight.begin()->first <= now) {
        receiver.dataReceived(m_inFlight.begin()->second);
        m_inFlight.erase(m_inFlight.begin());
        ++delivered;
    }
    return delivered;
}

void Link::markPlayed(unsigned seqNum, unsigned now)
{
    if (seqNum < 1 || seqNum > m_packets.size())
        return;
    PacketRecord& packet = m_packets[seqNum - 1];
    packet.played = true;
    packet.playTime = now;
}

unsigned drainFrames(const Config& config)
{
    const unsigned deepest = config.setDelays ? config.delays[2] + config.delays[3] : 360; // ms
    return deepest / config.frameDuration + 2;
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
