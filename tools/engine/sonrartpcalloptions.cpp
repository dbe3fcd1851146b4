#include "sonrartpcall.h"
#include "sonrartptool.h"

#include "sonraoptions.h"

namespace sonrartp {

using sonratool::UsageError;

const char* const CALL_USAGE =
    "\n"
    "       sonra-rtp call --to HOST:PORT --port PORT [--codec opus|pcma|pcmu] [--capture DEV]\n"
    "                      [--playback DEV] [--bind ADDRESS] [--payload-type PT=opus] [--seconds N]\n"
    "\n"
    "  call    one end of a voice call in real time: the capture device (default: the sound\n"
    "          card's) through noise suppression and volume is encoded and sent to HOST:PORT\n"
    "          from UDP port PORT; RTP arriving on PORT is decoded and played on the playback\n"
    "          device. Run it on both computers, each --to the other, or point any RTP peer at\n"
    "          PORT. --codec opus (default: 48000 Hz, payload type 96 or the one --payload-type\n"
    "          maps to opus) or pcma/pcmu (G.711, 8000 Hz, types 8/0). Received: PCMA, PCMU and\n"
    "          Opus with pcma/pcmu, Opus with opus; comfort noise (13); telephone events (101)\n"
    "          are listed as digits. One source at a time: the first one that sends a\n"
    "          consistent stream, by SSRC and address; another takes over once it has been\n"
    "          quiet for 200 ms. \"virtual:FILE\" devices need no sound card: as capture they\n"
    "          loop the sound file FILE, as playback they write a WAV file. Ends after N\n"
    "          seconds (default: no limit) or on Ctrl-C.\n";

namespace {

CallCodec codecOf(const std::string& option, const std::string& name)
{
    if (name == "opus")
        return CallCodec::Opus;
    if (name == "pcma")
        return CallCodec::Pcma;
    if (name == "pcmu")
        return CallCodec::Pcmu;
    throw UsageError(option + ": expected opus, pcma or pcmu, not \"" + name + "\"");
}

// "PT=opus": the dynamic type Opus travels under, sent and received.
unsigned opusPayloadType(const std::string& option, const std::string& value)
{
    const std::pair<unsigned, Codec> mapping = payloadTypeMapping(option, value);
    if (mapping.second != ombrel::SonraRtpReceiverNode::CODEC_OPUS || mapping.first < 96)
        throw UsageError(option + " wants PT=opus (PT from 96 to 127), not \"" + value + "\"");
    return mapping.first;
}

} // namespace

unsigned callRate(CallCodec codec)
{
    return codec == CallCodec::Opus ? 48000 : 8000;
}

CallOptions parseCallOptions(int argc, char** argv)
{
    CallOptions options;
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            options.help = true;
            return options;
        }
        if (i + 1 >= argc)
            throw UsageError(option + " wants a value");
        const std::string value = argv[++i];
        if (option == "--to")
            options.to = value;
        else if (option == "--port")
            options.port = sonratool::whole(option, value, 1, 65535);
        else if (option == "--bind")
            options.bind = value;
        else if (option == "--codec")
            options.codec = codecOf(option, value);
        else if (option == "--payload-type")
            options.opusPayloadType = opusPayloadType(option, value);
        else if (option == "--capture")
            options.capture = value;
        else if (option == "--playback")
            options.playback = value;
        else if (option == "--seconds")
            options.seconds = sonratool::number(option, value, 0.1, 86400);
        else
            throw UsageError("unknown option " + option);
    }
    if (options.to.empty() || options.port == 0)
        throw UsageError("call wants --to HOST:PORT and --port PORT");
    return options;
}

} // namespace sonrartp
