// sonra-call: a voice call, or a conference, of parties that each run a
// whole client's graph (microphone through noise suppression, volume, Opus
// and sender; receivers with their jitter buffers, decoders, a mixer with a
// notification sound, volume and playback), joined by the seeded network
// model of sonra-netsim. Writes what every party heard, a report picture,
// and prints a summary per party.
#include "sonracall_p.h"
#include "sonrasoundfile_p.h"
#include "sonratooloptions_p.h"

#include "shared.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using sonracall::FRAME_MS;
using sonracall::FRAME_SAMPLES;
using sonracall::RATE;
using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

const char* const USAGE =
    "usage: sonra-call [options]\n"
    "\n"
    "Runs a voice call (or a conference) between parties that each run a whole client:\n"
    "microphone, noise suppression, volume, Opus encoder and sender; per peer a receiver\n"
    "with its adaptive jitter buffer and an Opus decoder; a mixer with a notification\n"
    "sound; volume and playback. A seeded network model joins every two parties. The\n"
    "call runs faster than real time on virtual devices and gives the same result for\n"
    "the same seed.\n"
    "\n"
    "parties:\n"
    "  --parties N            parties in the call (2)\n"
    "  --input FILE           a party's microphone, any sound file libsndfile reads; once per\n"
    "                         party, in order (default: speech espeak-ng makes, one voice each)\n"
    "  --seconds S            length of the call before the hang-up (the longest input)\n"
    "  --voice P:V            pitch party P's voice: lower, lowest, higher or highest\n"
    "  --reverb P             an echo on party P's voice\n"
    "  --haas P:MS            party P hears in stereo, widened by a Haas delay of MS ms\n"
    "  --hold FILE            hold music every party hears, looped, under the call\n"
    "network (every direction between two parties is one leg):\n"
    "  --seed N               seed of the first leg; leg k draws from N + k (1)\n"
    "  --loss PCT             long-run packet loss (0)\n"
    "  --burst N              mean loss burst length, packets (1)\n"
    "  --delay MS             base one-way delay (20)\n"
    "  --jitter MS            normal jitter, standard deviation (0)\n"
    "  --scenario FILE        replay a scenario on every leg, as sonra-netsim --scenario\n"
    "  --delays I,MIN,MAX,X   jitter buffer delays, ms (the receiver's own defaults)\n"
    "  --recovery on|off      jitter buffers re-anchor on a restarted or re-numbered stream (on)\n"
    "  --policy fixed|adaptive  jitter buffers play the initial delay, or follow the network (fixed)\n"
    "  --rtp                  G.711 over RTP with the RTP nodes, through UDP sockets on 127.0.0.1:\n"
    "                         the sockets are the network; the model above does not apply\n"
    "output:\n"
    "  --out DIR              where the outputs go (sonra-call-out)\n"
    "  --no-report            no call-report.png\n"
    "  --quiet                no summary\n";

struct EffectOptions {
    std::vector<std::string> voice;   // by party, empty: none
    std::vector<bool> reverb;
    std::vector<unsigned> haas;
};

struct Options {
    unsigned parties = 2;
    std::vector<std::string> inputs;
    double seconds = 0; // 0: from the inputs
    std::string hold;
    std::string scenarioFile;
    std::string outDir = "sonra-call-out";
    bool report = true;
    bool quiet = false;
    bool realTime = false;
    bool rtp = false;
    bool recovery = true;
    bool adaptive = false;
    std::string capture, playback; // party 1's devices in real time; empty: a sound card when there is one
    sonranetsim::Config net;
    std::vector<std::pair<std::string, std::string> > effects; // option, value: checked once parties are known
};

unsigned partyOf(const std::string& option, const std::string& text, unsigned parties)
{
    return whole(option, text, 1, parties) - 1;
}

std::pair<unsigned, std::string> partyAndValue(const std::string& option, const std::string& value,
                                               unsigned parties)
{
    const std::string::size_type colon = value.find(':');
    if (colon == std::string::npos)
        throw UsageError(option + " wants PARTY:VALUE, not \"" + value + "\"");
    return {partyOf(option, value.substr(0, colon), parties), value.substr(colon + 1)};
}

ombrel::SonraVoiceChangeNode::Voice voiceOf(const std::string& name)
{
    using V = ombrel::SonraVoiceChangeNode;
    if (name == "lower")
        return V::LOWER;
    if (name == "lowest")
        return V::LOWEST;
    if (name == "higher")
        return V::HIGHER;
    if (name == "highest")
        return V::HIGHEST;
    throw UsageError("--voice: expected lower, lowest, higher or highest, not \"" + name + "\"");
}

