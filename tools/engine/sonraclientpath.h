// The voice path of a client in the own packet format, built once for
// every tool: the send half (encoder, sender) after a source, and the
// receive half (receiver with its jitter buffer, decoder) before a mixer,
// with the network (a Link) between a sender's handler and a receiver.
#ifndef SONRA_CLIENTPATH_H
#define SONRA_CLIENTPATH_H

#include <boost/asio/io_service.hpp>
#include <boost/shared_ptr.hpp>

#include "sonrajbuf.h"

namespace ombrel {
class SonraNode;
class SonraPipe;
class SonraReceiverNode;
class SonraSenderNode;
} // namespace ombrel

namespace sonranetsim {

// The receiver's own delays, ms: initial, minimum, maximum, extra jitter.
const unsigned RECEIVER_DEFAULT_DELAYS_MS[4] = {60, 60, 60, 300};

struct JitterBufferSettings {
    bool setDelays = false; // leave the receiver's defaults unless set
    unsigned delays[4] = {RECEIVER_DEFAULT_DELAYS_MS[0], RECEIVER_DEFAULT_DELAYS_MS[1], RECEIVER_DEFAULT_DELAYS_MS[2],
                          RECEIVER_DEFAULT_DELAYS_MS[3]}; // initial, min, max, extra jitter delay, ms
    bool recovery = true;   // SonraJbuf::setRecovery: a stray datagram never silences the receiver
    ombrel::SonraJbuf::PlayoutPolicy policy = ombrel::SonraJbuf::PLAYOUT_INITIAL_DELAY;
    bool timeStretching = false; // SonraJbuf::setTimeStretching, for Opus: moves stretch speech

    // The deepest the jitter buffer can hold, ms.
    unsigned deepestMs() const { return delays[2] + delays[3]; }
};

enum class Codec { Opus, Pcm };

struct PathSettings {
    unsigned sampleRate = 16000; // Hz
    unsigned frameDuration = 20; // ms, of graph frames and packets alike
    Codec codec = Codec::Opus;
    unsigned concealment = 0;    // ms of a gap the Opus decoder conceals; 0: none
    unsigned fecLoss = 0;        // %, the loss the Opus encoder's in-band FEC is set for; 0: no FEC
    JitterBufferSettings jitterBuffer;
};

struct ClientPathBuilder {
    ClientPathBuilder(const PathSettings& settings, const boost::shared_ptr<boost::asio::io_service>& io,
                      ombrel::SonraPipe& pipe)
        : settings(settings), io(io), pipe(pipe)
    {
    }

    // Encoder and sender after `source`; returns the sender, whose handler
    // the caller sets.
    boost::shared_ptr<ombrel::SonraSenderNode> sendHalf(const boost::shared_ptr<ombrel::SonraNode>& source) const;

    struct ReceiveHalf {
        boost::shared_ptr<ombrel::SonraReceiverNode> receiver;
        boost::shared_ptr<ombrel::SonraNode> output; // the decoder, or the receiver itself for PCM
    };
    // Receiver and decoder; the caller connects `output` to its mixer.
    ReceiveHalf receiveHalf() const;

    const PathSettings& settings;
    boost::shared_ptr<boost::asio::io_service> io;
    ombrel::SonraPipe& pipe;
};

} // namespace sonranetsim

#endif
