// UDP datagrams in pcap captures: written as raw IP packets (IPv4 or IPv6,
// with checksums), read back from the link types that captures of calls
// come in (Ethernet with VLAN tags, Linux cooked v1 and v2, BSD loopback,
// raw IP). IP fragments and non-UDP traffic are skipped.
#ifndef SONRA_PCAP_H
#define SONRA_PCAP_H

#include <boost/asio/ip/udp.hpp>
#include <pcap/pcap.h>

#include <string>
#include <vector>

namespace sonratool {

typedef std::vector<unsigned char> Bytes;

struct Datagram {
    double arrival = 0; // s since the epoch, as captured
    Bytes payload;      // the UDP payload
    boost::asio::ip::udp::endpoint from, to;
    bool cut = false;   // captured shorter than it was sent (the capture's snap length)
};

// Records datagrams sent from one endpoint to another.
class PcapWriter {
public:
    explicit PcapWriter(const std::string& path);
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // `when`: s since the epoch.
    void write(const boost::asio::ip::udp::endpoint& from, const boost::asio::ip::udp::endpoint& to,
               const char* payload, std::size_t size, double when);

private:
    pcap_t* m_pcap;
    pcap_dumper_t* m_dumper = nullptr;
    unsigned m_identification = 0; // of the next IPv4 packet
};

// The UDP payload of an IP packet, or false; `udpOffset`, when given, gets
// where the UDP header starts (bytes from `ip`).
bool udpPayload(const unsigned char* ip, std::size_t size, Bytes& payload, std::size_t* udpOffset = nullptr);

// Whether readFrame() reads frames of this pcap link type.
bool readableLinkType(int linkType);

// The datagram (all but its arrival) of one captured frame, `size` bytes
// as captured, of a readable link type; false for a frame that holds none.
bool readFrame(int linkType, const unsigned char* frame, std::size_t size, Datagram& datagram);

// Every UDP payload of a capture (a file, or pcap or pcapng bytes in
// memory), in capture order. When the file ends in the middle of a packet,
// `ending` (when given) gets libpcap's account of it, and the datagrams
// before it are returned.
std::vector<Datagram> readUdpCapture(const std::string& path, std::string* ending = nullptr);
std::vector<Datagram> readUdpCapture(const unsigned char* bytes, std::size_t size);

} // namespace sonratool

#endif
