// sonra-rtp: G.711 A-law over RTP/UDP with the library's RTP nodes, to talk
// to real RTP peers. The library opens no socket; this tool does (its
// engine is tools/engine/sonrartptool.h).
//
//   sonra-rtp send FILE --to HOST:PORT [--pcap FILE.pcap]
//   sonra-rtp recv --port PORT --out FILE.wav [--bind ADDRESS] [--seconds N] [--idle S]
//   sonra-rtp replay FILE.pcap --out FILE.wav [--ssrc N]
#include "sonraoptions.h"
#include "sonrartpcall.h"
#include "sonrartptool.h"

#include "shared.h"

#include <cstdio>
#include <iostream>

namespace {

const char* const USAGE =
    "usage: sonra-rtp send FILE --to HOST:PORT [--pcap FILE.pcap]\n"
    "       sonra-rtp recv --port PORT --out FILE.wav [--bind ADDRESS] [--seconds N] [--idle S]\n"
    "       sonra-rtp replay FILE.pcap --out FILE.wav [--ssrc N]\n"
    "\n"
    "G.711 A-law (payload type 8) over RTP/UDP, 8000 Hz, 20 ms per packet.\n"
    "  send    streams FILE (any sound file libsndfile reads; mixed to mono and resampled\n"
    "          to 8000 Hz) in real time to HOST:PORT ([ADDRESS]:PORT for IPv6); --pcap also\n"
    "          records what is sent as a capture\n"
    "  recv    receives RTP on UDP port PORT (on ADDRESS, default 0.0.0.0) and writes what\n"
    "          the jitter buffer played as a 16-bit WAV; ends after N seconds (default: no\n"
    "          limit), S seconds after the stream stops (default 1) or on Ctrl-C\n"
    "  replay  feeds the RTP packets of a capture (UDP over IPv4 or IPv6; the first stream,\n"
    "          or the one with SSRC N) to the receiver at their captured arrival times, on a\n"
    "          simulated clock, as recv would have played them; writes what was played\n"
    "          and prints how many frames were played and packets late and lost\n"
    "Lost packets are concealed as one frame each, so the stream goes on at once.\n";

} // namespace

int main(int argc, char** argv)
{
    ombrel::setLogSink([](const ombrel::LogRecord&) {}); // the tool says what went wrong itself
    try {
        if (argc > 1 && std::string(argv[1]) == "call") {
            const sonrartp::CallOptions call = sonrartp::parseCallOptions(argc, argv);
            if (!call.help)
                return sonrartp::call(call);
        }
        const sonrartp::RtpOptions options = sonrartp::parseRtpOptions(argc, argv);
        if (options.help) {
            std::cout << USAGE << sonrartp::CALL_USAGE;
            return 0;
        }
        if (options.command == "send")
            return sonrartp::send(options);
        if (options.command == "recv")
            return sonrartp::receive(options);
        return sonrartp::replay(options);
    } catch (const sonratool::UsageError& error) {
        std::fprintf(stderr, "sonra-rtp: %s\n\n%s%s", error.what(), USAGE, sonrartp::CALL_USAGE);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-rtp: %s\n", error.what());
        return 1;
    }
}
