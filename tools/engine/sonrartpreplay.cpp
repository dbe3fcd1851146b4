#include "sonrartppath.h"
#include "sonrartptool.h"

#include "sonrapcap.h"
#include "sonrasoundfile.h"

#include "sonrartppacket.h"

#include <cinttypes>
#include <cstdio>
#include <set>
#include <stdexcept>

namespace sonrartp {

namespace {

bool looksLikeRtp(const sonratool::Bytes& payload)
{
    // Version 2, and not RTCP (packet types 192 to 223 share the port when multiplexed).
    return payload.size() >= SonraRtpPacket::HEADER_SIZE && (payload[0] >> 6) == 2 &&
           !(payload[1] >= 192 && payload[1] <= 223);
}

uint32_t ssrcOf(const sonratool::Bytes& p)
{
    return uint32_t(p[8]) << 24 | uint32_t(p[9]) << 16 | uint32_t(p[10]) << 8 | p[11];
}

// The capture's first RTP stream, or the one with the SSRC asked for.
std::vector<sonratool::Datagram> rtpStream(const RtpOptions& options)
{
    std::vector<sonratool::Datagram> stream;
    for (sonratool::Datagram& datagram : sonratool::readUdpCapture(options.input)) {
        if (!looksLikeRtp(datagram.payload))
            continue;
        const uint32_t ssrc = ssrcOf(datagram.payload);
        if ((options.hasSsrc && ssrc == options.ssrc) || (!options.hasSsrc && (stream.empty() || ssrc == ssrcOf(stream[0].payload))))
            stream.push_back(datagram);
    }
    if (stream.empty())
        throw std::runtime_error("no RTP stream" +
                                 (options.hasSsrc ? " with SSRC " + std::to_string(options.ssrc) : std::string()) +
                                 " in " + options.input);
    return stream;
}

// Sequence numbers extended past their wraps, to count the lost ones.
std::set<int64_t> extendedNumbers(const std::vector<sonratool::Datagram>& stream)
{
    std::set<int64_t> numbers;
    int64_t last = -1;
    for (const sonratool::Datagram& datagram : stream) {
        const unsigned seq = unsigned(datagram.payload[2]) << 8 | datagram.payload[3];
        int64_t extended = seq;
        if (last >= 0) {
            extended = last - (last & 0xffff) + seq;
            if (extended < last - 32768)
                extended += 65536;
            else if (extended > last + 32768)
                extended -= 65536;
        }
        numbers.insert(extended);
        last = extended;
    }
    return numbers;
}

// Frames are played PLAYOUT_PHASE frame periods after the first arrival
// and one period apart, each after every packet that arrived by then, as
// recv plays; then until a second of silence. A later packet after such
// a second restarts the clock: a longer pause (or a broken capture time)
// is shortened to that second.
void play(const std::vector<sonratool::Datagram>& stream, ReceivePath& path)
{
    const double start = stream.front().arrival;          // s
    const double period = FRAME_DURATION / 1000.0;        // s
    const std::size_t quietEnough = 1000 / FRAME_DURATION; // frames
    std::size_t next = 0, quietFrames = 0;
    for (double now = start + PLAYOUT_PHASE * period; next < stream.size() || quietFrames < quietEnough;
         now += period) {
        if (quietFrames >= quietEnough && next < stream.size() && stream[next].arrival > now)
            now = stream[next].arrival + PLAYOUT_PHASE * period;
        for (; next < stream.size() && stream[next].arrival <= now; ++next) {
            const sonratool::Bytes& bytes = stream[next].payload;
            path.receiver->dataReceived(boost::make_shared<std::vector<char> >(bytes.begin(), bytes.end()));
        }
        const std::size_t before = path.playout.played();
        path.pipe->processFrame();
        quietFrames = path.playout.played() > before ? 0 : quietFrames + 1;
    }
}

} // namespace

int replay(const RtpOptions& options)
{
    const std::vector<sonratool::Datagram> stream = rtpStream(options);
    const std::set<int64_t> numbers = extendedNumbers(stream);
    const std::size_t expected = std::size_t(*numbers.rbegin() - *numbers.begin() + 1);
    auto io = boost::make_shared<boost::asio::io_service>();
    ReceivePath path(io);
    play(stream, path);
    sonratool::writeWav(options.output, path.playout.samples(), RATE);
    const std::size_t played = path.playout.played();
    std::printf("stream SSRC 0x%08" PRIx32 ": %zu packets, sequence numbers %" PRId64 " to %" PRId64 "\n",
                ssrcOf(stream[0].payload), stream.size(), *numbers.begin() % 65536,
                *numbers.rbegin() % 65536);
    std::printf("played    %zu frames\n", played);
    std::printf("late      %zu (arrived, never played)\n", numbers.size() > played ? numbers.size() - played : 0);
    std::printf("lost      %zu (never arrived)\n", expected - numbers.size());
    std::printf("duplicate %zu\n", stream.size() - numbers.size());
    return 0;
}

} // namespace sonrartp
