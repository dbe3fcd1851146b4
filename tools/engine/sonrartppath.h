// What sonra-rtp's send, receive and replay share: the rates and packet
// durations of the codecs, and the receive path (the receiver decoding
// what it plays, locked onto one source) with what it played and counted.
#ifndef SONRA_RTPPATH_H
#define SONRA_RTPPATH_H

#include "sonrartptool.h"

#include "sonrag711encnode.h"
#include "sonrartpreceivernode.h"

#include <boost/make_shared.hpp>

#include <cstdio>
#include <vector>

namespace sonrartp {

using namespace ombrel;

const unsigned FRAME_DURATION = 20; // ms, the receiving graph's frame
// Frame periods from the first packet's arrival to the first graph frame:
// the slack for arrivals that wander against the graph's own clock, which
// SpeexDSP's buffer would otherwise buy by missing a frame first.
const double PLAYOUT_PHASE = 3;

typedef boost::shared_ptr<std::vector<char> > Frame;

// The graph's rate for a codec, Hz: G.711's own, Opus at its full band.
unsigned rateOf(Codec codec);
// What a payload type carries: the static ones (0, 8, 13), then `map`.
Codec codecOf(unsigned payloadType, const PayloadTypeMap& map);
bool isAudio(Codec codec);
// "payload type 107 is not mapped: --payload-type 107=opus".
std::string unmappedMessage(unsigned payloadType, const std::string& likelyCodec);

// What the receiver put out, from its first frame on: frames it did not
// deliver (while it resynchronised) become silence once a later frame
// shows the stream went on, and frames of pause at the end are left out.
class Playout {
public:
    explicit Playout(unsigned frameSamples) : m_frameSamples(frameSamples) {}
    void frame(const Frame& pcm, bool pause);
    // Up to the end of the last frame that was not all pause.
    std::vector<int16_t> samples() const;
    bool lastWasPause() const { return m_lastWasPause; }
    bool started() const { return m_started; }

private:
    unsigned m_frameSamples;
    bool m_started = false, m_lastWasPause = false;
    std::size_t m_pendingSilence = 0, m_audibleEnd = 0; // samples
    std::vector<int16_t> m_samples;
};

// The receiver with decoded output and the source lock, alone in a graph
// at `rate` Hz that the caller drives one frame at a time.
struct ReceivePath {
    ReceivePath(boost::shared_ptr<boost::asio::io_service> io, unsigned rate, const PayloadTypeMap& map);
    ~ReceivePath() { pipe->clear(); }

    void datagram(const char* data, std::size_t size);
    void frame();
    SonraRtpReceiverNode::Statistics statistics() const { return receiver->statistics(); }
    // The counts, one per line; `otherAddress`: datagrams the tool refused
    // from another source address.
    void report(std::FILE* out, std::size_t otherAddress) const;
    // The refusal of an unmapped payload type when nothing else was played,
    // else empty.
    std::string unmappedOnly() const;

    unsigned rate; // Hz
    boost::shared_ptr<SonraRtpReceiverNode> receiver;
    boost::shared_ptr<SonraPipe> pipe;
    Playout playout;
};

} // namespace sonrartp

#endif
