// sonra-rtp: G.711 (A-law, mu-law) and Opus over RTP/UDP with the
// library's RTP nodes, to talk to real RTP peers. The library opens no
// socket; this tool does (its engine is tools/engine/sonrartptool.h).
//
//   sonra-rtp send FILE --to HOST:PORT [--codec C] [--ptime MS] [--payload-type PT=C] [--pcap FILE.pcap]
//   sonra-rtp recv --port PORT --out FILE.wav [--bind ADDRESS] [--seconds N] [--idle S] [--payload-type PT=C]
//   sonra-rtp replay FILE.pcap --out FILE.wav [--ssrc N] [--payload-type PT=C]
//   sonra-rtp streams FILE.pcap [--payload-type PT=C]
#include "sonraoptions.h"
#include "sonrartpcall.h"
#include "sonrartptool.h"

#include "shared.h"

#include <cstdio>
#include <iostream>

namespace {

const char* const USAGE =
    "usage: sonra-rtp send FILE --to HOST:PORT [--codec pcma|pcmu|opus] [--ptime MS] [--payload-type PT=CODEC]\n"
    "                 [--pcap FILE.pcap]\n"
    "       sonra-rtp recv --port PORT --out FILE.wav [--bind ADDRESS] [--seconds N] [--idle S]\n"
    "                 [--payload-type PT=CODEC]...\n"
    "       sonra-rtp replay FILE.pcap --out FILE.wav [--ssrc N] [--payload-type PT=CODEC]...\n"
    "       sonra-rtp streams FILE.pcap [--payload-type PT=CODEC]...\n"
    "\n"
    "RTP over UDP with G.711 A-law (payload type 8), mu-law (0) or Opus (RFC 7587, a dynamic\n"
    "type). Payload types 0, 8 and 13 (comfort noise) need nothing; --payload-type PT=CODEC\n"
    "maps a dynamic one (CODEC: pcma, pcmu, opus, cn, telephone-event; repeatable). A stream\n"
    "of a type nothing maps is refused by name.\n"
    "  send    streams FILE (any sound file libsndfile reads; mixed to mono and resampled to\n"
    "          8000 Hz for G.711, 48000 Hz for Opus) in real time to HOST:PORT ([ADDRESS]:PORT\n"
    "          for IPv6): --codec (default pcma), --ptime ms per packet (10, 20, 30, 40 or\n"
    "          60, Opus not 30; default 20); Opus goes as payload type 111 unless\n"
    "          --payload-type PT=opus says otherwise; --pcap records what is sent\n"
    "  recv    receives RTP on UDP port PORT (on ADDRESS, default 0.0.0.0) and writes what\n"
    "          was played as a 16-bit WAV (8000 Hz; 48000 Hz when a type is mapped to opus);\n"
    "          takes one source: the first SSRC that sends two packets in sequence, and only\n"
    "          from its address and port, until it has been quiet for 200 ms and another\n"
    "          has sent 5 in sequence; ends after N seconds (default: no limit), S seconds\n"
    "          after that source stops (default 1) or on Ctrl-C; prints what it counted\n"
    "  replay  feeds one RTP stream of a capture (UDP over IPv4 or IPv6; the one carrying the\n"
    "          most audio, or the one with SSRC N) to the receiver at their captured arrival\n"
    "          times, on a simulated clock, as recv would have played it, until the capture's\n"
    "          end plus the jitter buffer's delay; writes it at 8000 Hz (G.711) or 48000 Hz\n"
    "          (Opus). A capture without a plausible RTP stream (version 2, one SSRC, sequence\n"
    "          numbers that advance) is refused; one cut short is replayed with a warning\n"
    "  streams lists the RTP streams of a capture: SSRC, addresses, payload types, packets,\n"
    "          lost, packet durations and seconds\n"
    "\n"
    "What is played: every packet that comes in time, once and in order, whatever its\n"
    "duration. A lost packet becomes silence of its length (G.711), or Opus rebuilds it from\n"
    "the next packet's FEC data, else conceals it for up to 100 ms, then silence. A pause\n"
    "in the stream (no packets, however long) stays a pause of the same length, silent, or\n"
    "comfort noise at the level the peer sent. A packet that comes after its time is\n"
    "dropped and counted late; the jitter buffer grows its delay (inserting silence) so\n"
    "that the next ones are not. Telephone events are counted and printed as digits.\n"
    "Trailing pause is not written.\n";

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
        if (options.command == "streams")
            return sonrartp::listStreams(options);
        return sonrartp::replay(options);
    } catch (const sonratool::UsageError& error) {
        std::fprintf(stderr, "sonra-rtp: %s\n\n%s%s", error.what(), USAGE, sonrartp::CALL_USAGE);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-rtp: %s\n", error.what());
        return 1;
    }
}
