#include "sonracall.h"
#include "sonracallrun.h"
#include "sonrashell.h"
#include "sonrasoundfile.h"

#include "sonralistening.h"
#include "sonranetsimreport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace sonracall {

namespace {

using sonratool::quoted;
using sonratool::runCommand;

void makeDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    const std::string probe = path + "/.sonra-call-probe";
    if (!std::ofstream(probe))
        throw std::runtime_error("cannot write into " + path);
    std::remove(probe.c_str());
}

// Speech for a party without --input: made once by espeak-ng, kept in the
// output folder for later calls.
std::string defaultSpeech(const std::string& outDir, unsigned party)
{
    static const char* const voices[] = {"en-us", "en-gb+f3", "en-gb-scotland", "en-us+f4", "en-029"};
    static const char* const sentences[] = {
        "Hello, this is the first party of the call. Can you hear me clearly?",
        "Yes, I can hear you well. The network seems to behave today.",
        "Good afternoon to both of you. I joined the conference a little late.",
        "Let us go through the agenda quickly, one item after another.",
        "I will send the notes around once we are finished here."};
    const unsigned n = sizeof voices / sizeof voices[0];
    const std::string path = outDir + "/speech-" + std::to_string(party + 1) + ".wav";
    if (::access(path.c_str(), R_OK) == 0)
        return path;
    const std::string command = "espeak-ng -v " + std::string(voices[party % n]) + " -s 150 -w " + quoted(path) +
                                " " + quoted(sentences[party % n]) + " >/dev/null 2>&1";
    if (runCommand(command) != 0)
        throw std::runtime_error("cannot make speech with espeak-ng (is it installed?); give --input FILE per party");
    return path;
}

// A short two-tone chime, faded in and out.
std::vector<int16_t> notificationSound()
{
    const double pi = 3.14159265358979323846;
    std::vector<int16_t> chime;
    for (double pitch : {880.0, 1320.0}) {
        const unsigned length = RATE * 15 / 100; // 150 ms
        for (unsigned i = 0; i < length; ++i) {
            const double envelope = std::sin(pi * i / length);
            chime.push_back(int16_t(6000 * envelope * std::sin(2 * pi * pitch * i / RATE)));
        }
    }
    return chime;
}

CallConfig callConfig(const CallOptions& options, std::vector<std::string>& inputs)
{
    CallConfig config;
    config.net = options.net;
    if (!options.scenarioFile.empty()) {
        std::ifstream in(options.scenarioFile);
        if (!in)
            throw std::runtime_error("cannot read scenario " + options.scenarioFile);
        std::string error;
        if (!sonranetsim::parseScenario(in, config.net.scenario, error))
            throw std::runtime_error(options.scenarioFile + ": " + error);
        config.net.useScenario = true;
    }
    config.parties.resize(options.parties);
    std::size_t longest = 0;
    for (unsigned p = 0; p < options.parties; ++p) {
        inputs.push_back(p < options.inputs.size() ? options.inputs[p] : defaultSpeech(options.outDir, p));
        config.parties[p].speech = sonratool::readMono(inputs.back(), RATE);
        longest = std::max(longest, config.parties[p].speech.size());
    }
    applyEffects(options, config.parties);
    config.notificationFile = options.outDir + "/notification.wav";
    sonratool::writeWav(config.notificationFile, notificationSound(), RATE);
    config.holdFile = options.hold;
    if (!options.hold.empty())
        sonratool::readMono(options.hold, RATE); // an unreadable file is a message before any graph exists
    config.recordFile = options.outDir + "/call.ogg";
    config.rtp = options.rtp;
    config.rtpCodec = options.rtpCodec == "pcma"   ? RtpCodec::Pcma
                      : options.rtpCodec == "pcmu" ? RtpCodec::Pcmu
                                                   : RtpCodec::Opus;
    const unsigned inputFrames = unsigned((longest + FRAME_SAMPLES - 1) / FRAME_SAMPLES);
    config.frames = options.seconds > 0 ? unsigned(std::ceil(options.seconds * 1000 / FRAME_MS)) : inputFrames;
    return config;
}

bool hasSoundCard(ombrel::SonraDeviceInfo::DeviceType type)
{
    ombrel::SonraUniversalDevice probe(RATE);
    for (const auto& info : probe.devices(type))
        if (!info->isVirtual())
            return true;
    return false;
}

