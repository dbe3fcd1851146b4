#ifndef OMBREL_SONRARTPRECEIVERNODE_H
#define OMBREL_SONRARTPRECEIVERNODE_H

#include "sonrabase.h"

#include <cstdint>
#include <string>

namespace ombrel {

class SonraRtpPacket;
struct SonraRtpReceiverNode_p;

// Start of an incoming RTP path: stores the payload of every received
// datagram of the accepted payload type in SpeexDSP's jitter buffer, keyed
// by the RTP timestamp, and outputs one payload per graph frame once the
// buffer delivers. Each packet is taken to span one graph frame.
//
// Opt-ins for real peers, all off by default: decoded output (each packet
// with its real duration, the codecs peers speak, comfort noise and
// telephone events), and a lock onto one source. Statistics are kept in
// every mode.
//
// Not thread-safe: the caller serialises dataReceived with the graph.
class SonraRtpReceiverNode : public SonraNode {
public:
    // The largest payload, bytes, that one frame can deliver. A larger
    // payload is dropped whole on receipt: a cut codec frame is no frame.
    static const unsigned MAX_PAYLOAD_SIZE = 2048;

    // What a payload type carries once the output is decoded.
    enum Codec {
        CODEC_NONE,            // not mapped: refused
        CODEC_PCMA,            // G.711 A-law, 8000 Hz clock (static type 8)
        CODEC_PCMU,            // G.711 mu-law, 8000 Hz clock (static type 0)
        CODEC_OPUS,            // RFC 7587: 48000 Hz clock whatever the graph's rate
        CODEC_COMFORT_NOISE,   // RFC 3389 (static type 13), on the audio's clock
        CODEC_TELEPHONE_EVENT  // RFC 4733 events (digits), on the audio's clock
    };

    // Counts since construction, in every mode. A refused packet is counted
    // under the first reason that applies, in the order of the fields.
    struct Statistics {
        uint64_t refusedMalformed = 0;   // under 12 bytes; decoded output: not version 2, lengths that do
                                         // not fit, a payload that does not decode or exceeds MAX_PAYLOAD_SIZE
        uint64_t refusedUnmapped = 0;    // a payload type not accepted (see lastUnmappedPayloadType)
        uint64_t refusedOtherSource = 0; // another SSRC while the source lock holds
        uint64_t sourceChanges = 0;      // takeovers by a new SSRC under the source lock
        uint64_t eventPackets = 0;       // telephone-event packets (decoded output)
        uint64_t packetsLate = 0;        // decoded output: arrived after their audio was played; dropped
        uint64_t packetsReceived = 0;    // audio and comfort noise handed to the jitter buffer
        uint64_t packetsLost = 0;        // sequence numbers of the current source never received
        uint64_t packetsPlayed = 0;      // decoded output: audio and comfort noise packets played
        uint64_t framesOut = 0;          // graph frames with output
        uint64_t framesEmpty = 0;        // graph frames without (before the stream, or while it resynchronises)
        uint64_t concealedMs = 0;        // decoded output: audio made up for missing packets while
                                         // later ones were buffered (Opus FEC or concealment, G.711 silence)
        uint64_t pausedMs = 0;           // decoded output: the same while nothing was buffered (the
                                         // stream paused or ended, or a loss longer than the delay)
        uint64_t insertedMs = 0;         // decoded output: silence or concealment the jitter buffer
                                         // inserted to grow its delay
        uint64_t comfortNoiseMs = 0;     // decoded output: comfort noise played
        int lastUnmappedPayloadType = -1; // the last type refused as unmapped; -1: none yet
    };

    // Source lock: how long the locked source must be quiet, ms, and how
    // many packets numbered one after the other a new SSRC must send before
    // it takes over.
    static unsigned SOURCE_QUIET_TIME;       // ms
    static unsigned SOURCE_TAKEOVER_PACKETS; // packets
    // Longest stretch of Opus concealment, ms; a longer loss is silence.
    static unsigned MAX_CONCEALMENT;
    // Decoded output starts once this much (ms) or the longest packet so
    // far, whichever is longer, plus one graph frame of the stream has come.
    static unsigned MIN_START_DELAY;

