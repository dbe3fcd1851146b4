// The in-flight network between a sender's handler and a receiver: asks
// the network when each packet's copies arrive, holds them and hands them
// over when due. The frame hooks note what the receiver played in each
// graph frame, for paths built anywhere.
//
// Time: the pipe's elapsed time, ms. A datagram is handed to the receiver
// just before the first graph frame that starts at or after its arrival
// time (so the receiver's clock stamps it with that frame's start).
#ifndef SONRA_LINK_H
#define SONRA_LINK_H

#include "sonranetsimmodel.h"
#include "sonranetsimreport.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace ombrel {
class SonraReceiverNode;
}

namespace sonranetsim {

typedef boost::shared_ptr<std::vector<char> > Frame;

class Link {
public:
    // Without records (a soak of hours) the link keeps only what is in flight.
    enum Records { KEEP_RECORDS, NO_RECORDS };
    explicit Link(const Network& network, Records records = KEEP_RECORDS) : m_network(network), m_records(records) {}

    // For the sender's handler: one packet in the own format.
    void send(const Frame& packet);
    // Any datagram (RTP), numbered from 1 and timed by the caller: send time, ms.
    void send(const Frame& datagram, unsigned seqNum, unsigned sendTime);
    // Hands the receiver every datagram due at `now` (ms); returns how many.
    unsigned deliverDue(unsigned now, ombrel::SonraReceiverNode& receiver);
    unsigned deliverDue(unsigned now, const std::function<void(const Frame&)>& deliver);
    bool inFlight() const { return !m_inFlight.empty(); }
    void markPlayed(unsigned seqNum, unsigned now);
    // By sequence number, [0] is number 1; empty without records.
    std::vector<PacketRecord>& packets() { return m_packets; }

private:
    Network m_network;
    Records m_records;
    // Datagrams by arrival time, ms; equal times keep the order of sending.
    std::multimap<double, Frame> m_inFlight;
    std::vector<PacketRecord> m_packets;
};

// One receiver's side of a graph frame starting at `now` (ms): startFrame
// hands over the datagrams due and notes how much the receiver had played;
// after the pipe ran the frame, finishFrame records what it played and
// marks the packet played on the link.
FrameRecord startFrame(Link& link, ombrel::SonraReceiverNode& receiver, unsigned now, uint64_t& playedBefore);
void finishFrame(Link& link, const ombrel::SonraReceiverNode& receiver, uint64_t playedBefore, FrameRecord& record);

} // namespace sonranetsim

#endif
