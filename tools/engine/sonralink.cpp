#include "sonralink.h"

#include "sonrapacket.h"
#include "sonrareceivernode.h"

#include <boost/make_shared.hpp>

namespace sonranetsim {

using namespace ombrel;

void Link::send(const Frame& packet)
{
    const SonraPacket view(packet);
    send(packet, view.m_header->seqNum, view.m_header->timeStamp);
}

void Link::send(const Frame& packet, unsigned seqNum, unsigned sendTime)
{
    PacketRecord record;
    record.seqNum = seqNum;
    record.sendTime = sendTime;
    record.arrivalTimes = m_network.arrivals(record.seqNum, record.sendTime);
    record.lost = record.arrivalTimes.empty();
    // Each copy is its own datagram, as it would come off a socket.
    for (double arrival : record.arrivalTimes)
        m_inFlight.insert(std::make_pair(arrival, boost::make_shared<std::vector<char> >(*packet)));
    if (m_records == KEEP_RECORDS)
        m_packets.push_back(record);
}

unsigned Link::deliverDue(unsigned now, SonraReceiverNode& receiver)
{
    return deliverDue(now, [&receiver](const Frame& datagram) { receiver.dataReceived(datagram); });
}

unsigned Link::deliverDue(unsigned now, const std::function<void(const Frame&)>& deliver)
{
    unsigned delivered = 0;
    while (!m_inFlight.empty() && m_inFlight.begin()->first <= now) {
        deliver(m_inFlight.begin()->second);
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
        // A descent's passed-over frame played, faster, with this one.
        if (receiver.stretchRequest().passedOver)
            link.markPlayed(receiver.stretchRequest().passedOverSeqNum, record.time);
    }
    record.queued = stats.queuedFrames;
}

} // namespace sonranetsim
