#include "sonrartptool.h"

#include "sonraoptions.h"

#include <vector>

namespace sonrartp {

using ombrel::SonraRtpReceiverNode;

using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

namespace {

const struct {
    const char* name;
    Codec codec;
} CODECS[] = {{"pcma", SonraRtpReceiverNode::CODEC_PCMA},
              {"pcmu", SonraRtpReceiverNode::CODEC_PCMU},
              {"opus", SonraRtpReceiverNode::CODEC_OPUS},
              {"cn", SonraRtpReceiverNode::CODEC_COMFORT_NOISE},
              {"telephone-event", SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT}};

void checkPtime(const RtpOptions& options)
{
    const bool opus = options.codec == SonraRtpReceiverNode::CODEC_OPUS;
    for (unsigned ms : {10u, 20u, 30u, 40u, 60u})
        if (options.ptime == ms && !(opus && ms == 30))
            return;
    throw UsageError(opus ? "--ptime for opus wants 10, 20, 40 or 60" : "--ptime wants 10, 20, 30, 40 or 60");
}

} // namespace

// "PT=CODEC"
std::pair<unsigned, Codec> payloadTypeMapping(const std::string& option, const std::string& value)
{
    const std::string::size_type equals = value.find('=');
    if (equals == std::string::npos)
        throw UsageError(option + " wants PT=CODEC, not \"" + value + "\"");
    return {whole(option, value.substr(0, equals), 0, 127), codecNamed(option, value.substr(equals + 1), false)};
}

Codec codecNamed(const std::string& option, const std::string& name, bool audioOnly)
{
    for (const auto& known : CODECS)
        if (name == known.name && (!audioOnly || known.codec <= SonraRtpReceiverNode::CODEC_OPUS))
            return known.codec;
    throw UsageError(option + " wants " + (audioOnly ? "pcma, pcmu or opus" : "pcma, pcmu, opus, cn or telephone-event") +
                     ", not \"" + name + "\"");
}

std::string codecName(Codec codec)
{
    for (const auto& known : CODECS)
        if (codec == known.codec)
            return known.name;
    return "none";
}

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
        } else if (arg == "--payload-type")
            options.payloadTypes.push_back(payloadTypeMapping(arg, value));
        else if (arg == "--codec")
            options.codec = codecNamed(arg, value, true);
        else if (arg == "--ptime")
            options.ptime = whole(arg, value, 1, 1000);
        else
            throw UsageError("unknown option " + arg);
    }
    if (positional.empty())
        throw UsageError("expected send, recv, replay or streams");
    options.command = positional[0];
    const bool wantsFile = options.command == "send" || options.command == "replay" || options.command == "streams";
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
    if (options.command != "send" && options.command != "recv" && options.command != "replay" &&
        options.command != "streams")
        throw UsageError("unknown command \"" + options.command + "\"");
    if (options.command == "send")
        checkPtime(options);
    return options;
}

} // namespace sonrartp
