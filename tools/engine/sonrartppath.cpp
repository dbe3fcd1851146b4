#include "sonrartppath.h"

#include <cinttypes>

namespace sonrartp {

unsigned rateOf(Codec codec)
{
    return codec == SonraRtpReceiverNode::CODEC_OPUS ? 48000 : SonraG711EncNode::G711_RATE;
}

Codec codecOf(unsigned payloadType, const PayloadTypeMap& map)
{
    Codec codec = payloadType == 0    ? SonraRtpReceiverNode::CODEC_PCMU
                  : payloadType == 8  ? SonraRtpReceiverNode::CODEC_PCMA
                  : payloadType == 13 ? SonraRtpReceiverNode::CODEC_COMFORT_NOISE
                                      : SonraRtpReceiverNode::CODEC_NONE;
    for (const auto& mapping : map)
        if (mapping.first == payloadType)
            codec = mapping.second;
    return codec;
}

bool isAudio(Codec codec)
{
    return codec == SonraRtpReceiverNode::CODEC_PCMA || codec == SonraRtpReceiverNode::CODEC_PCMU ||
           codec == SonraRtpReceiverNode::CODEC_OPUS;
}

std::string unmappedMessage(unsigned payloadType, const std::string& likelyCodec)
{
    const std::string pt = std::to_string(payloadType);
    return "payload type " + pt + " is not mapped: --payload-type " + pt + "=" + likelyCodec;
}

void Playout::frame(const Frame& pcm, bool pause)
{
    m_lastWasPause = pause;
    if (!pcm) {
        if (m_started)
            m_pendingSilence += m_frameSamples;
        return;
    }
    m_started = true;
    m_samples.insert(m_samples.end(), m_pendingSilence, 0);
    m_pendingSilence = 0;
    const int16_t* first = reinterpret_cast<const int16_t*>(pcm->data());
    m_samples.insert(m_samples.end(), first, first + pcm->size() / 2);
    if (!pause)
        m_audibleEnd = m_samples.size();
}

std::vector<int16_t> Playout::samples() const
{
    return std::vector<int16_t>(m_samples.begin(), m_samples.begin() + long(m_audibleEnd));
}

ReceivePath::ReceivePath(boost::shared_ptr<boost::asio::io_service> io, unsigned rate, const PayloadTypeMap& map)
    : rate(rate), receiver(boost::make_shared<SonraRtpReceiverNode>(io, FRAME_DURATION, rate)),
      pipe(boost::make_shared<SonraPipe>(FRAME_DURATION)), playout(rate * FRAME_DURATION / 1000)
{
    receiver->setDecodedOutput(true);
    receiver->setSourceLock(true);
    for (const auto& mapping : map)
        receiver->mapPayloadType(mapping.first, mapping.second);
    pipe->addNode(receiver);
}

void ReceivePath::datagram(const char* data, std::size_t size)
{
    receiver->dataReceived(boost::make_shared<std::vector<char> >(data, data + size));
}

void ReceivePath::frame()
{
    const uint64_t pausedBefore = receiver->statistics().pausedMs; // ms
    pipe->processFrame();
    playout.frame(receiver->outputData(), receiver->statistics().pausedMs - pausedBefore >= FRAME_DURATION);
}

void ReceivePath::report(std::FILE* out, std::size_t otherAddress) const
{
    const SonraRtpReceiverNode::Statistics s = receiver->statistics();
    std::fprintf(out, "played     %" PRIu64 " packets: %.2f s written at %u Hz\n", s.packetsPlayed,
                 double(playout.samples().size()) / rate, rate);
    std::fprintf(out, "concealed  %" PRIu64 " ms (lost packets, later ones already there)\n", s.concealedMs);
    std::fprintf(out, "paused     %" PRIu64 " ms (nothing to play: the stream paused, or lost more than the delay)\n",
                 s.pausedMs);
    std::fprintf(out, "late       %" PRIu64 " packets (came after their time, dropped)\n", s.packetsLate);
    std::fprintf(out, "lost       %" PRIu64 " packets (never came)\n", s.packetsLost);
    std::fprintf(out, "inserted   %" PRIu64 " ms (the jitter buffer growing its delay)\n", s.insertedMs);
    std::fprintf(out, "refused    %" PRIu64 " malformed, %" PRIu64 " of an unmapped payload type, %" PRIu64
                 " of another SSRC, %zu from another address\n",
                 s.refusedMalformed, s.refusedUnmapped, s.refusedOtherSource, otherAddress);
    std::fprintf(out, "events     %" PRIu64 " packets, digits \"%s\"\n", s.eventPackets, receiver->digits().c_str());
    std::fprintf(out, "comfort noise %" PRIu64 " ms\n", s.comfortNoiseMs);
}

std::string ReceivePath::unmappedOnly() const
{
    const SonraRtpReceiverNode::Statistics s = receiver->statistics();
    if (s.packetsPlayed > 0 || s.refusedUnmapped == 0 || s.lastUnmappedPayloadType < 0)
        return std::string();
    return unmappedMessage(unsigned(s.lastUnmappedPayloadType), "opus");
}

} // namespace sonrartp
