// The engine of sonra-netsim: plays PCM through the whole own-format path
// in one process (source, Opus encoder, sender, a simulated network,
// receiver, Opus decoder, mixer) on one pipe driven frame by frame, and
// records what happened to every packet and every graph frame. For a given
// seed, input and configuration every run is identical.
//
// Time: the pipe's elapsed time, ms. A packet is sent during the graph
// frame that starts at its timestamp; a datagram is handed to the receiver
// just before the first graph frame that starts at or after its arrival
// time (so the receiver's clock stamps it with that frame's start).
#ifndef SONRA_NETSIM_H
#define SONRA_NETSIM_H

#include "sonranetsimmodel.h"
#include "sonranetsimreport.h"
#include "sonranetsimscenario.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <map>
#include <vector>

namespace ombrel {
class SonraReceiverNode;
}

namespace sonranetsim {

typedef boost::shared_ptr<std::vector<char> > Frame;

enum class Codec { Opus, Pcm };

struct Config {
    unsigned sampleRate = 16000;  // Hz
    unsigned frameDuration = 20;  // ms, of graph frames and packets alike
    Codec codec = Codec::Opus;
    bool setDelays = false;       // leave the receiver's defaults unless set
    unsigned delays[4] = {60, 60, 60, 300}; // initial, min, max, extra jitter delay, ms
    bool recovery = true;         // SonraJbuf::setRecovery: a stray datagram never silences the receiver
    bool adaptivePlayout = false; // SonraJbuf::PLAYOUT_ADAPTIVE rather than the fixed initial delay
    bool histogramPlayout = false; // SonraJbuf::PLAYOUT_HISTOGRAM (before adaptivePlayout)
    unsigned concealment = 0;     // ms of a gap the Opus decoder conceals; 0: none
    unsigned fecLoss = 0;         // %, the loss the Opus encoder's in-band FEC is set for; 0: no FEC
    NetworkModel network;
    bool useScenario = false;
    std::vector<ScenarioLine> scenario;
};

// The network of `config`: its scenario when it has one, else its model.
Network networkOf(const Config& config);

// One leg from a sender's handler to a receiver: asks the network when each
// packet's copies arrive, holds them in flight and hands them over when due,
// and keeps a record of every packet.
class Link {
public:
    explicit Link(const Network& network) : m_network(network) {}

    // For the sender's handler.
    void send(const Frame& packet);
    // Hands the receiver every datagram due at `now` (ms); returns how many.
    unsigned deliverDue(unsigned now, ombrel::SonraReceiverNode& receiver);
    bool inFlight() const { return !m_inFlight.empty(); }
    void markPlayed(unsigned seqNum, unsigned now);
    // By sequence number, [0] is number 1.
    std::vector<PacketRecord>& packets() { return m_packets; }

private:
    Network m_network;
    // Datagrams by arrival time; equal times keep the order of sending.
    std::multimap<double, Frame> m_inFlight;
    std::vector<PacketRecord> m_packets;
};

// One receiver's side of a graph frame starting at `now` (ms), for paths
// built elsewhere: startFrame hands over the datagrams due and notes how
// much the receiver had played; after the pipe ran the frame, finishFrame
// records what it played and marks the packet played on the link.
FrameRecord startFrame(Link& link, ombrel::SonraReceiverNode& receiver, unsigned now, uint64_t& playedBefore);
void finishFrame(Link& link, const ombrel::SonraReceiverNode& receiver, uint64_t playedBefore, FrameRecord& record);

// Graph frames to run past the input (and an empty network) so that the
// jitter buffer plays out what it can hold.
unsigned drainFrames(const Config& config);

// Runs `input` (mono PCM at config.sampleRate) through the path.
Result simulate(const std::vector<int16_t>& input, const Config& config);

} // namespace sonranetsim

#endif
