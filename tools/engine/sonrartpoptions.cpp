#include "sonrartptool.h"

#include "sonraoptions.h"

#include <vector>

namespace sonrartp {

using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

RtpOptions parseRtpOptions(int argc, char** argv)
{
    RtpOptions options;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            options.help = true;
            return options;
        }
        if (arg.compare(0, 2, "--") != 0) {
            positional.push_back(arg);
            continue;
        }
        if (i + 1 >= argc)
            throw UsageError(arg + " wants a value");
        const std::string value = argv[++i];
        if (arg == "--to")
            options.to = value;
        else if (arg == "--pcap")
            options.pcap = value;
        else if (arg == "--out")
            options.output = value;
        else if (arg == "--port")
            options.port = whole(arg, value, 1, 65535);
        else if (arg == "--bind")
            options.bind = value;
        else if (arg == "--seconds")
            options.seconds = number(arg, value, 0, 86400);
        else if (arg == "--idle")
            options.idle = number(arg, value, 0.1, 86400);
        else if (arg == "--ssrc") {
            options.ssrc = whole(arg, value, 0, 4294967295.0);
            options.hasSsrc = true;
        } else
            throw UsageError("unknown option " + arg);
    }
    if (positional.empty())
        throw UsageError("expected send, recv or replay");
    options.command = positional[0];
    const bool wantsFile = options.command == "send" || options.command == "replay";
    if (positional.size() != (wantsFile ? 2u : 1u))
        throw UsageError(wantsFile ? options.command + " wants one file" : "unexpected " + positional.back());
    if (wantsFile)
        options.input = positional[1];
    if (options.command == "send" && options.to.empty())
        throw UsageError("send wants --to HOST:PORT");
    if (options.command == "recv" && options.port == 0)
        throw UsageError("recv wants --port PORT");
    if ((options.command == "recv" || options.command == "replay") && options.output.empty())
        throw UsageError(options.command + " wants --out FILE.wav");
    if (options.command != "send" && options.command != "recv" && options.command != "replay")
        throw UsageError("unknown command \"" + options.command + "\"");
    return options;
}

} // namespace sonrartp