// Real time: each party's microphone file is written at the call's rate for
// the virtual device, which takes files of the stream's rate only.
void chooseDevices(const CallOptions& options, CallConfig& config)
{
    const std::string prefix = ombrel::SonraUniversalDevice::VIRTUAL_DEVICE_PREFIX;
    for (std::size_t p = 0; p < config.parties.size(); ++p) {
        const std::string mic = options.outDir + "/mic-" + std::to_string(p + 1) + ".wav";
        const std::string ear = options.outDir + "/party-" + std::to_string(p + 1) + ".wav";
        sonratool::writeWav(mic, config.parties[p].speech, RATE);
        config.devices.emplace_back(prefix + mic, prefix + ear);
    }
    if (!options.capture.empty() || hasSoundCard(ombrel::SonraDeviceInfo::CAPTURE))
        config.devices[0].first = options.capture;
    if (!options.playback.empty() || hasSoundCard(ombrel::SonraDeviceInfo::PLAYBACK))
        config.devices[0].second = options.playback;
}


LegRecord legRecord(const Leg& leg, const sonranetsim::PathSettings& settings)
{
    LegRecord record;
    record.from = leg.from;
    record.rtp = !leg.receiver;
    record.rtpSent = leg.rtpSent;
    record.rtpReceived = leg.rtpReceived;
    if (record.rtp) {
        const SonraRtpReceiverNode::Statistics received = leg.rtpReceiver->statistics();
        record.sent = leg.rtpSent;
        record.lost = unsigned(std::count_if(leg.result.packets.begin(), leg.result.packets.end(),
                                             [](const sonranetsim::PacketRecord& packet) { return packet.lost; }));
        record.late = received.packetsLate;
        record.played = unsigned(received.packetsPlayed);
        record.concealedMs = received.concealedMs;
        return record;
    }
    const sonranetsim::Summary& s = leg.result.summary;
    record.sent = s.sent;
    record.lost = s.lostInNetwork;
    record.late = s.jbuf.framesTooOld;
    record.stretched = s.jbuf.framesExpanded + s.jbuf.framesAccelerated;
    record.played = s.played;
    record.snrDb = s.snr;
    std::vector<double> residences; // ms
    for (const auto& frame : leg.result.frames)
        if (frame.played)
            residences.push_back(frame.residence);
    record.meanResidenceMs = sonranetsim::mean(residences);
    record.p95ResidenceMs = sonranetsim::percentile(residences, 0.95);
    const sonranetsim::Listening listening = sonranetsim::listeningOf(leg.result, settings);
    record.rebuilt = listening.rebuilt;
    record.concealed = listening.concealed;
    record.lossPercent = listening.lossPercent;
    record.burstRatio = listening.burstRatio;
    record.mouthToEarMs = listening.mouthToEarMs;
    record.r = listening.rating.r;
    record.mos = listening.rating.mos;
    return record;
}

CallRecord recordsOf(const Call& call, const std::vector<std::string>& inputs,
                     const std::vector<std::string>& heardPaths)
{
    CallRecord records;
    for (std::size_t p = 0; p < call.parties().size(); ++p) {
        const Party& party = *call.parties()[p];
        PartyRecord record;
        record.said = inputs[p];
        record.heard = heardPaths[p];
        for (const auto& leg : call.legs())
            if (leg->to == p)
                record.legs.push_back(legRecord(*leg, call.config().net));
        record.limitedFrames = party.limitedFrames;
        if (party.loudspeakers)
            record.echo = party.loudspeakers->record();
        record.frames = party.said.size() / FRAME_SAMPLES;
        records.parties.push_back(record);
    }
    return records;
}

// Where each party's ear went: a WAV file, or the sound card in real time.
std::vector<std::string> writeHeard(const CallOptions& options, const CallConfig& config, const Call& call)
{
    std::vector<std::string> heardPaths;
    for (std::size_t p = 0; p < call.parties().size(); ++p) {
        heardPaths.push_back(options.outDir + "/party-" + std::to_string(p + 1) + ".wav");
        if (options.realTime && config.devices[p].second.empty())
            heardPaths.back() = "the sound card";
        else if (!options.realTime)
            sonratool::writeWav(heardPaths.back(), call.parties()[p]->heard, RATE, call.parties()[p]->playbackChannels);
    }
    return heardPaths;
}

} // namespace

CallRecord runCall(const CallOptions& options, const std::function<void(unsigned, unsigned)>& progress)
{
    makeDirectory(options.outDir);
    std::vector<std::string> inputs;
    CallConfig config = callConfig(options, inputs);
    if (options.realTime)
        chooseDevices(options, config);
    Call call(config);
    if (options.realTime) {
        const std::string failure = call.runRealTime();
        if (!failure.empty())
            throw std::runtime_error("cannot start a device: " + failure + " (sonra-monitor --list shows them)");
    } else {
        const unsigned frames = call.totalFrames();
        call.run([&progress, frames](unsigned frame) {
            if (progress)
                progress(frame, frames);
        });
    }
    CallRecord records = recordsOf(call, inputs, writeHeard(options, config, call));
    if (options.report) {
        records.reportData = options.outDir + "/call-report.dat";
        writeReportData(call, records.reportData);
    }
    return records;
}

} // namespace sonracall