void applyEffects(const Options& options, std::vector<sonracall::PartyConfig>& parties)
{
    for (const auto& effect : options.effects) {
        const std::string& option = effect.first;
        if (option == "--reverb") {
            parties[partyOf(option, effect.second, options.parties)].reverb = true;
            continue;
        }
        const auto target = partyAndValue(option, effect.second, options.parties);
        if (option == "--voice") {
            parties[target.first].changeVoice = true;
            parties[target.first].voice = voiceOf(target.second);
        } else {
            parties[target.first].haasMs = whole(option, target.second, 1, 100);
        }
    }
}

void parseDelays(const std::string& value, sonranetsim::Config& net)
{
    std::string rest = value + ",";
    for (unsigned& delay : net.delays) {
        const std::string::size_type comma = rest.find(',');
        if (comma == std::string::npos)
            throw UsageError("--delays: expected four values, initial,min,max,extra");
        delay = whole("--delays", rest.substr(0, comma), 0, 60000);
        rest.erase(0, comma + 1);
    }
    if (!rest.empty())
        throw UsageError("--delays: expected four values, initial,min,max,extra");
    for (unsigned delay : net.delays)
        if (delay % FRAME_MS != 0)
            throw UsageError("--delays: every delay must be a multiple of 20 ms");
    if (!(net.delays[2] >= net.delays[0] && net.delays[0] >= net.delays[1] && net.delays[1] > 0))
        throw UsageError("--delays: need maximum >= initial >= minimum > 0");
    net.setDelays = true;
}

void jitterBufferOption(const std::string& option, const std::string& value, Options& options)
{
    const bool recovery = option == "--recovery";
    const std::string first = recovery ? "on" : "fixed", second = recovery ? "off" : "adaptive";
    if (value != first && value != second)
        throw UsageError(option + ": expected " + first + " or " + second + ", not \"" + value + "\"");
    (recovery ? options.recovery : options.adaptive) = recovery ? value == first : value == second;
}

bool networkOption(const std::string& option, const std::string& value, Options& options)
{
    sonranetsim::NetworkModel& model = options.net.network;
    if (option == "--seed")
        model.seed = whole(option, value, 0, 4294967295.0);
    else if (option == "--loss")
        model.lossRate = number(option, value, 0, 100) / 100;
    else if (option == "--burst")
        model.burstLength = number(option, value, 1, 1e6);
    else if (option == "--delay")
        model.baseDelay = number(option, value, 0, 60000);
    else if (option == "--jitter")
        model.jitter = number(option, value, 0, 60000);
    else if (option == "--scenario")
        options.scenarioFile = value;
    else if (option == "--delays")
        parseDelays(value, options.net);
    else if (option == "--recovery" || option == "--policy")
        jitterBufferOption(option, value, options);
    else
        return false;
    return true;
}

bool callOption(const std::string& option, const std::string& value, Options& options)
{
    if (option == "--parties")
        options.parties = whole(option, value, 2, 16);
    else if (option == "--input")
        options.inputs.push_back(value);
    else if (option == "--seconds")
        options.seconds = number(option, value, 0.1, 86400);
    else if (option == "--hold")
        options.hold = value;
    else if (option == "--out")
        options.outDir = value;
    else if (option == "--capture")
        options.capture = value;
    else if (option == "--playback")
        options.playback = value;
    else if (option == "--voice" || option == "--reverb" || option == "--haas")
        options.effects.emplace_back(option, value);
    else
        return false;
    return true;
}

Options parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            std::cout << USAGE;
            std::exit(0);
        }
        if (option == "--rtp") {
            options.rtp = true;
            continue;
        }
        if (option == "--quiet" || option == "--no-report" || option == "--realtime") {
            (option == "--quiet" ? options.quiet : option == "--realtime" ? options.realTime : options.report) =
                option != "--no-report";
            continue;
        }
        if (i + 1 >= argc)
            throw UsageError(option + " wants a value");
        const std::string value = argv[++i];
        if (!callOption(option, value, options) && !networkOption(option, value, options))
            throw UsageError("unknown option \"" + option + "\"");
    }
    if (options.inputs.size() > options.parties)
        throw UsageError("more --input files than --parties");
    if (!options.realTime && !(options.capture.empty() && options.playback.empty()))
        throw UsageError("--capture and --playback need --realtime");
    sonranetsim::NetworkModel& model = options.net.network;
    model.jitterKind = model.jitter > 0 ? sonranetsim::JitterKind::Normal : sonranetsim::JitterKind::None;
    std::vector<sonracall::PartyConfig> check(options.parties);
    applyEffects(options, check); // usage errors now, before any work
    return options;
}

void makeDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    const std::string probe = path + "/.sonra-call-probe";
    if (!std::ofstream(probe))
        throw std::runtime_error("cannot write into " + path);
    std::remove(probe.c_str());
}

int runCommand(const std::string& command)
{
    const int status = std::system(command.c_str());
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string quoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
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

sonracall::CallConfig callConfig(const Options& options, std::vector<std::string>& inputs)
{
    sonracall::CallConfig config;
    config.net = options.net;
    config.recovery = options.recovery;
    config.adaptive = options.adaptive;
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
void chooseDevices(const Options& options, sonracall::CallConfig& config)
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

// One updating line on a terminal, for calls longer than a few seconds.
struct Progress {
    explicit Progress(unsigned frames) : frames(frames), shown(::isatty(1) && frames * FRAME_MS > 5000) {}
    void operator()(unsigned frame)
    {
        if (!shown || (frame + 1) % 25 != 0)
            return;
        std::printf("\rcall: %.1f of %.1f s", (frame + 1) * FRAME_MS / 1000.0, frames * FRAME_MS / 1000.0);
        std::fflush(stdout);
    }
    ~Progress()
    {
        if (shown)
            std::printf("\r%40s\r", "");
    }
    unsigned frames;
    bool shown;
};

double levelDb(const std::vector<int16_t>& samples, std::size_t first, std::size_t count, unsigned step)
{
    double energy = 0;
    std::size_t n = 0;
    for (std::size_t i = first; i < first + count && i < samples.size(); i += step, ++n)
        energy += double(samples[i]) * samples[i];
    const double rms = n ? std::sqrt(energy / n) : 0;
    return rms > 0 ? std::max(-90.0, 20 * std::log10(rms / 32768)) : -90.0;
}

// Per party and graph frame: levels said and heard (dBFS), packets lost on
// the way in, jitter-buffer residence of what was played (ms).
void writeReportData(const sonracall::Call& call, const std::string& path)
{
    std::ofstream out(path);
    out << "# party time_s said_dbfs heard_dbfs lost jbuf_ms\n";
    const auto& parties = call.parties();
    for (std::size_t p = 0; p < parties.size(); ++p) {
        const auto& party = *parties[p];
        const std::size_t frames = party.said.size() / FRAME_SAMPLES;
        std::vector<unsigned> lost(frames, 0);
        std::vector<double> residence(frames, -1);
        for (const auto& leg : call.legs()) {
            if (leg->to != p)
                continue;
            for (const auto& packet : leg->result.packets)
                if (packet.lost && packet.sendTime / FRAME_MS < frames)
                    ++lost[packet.sendTime / FRAME_MS];
            for (std::size_t f = 0; f < leg->result.frames.size() && f < frames; ++f)
                if (leg->result.frames[f].played)
                    residence[f] = std::max(residence[f], double(leg->result.frames[f].residence));
        }
        for (std::size_t f = 0; f < frames; ++f) {
            out << p + 1 << ' ' << f * FRAME_MS / 1000.0 << ' ' << levelDb(party.said, f * FRAME_SAMPLES, FRAME_SAMPLES, 1)
                << ' '
                << (party.heard.empty() ? std::string("NaN") // played by the device itself, in real time
                                        : std::to_string(levelDb(party.heard, f * FRAME_SAMPLES * party.playbackChannels,
                                                                 FRAME_SAMPLES * party.playbackChannels, 1)))
                << ' ' << lost[f] << ' ';
            if (residence[f] >= 0)
                out << residence[f];
            else
                out << "NaN";
            out << '\n';
        }
        out << "\n\n"; // one gnuplot data block per party
    }
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
}

void plotReport(const sonracall::Call& call, const std::string& dataPath, const std::string& picture)
{
    writeReportData(call, dataPath);
    const unsigned n = unsigned(call.parties().size());
    std::string script = "set terminal pngcairo size 1000," + std::to_string(260 * n) + " font ',9'\n" +
                         "set output '" + picture + "'\nset multiplot layout " + std::to_string(n) + ",1\n" +
                         "set xlabel 'time (s)'; set ylabel 'level (dBFS)'; set yrange [-80:0]\n" +
                         "set y2label 'jitter buffer (ms) / losses'; set y2range [0:*]; set y2tics; set key outside\n";
    for (unsigned p = 0; p < n; ++p)
        script += "set title 'party " + std::to_string(p + 1) + "'\nplot '" + dataPath + "' index " +
                  std::to_string(p) + " using 2:3 with lines title 'said', '' index " + std::to_string(p) +
                  " using 2:4 with lines title 'heard', '' index " + std::to_string(p) +
                  " using 2:6 axes x1y2 with points pt 7 ps 0.3 title 'jitter buffer ms', '' index " +
                  std::to_string(p) + " using 2:($5>0?-75:NaN) with points pt 2 ps 0.6 title 'packet lost'\n";
    script += "unset multiplot\n";
    const std::string scriptPath = dataPath + ".gp";
    std::ofstream(scriptPath) << script;
    if (runCommand("gnuplot " + quoted(scriptPath) + " 2>/dev/null") != 0)
        throw std::runtime_error("gnuplot could not draw " + picture + " (is gnuplot installed? --no-report skips it)");
}

std::string decibels(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, std::isinf(value) ? "exact" : "%.1f dB", value);
    return text;
}

double residencePercentile(const sonranetsim::Result& result, double fraction, double* mean)
{
    std::vector<double> values;
    for (const auto& frame : result.frames)
        if (frame.played)
            values.push_back(frame.residence);
    if (values.empty())
        return *mean = 0;
    std::sort(values.begin(), values.end());
    double sum = 0;
    for (double v : values)
        sum += v;
    *mean = sum / values.size();
    const std::size_t rank = std::size_t(std::ceil(fraction * values.size()));
    return values[std::max<std::size_t>(rank, 1) - 1];
}

void printSummary(const sonracall::Call& call, const std::vector<std::string>& inputs,
                  const std::vector<std::string>& heardPaths)
{
    const auto& parties = call.parties();
    for (std::size_t p = 0; p < parties.size(); ++p) {
        const auto& party = *parties[p];
        const std::size_t frames = party.said.size() / FRAME_SAMPLES;
        std::printf("party %zu  said %s, heard -> %s\n", p + 1, inputs[p].c_str(), heardPaths[p].c_str());
        for (const auto& leg : call.legs()) {
            if (leg->to != p)
                continue;
            if (!leg->receiver) {
                std::printf("  from party %u over RTP: sent %u datagrams, received %u\n", leg->from + 1, leg->rtpSent,
                            leg->rtpReceived);
                continue;
            }
            const sonranetsim::Summary& s = leg->result.summary;
            double mean = 0;
            const double p95 = residencePercentile(leg->result, 0.95, &mean);
            std::printf("  from party %u: sent %u, lost %u, late %llu, played %u; jitter buffer %.1f ms mean, "
                        "%.1f ms p95; heard vs said %s\n",
                        leg->from + 1, s.sent, s.lostInNetwork, static_cast<unsigned long long>(s.jbuf.framesTooOld),
                        s.played, mean, p95, decibels(s.snr).c_str());
        }
        std::printf("  limiter cut in %u of %zu frames\n", party.limiterCuts, frames);
    }
}

int runCall(const Options& options)
{
    makeDirectory(options.outDir);
    std::vector<std::string> inputs;
    sonracall::CallConfig config = callConfig(options, inputs);
    if (options.realTime)
        chooseDevices(options, config);
    sonracall::Call call(config);
    if (options.realTime) {
        const std::string failure = call.runRealTime();
        if (!failure.empty())
            throw std::runtime_error("cannot start a device: " + failure + " (sonra-monitor --list shows them)");
    } else {
        Progress progress(call.totalFrames());
        call.run(std::ref(progress));
    }
    std::vector<std::string> heardPaths;
    for (std::size_t p = 0; p < call.parties().size(); ++p) {
        heardPaths.push_back(options.outDir + "/party-" + std::to_string(p + 1) + ".wav");
        if (options.realTime && config.devices[p].second.empty())
            heardPaths.back() = "the sound card";
        else if (!options.realTime)
            sonratool::writeWav(heardPaths.back(), call.parties()[p]->heard, RATE, call.parties()[p]->playbackChannels);
    }
    if (!options.quiet)
        printSummary(call, inputs, heardPaths);
    const std::string picture = options.outDir + "/call-report.png";
    if (options.report)
        plotReport(call, options.outDir + "/call-report.dat", picture);
    if (!options.quiet) {
        std::printf("\noutputs in %s/: party-N.wav (what party N heard), call.ogg (party 1's side of the call)",
                    options.outDir.c_str());
        std::printf(options.report ? ", call-report.png (levels, losses, jitter buffer over time)\n" : "\n");
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    ombrel::setLogSink([](const ombrel::LogRecord&) {}); // the tool says what went wrong itself
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "sonra-call: %s (--help lists the options)\n", error.what());
        return 2;
    }
    try {
        return runCall(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sonra-call: %s\n", error.what());
        return 1;
    }
}
