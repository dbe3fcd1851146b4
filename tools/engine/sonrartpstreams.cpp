#include "sonrartpstreams.h"

#include "sonrartppath.h"

#include "sonrartppacket.h"

#include <opus.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <tuple>

namespace sonrartp {

using sonratool::Datagram;

namespace {

// Sequence numbers this far ahead of the one before still count as the
// stream advancing (a few lost packets); further is a jump.
const unsigned MAX_ADVANCE = 100;
// Fewer packets than this make no stream.
const std::size_t MIN_PACKETS = 3;

bool looksLikeRtp(const sonratool::Bytes& payload)
{
    // Version 2, and not RTCP (packet types 192 to 223 share the port when multiplexed).
    return payload.size() >= SonraRtpPacket::HEADER_SIZE && (payload[0] >> 6) == 2 &&
           !(payload[1] >= 192 && payload[1] <= 223);
}

uint32_t ssrcOf(const sonratool::Bytes& p)
{
    return uint32_t(p[8]) << 24 | uint32_t(p[9]) << 16 | uint32_t(p[10]) << 8 | p[11];
}

unsigned seqOf(const sonratool::Bytes& p) { return unsigned(p[2]) << 8 | p[3]; }
uint32_t timestampOf(const sonratool::Bytes& p)
{
    return uint32_t(p[4]) << 24 | uint32_t(p[5]) << 16 | uint32_t(p[6]) << 8 | p[7];
}

// A packet's audio, ms on its codec's clock; 0 when it cannot be told.
double durationOf(const Datagram& datagram, Codec codec)
{
    const SonraRtpPacket packet(boost::make_shared<std::vector<char> >(datagram.payload.begin(), datagram.payload.end()));
    if (!packet.isWellFormed())
        return 0;
    const unsigned char* payload = datagram.payload.data() + packet.payloadBegin();
    const std::size_t size = packet.payloadEnd() - packet.payloadBegin(); // bytes
    if (codec == SonraRtpReceiverNode::CODEC_PCMA || codec == SonraRtpReceiverNode::CODEC_PCMU)
        return size / 8.0;
    if (codec == SonraRtpReceiverNode::CODEC_OPUS || codec == SonraRtpReceiverNode::CODEC_NONE) {
        const int samples = size ? opus_packet_get_nb_samples(payload, opus_int32(size), 48000) : 0;
        return samples > 0 ? samples / 48.0 : 0;
    }
    return 0;
}

// Whether the RTP timestamps of a payload type step by the Opus frames its packets hold.
bool looksLikeOpus(const RtpStream& stream, unsigned payloadType)
{
    std::size_t agree = 0, pairs = 0;
    for (std::size_t i = 1; i < stream.datagrams.size() && pairs < 50; ++i) {
        const sonratool::Bytes &a = stream.datagrams[i - 1]->payload, &b = stream.datagrams[i]->payload;
        if (seqOf(b) != ((seqOf(a) + 1) & 0xffff) || a[1] != b[1] || (a[1] & 0x7f) != payloadType)
            continue;
        ++pairs;
        agree += uint32_t(timestampOf(b) - timestampOf(a)) ==
                 uint32_t(48 * durationOf(*stream.datagrams[i - 1], SonraRtpReceiverNode::CODEC_NONE));
    }
    return pairs > 0 && agree * 10 >= pairs * 9;
}

// Counts, main payload type and audio of a stream whose datagrams are in.
void summarise(RtpStream& stream, const PayloadTypeMap& map)
{
    std::set<int64_t> numbers;
    int64_t last = -1;
    std::size_t mainCount = 0;
    for (const Datagram* datagram : stream.datagrams) {
        const unsigned seq = seqOf(datagram->payload), type = datagram->payload[1] & 0x7f;
        int64_t extended = seq;
        if (last >= 0) {
            extended = last - (last & 0xffff) + seq;
            extended += extended < last - 32768 ? 65536 : (extended > last + 32768 ? -65536 : 0);
            stream.advancing += extended > last && extended <= last + MAX_ADVANCE;
        }
        numbers.insert(extended);
        last = extended;
        const std::size_t count = ++stream.payloadTypes[type];
        const Codec codec = codecOf(type, map);
        const bool aside = codec == SonraRtpReceiverNode::CODEC_COMFORT_NOISE ||
                           codec == SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT;
        if (!aside && count > mainCount)
            mainCount = count, stream.mainPayloadType = type;
        const double ms = isAudio(codec) ? durationOf(*datagram, codec) : 0;
        if (ms > 0)
            ++stream.durations[unsigned(ms + 0.5)], stream.audioSeconds += ms / 1000;
    }
    if (mainCount == 0) // comfort noise or events only
        stream.mainPayloadType = stream.payloadTypes.begin()->first;
    stream.lost = std::size_t(*numbers.rbegin() - *numbers.begin() + 1) - numbers.size();
}

} // namespace

std::string likelyCodec(const RtpStream& stream, unsigned payloadType)
{
    bool events = true; // RFC 4733: 4 bytes an event, codes up to 255
    for (const Datagram* datagram : stream.datagrams)
        if ((datagram->payload[1] & 0x7f) == payloadType)
            events = events && datagram->payload.size() == 16;
    return looksLikeOpus(stream, payloadType) ? "opus" : events ? "telephone-event" : "CODEC";
}

Codec RtpStream::codec(const PayloadTypeMap& map) const
{
    return codecOf(mainPayloadType, map);
}

std::vector<RtpStream> findStreams(const std::vector<Datagram>& datagrams, const PayloadTypeMap& map)
{
    std::map<std::tuple<uint32_t, boost::asio::ip::udp::endpoint, boost::asio::ip::udp::endpoint>, std::size_t> index;
    std::vector<RtpStream> all;
    for (const Datagram& datagram : datagrams) {
        if (!looksLikeRtp(datagram.payload) || datagram.cut)
            continue;
        const auto key = std::make_tuple(ssrcOf(datagram.payload), datagram.from, datagram.to);
        const auto found = index.emplace(key, all.size());
        if (found.second) {
            all.emplace_back();
            all.back().ssrc = std::get<0>(key), all.back().from = datagram.from, all.back().to = datagram.to;
        }
        all[found.first->second].datagrams.push_back(&datagram);
    }
    std::vector<RtpStream> plausible;
    for (RtpStream& stream : all) {
        if (stream.datagrams.size() < MIN_PACKETS)
            continue;
        summarise(stream, map);
        if (stream.advancing * 2 >= stream.datagrams.size())
            plausible.push_back(std::move(stream));
    }
    return plausible;
}

const RtpStream& pickStream(const std::vector<RtpStream>& streams, const RtpOptions& options)
{
    const RtpStream* best = nullptr;
    const RtpStream* unmapped = nullptr;
    for (const RtpStream& stream : streams) {
        if (options.hasSsrc && stream.ssrc != options.ssrc)
            continue;
        if (!isAudio(stream.codec(options.payloadTypes))) {
            if (!unmapped || stream.datagrams.size() > unmapped->datagrams.size())
                unmapped = &stream;
        } else if (!best || stream.audioSeconds > best->audioSeconds) {
            best = &stream;
        }
    }
    if (best)
        return *best;
    if (unmapped && codecOf(unmapped->mainPayloadType, options.payloadTypes) == SonraRtpReceiverNode::CODEC_NONE)
        throw std::runtime_error(unmappedMessage(unmapped->mainPayloadType, likelyCodec(*unmapped, unmapped->mainPayloadType)));
    char ssrc[16];
    std::snprintf(ssrc, sizeof ssrc, "0x%08X", unsigned(options.ssrc));
    throw std::runtime_error("no " + std::string(unmapped ? "audio " : "plausible ") + "RTP stream" +
                             (options.hasSsrc ? " with SSRC " + std::string(ssrc) : std::string()) + " in " +
                             options.input + (unmapped || options.hasSsrc ? "" : " (RTP wants version 2, one SSRC and "
                                                                                 "sequence numbers that advance)"));
}

std::string describe(const boost::asio::ip::udp::endpoint& endpoint)
{
    const std::string address = endpoint.address().to_string();
    return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" + std::to_string(endpoint.port());
}

std::string payloadTypeList(const RtpStream& stream, const PayloadTypeMap& map)
{
    std::string list;
    for (const auto& type : stream.payloadTypes) {
        const Codec codec = codecOf(type.first, map);
        list += (list.empty() ? "" : " ") + std::to_string(type.first) + " (" +
                (codec == SonraRtpReceiverNode::CODEC_NONE ? std::string("not mapped") : codecName(codec)) + ")";
    }
    return list;
}

std::string durationList(const RtpStream& stream)
{
    std::vector<std::pair<std::size_t, unsigned> > byCount; // packets, ms
    for (const auto& duration : stream.durations)
        byCount.emplace_back(duration.second, duration.first);
    std::sort(byCount.rbegin(), byCount.rend());
    std::string list;
    for (const auto& duration : byCount)
        list += (list.empty() ? "" : ", ") + std::to_string(duration.second) + " ms (" +
                std::to_string(duration.first) + ")";
    return list.empty() ? "?" : list;
}

} // namespace sonrartp
