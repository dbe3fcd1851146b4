#include "sonrapcap.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace sonratool {

namespace {

void put16(Bytes& out, unsigned value)
{
    out.push_back(static_cast<unsigned char>(value >> 8));
    out.push_back(static_cast<unsigned char>(value));
}

unsigned get16(const unsigned char* at)
{
    return unsigned(at[0]) << 8 | at[1];
}

// The Internet checksum (RFC 1071) over the given spans.
unsigned checksum(std::initializer_list<std::pair<const unsigned char*, std::size_t> > spans)
{
    uint32_t sum = 0;
    for (const auto& span : spans)
        for (std::size_t i = 0; i < span.second; i += 2)
            sum += unsigned(span.first[i]) << 8 | (i + 1 < span.second ? span.first[i + 1] : 0);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return ~sum & 0xffff;
}

Bytes addressBytes(const boost::asio::ip::address& address)
{
    if (address.is_v4()) {
        const auto bytes = address.to_v4().to_bytes();
        return Bytes(bytes.begin(), bytes.end());
    }
    const auto bytes = address.to_v6().to_bytes();
    return Bytes(bytes.begin(), bytes.end());
}

// The UDP header and payload, with the checksum over the pseudo header.
Bytes udpDatagram(const Bytes& source, const Bytes& destination, const boost::asio::ip::udp::endpoint& from,
                  const boost::asio::ip::udp::endpoint& to, const char* payload, std::size_t size)
{
    Bytes udp;
    put16(udp, from.port());
    put16(udp, to.port());
    put16(udp, unsigned(8 + size));
    put16(udp, 0);
    udp.insert(udp.end(), payload, payload + size);
    // The pseudo header: addresses, protocol 17 and the UDP length.
    const unsigned char pseudo[4] = {0, 17, static_cast<unsigned char>((8 + size) >> 8),
                                     static_cast<unsigned char>(8 + size)};
    unsigned sum = checksum({{source.data(), source.size()}, {destination.data(), destination.size()},
                             {pseudo, 4}, {udp.data(), udp.size()}});
    sum = sum ? sum : 0xffff;
    udp[6] = static_cast<unsigned char>(sum >> 8);
    udp[7] = static_cast<unsigned char>(sum);
    return udp;
}

// The IP header (v4 with its checksum, or v6) followed by `udp`.
Bytes ipPacket(bool v4, const Bytes& source, const Bytes& destination, const Bytes& udp, unsigned identification)
{
    Bytes packet;
    if (v4) {
        packet = {0x45, 0};
        put16(packet, unsigned(20 + udp.size()));
        put16(packet, identification & 0xffff);
        put16(packet, 0x4000); // don't fragment
        packet.insert(packet.end(), {64, 17, 0, 0});
        packet.insert(packet.end(), source.begin(), source.end());
        packet.insert(packet.end(), destination.begin(), destination.end());
        const unsigned headerSum = checksum({{packet.data(), packet.size()}});
        packet[10] = static_cast<unsigned char>(headerSum >> 8);
        packet[11] = static_cast<unsigned char>(headerSum);
    } else {
        packet = {0x60, 0, 0, 0};
        put16(packet, unsigned(udp.size()));
        packet.insert(packet.end(), {17, 64});
        packet.insert(packet.end(), source.begin(), source.end());
        packet.insert(packet.end(), destination.begin(), destination.end());
    }
    packet.insert(packet.end(), udp.begin(), udp.end());
    return packet;
}

// The addresses from the IP header, the ports from the UDP header.
void setEndpoints(const unsigned char* ip, const unsigned char* udp, Datagram& datagram)
{
    boost::asio::ip::address from, to;
    if (ip[0] >> 4 == 4) {
        boost::asio::ip::address_v4::bytes_type source, destination;
        std::copy(ip + 12, ip + 16, source.begin());
        std::copy(ip + 16, ip + 20, destination.begin());
        from = boost::asio::ip::address_v4(source), to = boost::asio::ip::address_v4(destination);
    } else {
        boost::asio::ip::address_v6::bytes_type source, destination;
        std::copy(ip + 8, ip + 24, source.begin());
        std::copy(ip + 24, ip + 40, destination.begin());
        from = boost::asio::ip::address_v6(source), to = boost::asio::ip::address_v6(destination);
    }
    datagram.from = boost::asio::ip::udp::endpoint(from, static_cast<unsigned short>(get16(udp)));
    datagram.to = boost::asio::ip::udp::endpoint(to, static_cast<unsigned short>(get16(udp + 2)));
}

} // namespace

PcapWriter::PcapWriter(const std::string& path) : m_pcap(pcap_open_dead(DLT_RAW, 65535))
{
    m_dumper = m_pcap ? pcap_dump_open(m_pcap, path.c_str()) : nullptr;
    if (!m_dumper) {
        const std::string reason = m_pcap ? pcap_geterr(m_pcap) : "out of memory";
        if (m_pcap)
            pcap_close(m_pcap);
        throw std::runtime_error("cannot write " + path + ": " + reason);
    }
}

PcapWriter::~PcapWriter()
{
    pcap_dump_close(m_dumper);
    pcap_close(m_pcap);
}

