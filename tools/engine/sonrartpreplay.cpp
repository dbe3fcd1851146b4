#include "sonrartppath.h"
#include "sonrartpstreams.h"
#include "sonrartptool.h"

#include "sonrapcap.h"
#include "sonrasoundfile.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace sonrartp {

namespace {

// Frames are played PLAYOUT_PHASE frame periods after the first arrival
// and one period apart, each after every packet that arrived by then, as
// recv plays, pauses included, until the capture's end plus the delay
// the receiver played at: the first frame that is all pause after the last
// packet, or at most that delay, the jitter buffer's growth and the
// longest packet later (comfort noise at the end never pauses).
void play(const RtpStream& stream, ReceivePath& path)
{
    const std::vector<const sonratool::Datagram*>& packets = stream.datagrams;
    const double start = packets.front()->arrival, period = FRAME_DURATION / 1000.0; // s
    const double longest = stream.durations.empty() ? 0 : stream.durations.rbegin()->first / 1000.0; // s
    double lag = 0; // s from the first arrival to the first frame played
    std::size_t next = 0;
    for (double now = start + PLAYOUT_PHASE * period;; now += period) {
        for (; next < packets.size() && packets[next]->arrival <= now; ++next)
            path.datagram(reinterpret_cast<const char*>(packets[next]->payload.data()), packets[next]->payload.size());
        const bool started = path.playout.started();
        path.frame();
        if (!started && path.playout.started())
            lag = now - start;
        const double delay = lag + path.statistics().insertedMs / 1000.0 + longest + 2 * period; // s
        if (next == packets.size() && (path.playout.lastWasPause() || now > packets.back()->arrival + delay))
            return;
    }
}

void describeStream(const RtpStream& stream, const std::vector<RtpStream>& streams, const RtpOptions& options)
{
    std::printf("stream     SSRC 0x%08X from %s to %s: payload types %s; %zu packets, %zu lost, %.2f s\n",
                unsigned(stream.ssrc), describe(stream.from).c_str(), describe(stream.to).c_str(),
                payloadTypeList(stream, options.payloadTypes).c_str(), stream.datagrams.size(), stream.lost,
                stream.seconds());
    if (!options.hasSsrc)
        std::printf("           the longest audio stream of %zu (--ssrc picks another; sonra-rtp streams lists them)\n",
                    streams.size());
}

} // namespace

int replay(const RtpOptions& options)
{
    std::string ending;
    const std::vector<sonratool::Datagram> datagrams = sonratool::readUdpCapture(options.input, &ending);
    const std::vector<RtpStream> streams = findStreams(datagrams, options.payloadTypes);
    const RtpStream& stream = pickStream(streams, options);
    if (!ending.empty())
        std::fprintf(stderr, "sonra-rtp: warning: %s is cut short (%s): replayed up to its last whole packet\n",
                     options.input.c_str(), ending.c_str());
    const std::size_t cut = std::count_if(datagrams.begin(), datagrams.end(), [](const sonratool::Datagram& d) { return d.cut; });
    if (cut)
        std::fprintf(stderr, "sonra-rtp: warning: %zu datagrams were captured cut short and are left out\n", cut);
    describeStream(stream, streams, options);
    auto io = boost::make_shared<boost::asio::io_service>();
    ReceivePath path(io, rateOf(stream.codec(options.payloadTypes)), options.payloadTypes);
    play(stream, path);
    const std::vector<int16_t> samples = path.playout.samples();
    sonratool::writeWav(options.output, samples, path.rate);
    path.report(stdout, 0);
    for (const auto& type : stream.payloadTypes)
        if (codecOf(type.first, options.payloadTypes) == SonraRtpReceiverNode::CODEC_NONE)
            std::printf("not played %zu packets of payload type %u (not mapped: --payload-type %u=%s)\n", type.second,
                        type.first, type.first, likelyCodec(stream, type.first).c_str());
    if (path.statistics().packetsPlayed == 0)
        throw std::runtime_error("nothing of the stream could be played");
    return 0;
}

int listStreams(const RtpOptions& options)
{
    std::string ending;
    const std::vector<sonratool::Datagram> datagrams = sonratool::readUdpCapture(options.input, &ending);
    if (!ending.empty())
        std::fprintf(stderr, "sonra-rtp: warning: %s is cut short (%s)\n", options.input.c_str(), ending.c_str());
    const std::vector<RtpStream> streams = findStreams(datagrams, options.payloadTypes);
    if (streams.empty())
        throw std::runtime_error("no plausible RTP stream in " + options.input + " (" + std::to_string(datagrams.size()) +
                                 " UDP datagrams; RTP wants version 2, one SSRC and sequence numbers that advance)");
    for (const RtpStream& stream : streams)
        std::printf("SSRC 0x%08X  %s -> %s\n  payload types %s\n  %zu packets, %zu lost, %s per packet, %.2f s\n",
                    unsigned(stream.ssrc), describe(stream.from).c_str(), describe(stream.to).c_str(),
                    payloadTypeList(stream, options.payloadTypes).c_str(), stream.datagrams.size(), stream.lost,
                    durationList(stream).c_str(), stream.seconds());
    return 0;
}

} // namespace sonrartp