    // `frameDuration` (ms) and `sampleRate` (Hz) of the graph.
    SonraRtpReceiverNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned int frameDuration,
                         unsigned int sampleRate);
    ~SonraRtpReceiverNode() override;

    // Only packets of this type (8 by default) are accepted from the next
    // datagram on; packets already buffered stay.
    void setPayloadType(unsigned int payloadType);
    // Off by default. SpeexDSP reports a missing packet with the span of its
    // step (five frames), so one lost packet stalls the play pointer until
    // the buffer resets twenty frames later and throws away what queued
    // meanwhile. On, a missing packet spans one frame and the stream goes
    // on with the next packet.
    void setLossConcealment(bool on);

    // Off by default; set it before the first datagram. On, the node
    // outputs PCM instead of payloads: every mapped packet is put into the
    // jitter buffer with its real duration (from the G.711 payload size or
    // the Opus packet's frames, counted on the codec's RTP clock), decoded
    // at the node's sample rate (G.711 needs 8000 Hz, Opus takes 8, 12, 16,
    // 24 or 48 kHz), and exactly one graph frame of mono PCM (frameSize()
    // bytes) comes out per graph frame once the stream has started (after
    // MIN_START_DELAY), whatever the packets' durations and however they
    // change: every packet that comes in time is played once, in order.
    // The jitter buffer's delay grows (an insertion) when a packet would
    // otherwise come too late, and never shrinks by skipping audio.
    // A lost packet is rebuilt from the next Opus packet's in-band FEC data
    // when that is there, else concealed by libopus (up to
    // MAX_CONCEALMENT, then silence), and is silence for G.711; a pause
    // with nothing buffered is filled the same way. Comfort noise plays as
    // white noise at the level it carries until audio comes back.
    // Telephone events are counted and kept as digits, never played. For
    // Opus the output lags by one more graph frame, so that the packet
    // after a loss is there for its FEC data. Frames are empty before the
    // start, and again from when the jitter buffer resynchronises (a packet
    // after twenty fruitless fetches, or a timestamp more than a second off
    // the play position) until the stream has started anew.
    // setPayloadType() has no effect in this mode: mapPayloadType() says
    // which types are taken.
    void setDecodedOutput(bool on);
    // Decoded output: what `payloadType` (0 to 127) carries. Types 0 (PCMU),
    // 8 (PCMA) and 13 (comfort noise) are mapped from the start; dynamic
    // types are the application's to map (for instance 107 to CODEC_OPUS,
    // 101 to CODEC_TELEPHONE_EVENT). CODEC_NONE unmaps.
    void mapPayloadType(unsigned int payloadType, Codec codec);
    // Off by default; works with either output. On, only one SSRC at a
    // time is taken: the first that sends two packets numbered one after
    // the other (both are played), until it has been quiet for
    // SOURCE_QUIET_TIME and another has sent SOURCE_TAKEOVER_PACKETS such
    // packets; the jitter buffer then restarts on the new source. Other
    // sources are refused (statistics().refusedOtherSource).
    void setSourceLock(bool on);

    // The counts so far.
    Statistics statistics() const;
    // The telephone events received, in order, one character each: 0-9, *,
    // #, A-D; other events (flash and tones) as '?'.
    std::string digits() const;

    // One received datagram. Short ones (under 12 bytes), other payload
    // types and payloads over MAX_PAYLOAD_SIZE are ignored. The buffer is
    // not kept: the caller may reuse it.
    void dataReceived(boost::shared_ptr<std::vector<char> > data);

    // Empties the jitter buffer; the argument is ignored.
    void reset(unsigned int offset) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    bool passesSourceLock(const SonraRtpPacket& packet);
    void acceptPacket(const SonraRtpPacket& packet, int codec);

    boost::scoped_ptr<SonraRtpReceiverNode_p> d;
};

} // namespace ombrel

#endif