void PcapWriter::write(const boost::asio::ip::udp::endpoint& from, const boost::asio::ip::udp::endpoint& to,
                       const char* payload, std::size_t size, double when)
{
    const Bytes source = addressBytes(from.address()), destination = addressBytes(to.address());
    const Bytes udp = udpDatagram(source, destination, from, to, payload, size);
    const Bytes packet = ipPacket(from.address().is_v4(), source, destination, udp, m_identification++);
    pcap_pkthdr header = pcap_pkthdr();
    header.ts.tv_sec = static_cast<long>(when);
    header.ts.tv_usec = static_cast<long>((when - header.ts.tv_sec) * 1e6);
    header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
    pcap_dump(reinterpret_cast<u_char*>(m_dumper), &header, packet.data());
}

// The UDP payload of an IP packet, or false.
bool udpPayload(const unsigned char* ip, std::size_t size, Bytes& payload, std::size_t* udpOffset)
{
    if (size < 1)
        return false;
    const unsigned version = ip[0] >> 4;
    std::size_t offset = 0; // of the UDP header
    if (version == 4) {
        const std::size_t headerSize = (ip[0] & 0x0f) * 4u;
        if (size < 20 || headerSize < 20 || size < headerSize || ip[9] != 17 || (get16(ip + 6) & 0x3fff) != 0)
            return false;
        size = std::min<std::size_t>(size, get16(ip + 2));
        offset = headerSize;
    } else if (version == 6) {
        if (size < 40)
            return false;
        size = std::min<std::size_t>(size, 40 + get16(ip + 4));
        unsigned next = ip[6];
        offset = 40;
        // Hop-by-hop, routing and destination options may precede UDP.
        while ((next == 0 || next == 43 || next == 60) && offset + 8 <= size) {
            next = ip[offset];
            offset += (ip[offset + 1] + 1u) * 8;
        }
        if (next != 17)
            return false;
    } else {
        return false;
    }
    if (offset + 8 > size)
        return false;
    const std::size_t end = std::min<std::size_t>(size, offset + get16(ip + offset + 4));
    if (end < offset + 8)
        return false;
    payload.assign(ip + offset + 8, ip + end);
    if (udpOffset)
        *udpOffset = offset;
    return true;
}

bool readableLinkType(int linkType)
{
    return linkType == DLT_EN10MB || linkType == DLT_LINUX_SLL || linkType == DLT_LINUX_SLL2 ||
           linkType == DLT_NULL || linkType == DLT_LOOP || linkType == DLT_RAW || linkType == DLT_IPV4 ||
           linkType == DLT_IPV6;
}

bool readFrame(int linkType, const unsigned char* frame, std::size_t size, Datagram& datagram)
{
    std::size_t skip = 0; // bytes of link-layer header
    if (linkType == DLT_EN10MB) {
        skip = 14;
        while (skip <= size && (get16(frame + skip - 2) == 0x8100 || get16(frame + skip - 2) == 0x88a8))
            skip += 4; // VLAN tags
        const unsigned etherType = skip <= size ? get16(frame + skip - 2) : 0;
        if (etherType != 0x0800 && etherType != 0x86dd)
            return false;
    } else if (linkType == DLT_LINUX_SLL) {
        skip = 16;
    } else if (linkType == DLT_LINUX_SLL2) {
        skip = 20;
    } else if (linkType == DLT_NULL || linkType == DLT_LOOP) {
        skip = 4;
    }
    std::size_t udpOffset = 0;
    if (size <= skip || !udpPayload(frame + skip, size - skip, datagram.payload, &udpOffset))
        return false;
    setEndpoints(frame + skip, frame + skip + udpOffset, datagram);
    datagram.cut = get16(frame + skip + udpOffset + 4) > datagram.payload.size() + 8;
    return true;
}

namespace {

// Reads every packet of an open capture, then closes it. When the capture
// ends in the middle of a packet, `ending` (when given) gets libpcap's
// account of it, and the datagrams before it are returned.
std::vector<Datagram> readOpenCapture(pcap_t* pcap, const std::string& name, std::string* ending = nullptr)
{
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> closer(pcap, pcap_close);
    const int linkType = pcap_datalink(pcap);
    if (!readableLinkType(linkType))
        throw std::runtime_error(name + ": link type " + std::to_string(linkType) + " is not supported");
    std::vector<Datagram> datagrams;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    int status = 0;
    while ((status = pcap_next_ex(pcap, &header, &data)) == 1) {
        Datagram datagram;
        if (readFrame(linkType, data, header->caplen, datagram)) {
            datagram.arrival = header->ts.tv_sec + header->ts.tv_usec / 1e6;
            datagrams.push_back(datagram);
        }
    }
    if (status == PCAP_ERROR && ending)
        *ending = pcap_geterr(pcap);
    return datagrams;
}

} // namespace

// Every UDP payload of a capture, in capture order.
std::vector<Datagram> readUdpCapture(const std::string& path, std::string* ending)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* pcap = pcap_open_offline(path.c_str(), error);
    if (!pcap)
        throw std::runtime_error("cannot read " + path + ": " + error);
    return readOpenCapture(pcap, path, ending);
}

std::vector<Datagram> readUdpCapture(const unsigned char* bytes, std::size_t size)
{
    // libpcap reads a capture from a FILE; fmemopen makes one of the bytes.
    FILE* file = size ? fmemopen(const_cast<unsigned char*>(bytes), size, "rb") : nullptr;
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* pcap = file ? pcap_fopen_offline(file, error) : nullptr;
    if (!pcap) {
        if (file)
            std::fclose(file); // closed with the capture only once it opened
        throw std::runtime_error(std::string("cannot read the capture: ") + (file ? error : "it is empty"));
    }
    return readOpenCapture(pcap, "the capture");
}

} // namespace sonratool
