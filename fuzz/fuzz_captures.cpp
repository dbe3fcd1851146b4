// Arbitrary bytes as a pcap or pcapng capture, read as `sonra-rtp replay`
// reads one (libpcap on a memory file, then each frame's link, IP and UDP
// headers). Oracle: each frame parsed again from an exactly sized copy (so
// ASan sees any read past what was captured) gives the payload the reader
// gave, with its time; a payload lies in its frame right after a UDP header
// whose length covers it.
#include "fuzzutil.h"
#include "sonrapcap.h"

#include <algorithm>
#include <stdexcept>

using sonratool::Bytes;

namespace {

bool liesAfterUdpHeader(const Bytes& frame, const Bytes& payload)
{
    for (std::size_t at = 20 + 8; at + payload.size() <= frame.size(); ++at) // bytes: smallest IP and UDP headers
        if (std::equal(payload.begin(), payload.end(), frame.begin() + at) &&
            (unsigned(frame[at - 4]) << 8 | frame[at - 3]) >= payload.size() + 8)
            return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    std::vector<sonratool::Datagram> read;
    try {
        read = sonratool::readUdpCapture(data, size);
    } catch (const std::runtime_error&) {
        return 0; // not a capture, or of a link type replay refuses
    }
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* pcap = pcap_fopen_offline(fmemopen(const_cast<uint8_t*>(data), size, "rb"), error);
    FUZZ_CHECK(pcap);
    std::size_t next = 0; // of `read`
    pcap_pkthdr* header = nullptr;
    const u_char* captured = nullptr;
    while (pcap_next_ex(pcap, &header, &captured) == 1) {
        const Bytes frame(captured, captured + header->caplen);
        sonratool::Datagram datagram;
        if (!sonratool::readFrame(pcap_datalink(pcap), frame.data(), frame.size(), datagram))
            continue;
        const Bytes& payload = datagram.payload;
        FUZZ_CHECK(next < read.size() && read[next].payload == payload && liesAfterUdpHeader(frame, payload));
        FUZZ_CHECK(read[next++].arrival == header->ts.tv_sec + header->ts.tv_usec / 1e6);
    }
    FUZZ_CHECK(next == read.size());
    pcap_close(pcap);
    return 0;
}
