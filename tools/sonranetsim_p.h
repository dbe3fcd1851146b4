// The engine of sonra-netsim: plays PCM through the whole own-format path
// in one process (source, Opus encoder, sender, a simulated network,
// receiver, Opus decoder, mixer) on one pipe driven frame by frame, and
// records what happened to every packet and every graph frame. The network
// is either a seeded model or a scenario replayed line by line; for a given
// seed, input and configuration every run is identical.
//
// Time: the pipe's elapsed time, ms. A packet is sent during the graph
// frame that starts at its timestamp; a datagram is handed to the receiver
// just before the first graph frame that starts at or after its arrival
// time (so the receiver's clock stamps it with that frame's start).
#ifndef SONRA_NETSIM_P_H
#define SONRA_NETSIM_P_H

#include "sonradevnode.h"
#include "sonramixernode.h"
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <istream>
#include <limits>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace sonranetsim {

typedef boost::shared_ptr<std::vector<char> > Frame;

// xoshiro256** seeded through splitmix64: the same numbers on every
// platform and standard library, unlike std::*_distribution.
class Random {
public:
    explicit Random(uint64_t seed)
    {
        for (uint64_t& word : m_state) {
            seed += 0x9e3779b97f4a7c15ull;
            uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
            word = z ^ (z >> 31);
        }
    }
    uint64_t next()
    {
        const uint64_t result = rotl(m_state[1] * 5, 7) * 9;
        const uint64_t t = m_state[1] << 17;
        m_state[2] ^= m_state[0];
        m_state[3] ^= m_state[1];
        m_state[1] ^= m_state[2];
        m_state[0] ^= m_state[3];
        m_state[2] ^= t;
        m_state[3] = rotl(m_state[3], 45);
        return result;
    }
    // In [0, 1).
    double uniform() { return double(next() >> 11) * (1.0 / 9007199254740992.0); }
    // In (0, 1]: safe under a logarithm.
    double uniformOpen() { return 1.0 - uniform(); }
    // Draws even for a probability of 0, so that the sequence of draws does
    // not depend on the rates.
    bool chance(double probability) { return uniform() < probability; }
    double normal()
    {
        return std::sqrt(-2.0 * std::log(uniformOpen())) * std::cos(2.0 * M_PI * uniform());
    }

private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t m_state[4];
};

enum class JitterKind { None, Uniform, Normal, Exponential, Pareto };

// Rates are fractions (0..1), times ms.
struct NetworkModel {
    uint64_t seed = 1;
    double lossRate = 0;       // long-run fraction of packets lost
    double burstLength = 1;    // mean length of a loss burst, packets (1: independent losses)
    double baseDelay = 20;     // one-way delay every packet has, ms
    JitterKind jitterKind = JitterKind::None;
    double jitter = 0;         // scale of the jitter, ms: the uniform range, the normal's standard
                               // deviation (folded to positive), the exponential's mean, the Pareto's
                               // minimum (shape 2, so its mean is twice that)
    double reorderRate = 0;    // fraction of packets held back (arriving after later ones)
    double reorderDelay = 40;  // how long a held-back packet is held, ms
    double duplicateRate = 0;  // fraction of packets delivered twice
    double duplicateDelay = 5; // the copy's extra delay is uniform in [0, this), ms
    double spikeRate = 0;      // chance per packet that a delay spike starts
    double spikeHeight = 0;    // extra delay at the start of a spike, ms; it drains at 1 ms per ms,
                               // so the packets stuck behind it arrive together
};

// One line of a scenario: what happened to the packet with this sequence
// number. Several lines with one number deliver that packet several times.
struct ScenarioLine {
    unsigned seqNum = 0;
    double sendTime = 0;    // ms
    double arrivalTime = 0; // ms, unless lost
    bool lost = false;
};

// "SEQ SEND_MS ARRIVAL_MS" or "SEQ SEND_MS lost" per line, blanks or commas
// between fields; "#" starts a comment. A replayed packet keeps the
// network delay (arrival minus send) of its line, counted from the time the
// simulator sends it; a packet that no line names is lost.
inline bool parseScenario(std::istream& in, std::vector<ScenarioLine>& lines, std::string& error)
{
    std::string text;
    unsigned lineNumber = 0;
    while (std::getline(in, text)) {
        ++lineNumber;
        const std::string::size_type comment = text.find('#');
        if (comment != std::string::npos)
            text.erase(comment);
        std::replace(text.begin(), text.end(), ',', ' ');
        std::istringstream fields(text);
        std::string seqText, sendText, arrivalText, extra;
        if (!(fields >> seqText))
            continue;
        ScenarioLine line;
        std::size_t used = 0;
        try {
            const unsigned long seqNum = std::stoul(seqText, &used);
            if (used != seqText.size() || seqNum == 0 || seqNum > 0xffffffffUL)
                throw std::invalid_argument("sequence number");
            line.seqNum = static_cast<unsigned>(seqNum);
            if (!(fields >> sendText >> arrivalText) || (fields >> extra))
                throw std::invalid_argument("field count");
            line.sendTime = std::stod(sendText, &used);
            if (used != sendText.size() || !std::isfinite(line.sendTime))
                throw std::invalid_argument("send time");
            if (arrivalText == "lost") {
                line.lost = true;
            } else {
                line.arrivalTime = std::stod(arrivalText, &used);
                if (used != arrivalText.size() || !std::isfinite(line.arrivalTime) ||
                    line.arrivalTime < line.sendTime)
                    throw std::invalid_argument("arrival time");
            }
        } catch (const std::exception&) {
            error = "line " + std::to_string(lineNumber) +
                    ": expected \"SEQ SEND_MS ARRIVAL_MS\" or \"SEQ SEND_MS lost\" with SEQ >= 1 and "
                    "ARRIVAL_MS >= SEND_MS";
            return false;
        }
        lines.push_back(line);
    }
    return true;
}

enum class Codec { Opus, Pcm };

struct Config {
    unsigned sampleRate = 16000;  // Hz
    unsigned frameDuration = 20;  // ms, of graph frames and packets alike
    Codec codec = Codec::Opus;
    bool setDelays = false;       // leave the receiver's defaults unless set
    unsigned delays[4] = {60, 60, 60, 300}; // initial, min, max, extra jitter delay, ms
    NetworkModel network;
    bool useScenario = false;
    std::vector<ScenarioLine> scenario;
};

struct PacketRecord {
    unsigned seqNum = 0;
    unsigned sendTime = 0;             // ms
    bool lost = false;                 // every copy lost in the network
    std::vector<double> arrivalTimes;  // ms, one per copy delivered
    bool played = false;
    unsigned playTime = 0;             // ms, start of the graph frame that played it
};

struct FrameRecord {
    unsigned time = 0;         // ms, start of the graph frame
    unsigned datagrams = 0;    // handed to the receiver just before this frame
    bool played = false;       // the jitter buffer delivered a packet
    unsigned seqNum = 0;       // of the packet played
    unsigned timeStamp = 0;    // ms, of the packet played
    unsigned residence = 0;    // ms the played packet spent in the jitter buffer
    unsigned queued = 0;       // frames the played queue counts after the frame
};

struct Summary {
    unsigned sent = 0;
    unsigned lostInNetwork = 0;
    unsigned duplicatesSent = 0;   // extra copies the network delivered
    unsigned datagrams = 0;        // delivered to the receiver, copies included
    unsigned played = 0;
    unsigned neverPlayed = 0;      // delivered at least once, yet never played
    ombrel::SonraJbufStatistics jbuf;
    double meanNetworkDelay = 0;   // ms, over delivered copies
    double p95NetworkDelay = 0;
    double meanDelay = 0;          // ms from sending to playout, over played packets
    double p95Delay = 0;
    unsigned maxDelay = 0;
    int codecDelay = 0;            // samples the decoded signal lags the packets' input
    double snr = 0;                // dB, every played frame set against the input it carries
    double fixedLagSnr = 0;        // dB, the output as heard, at its single best lag
    int fixedLag = 0;              // samples
};

struct Result {
    std::vector<int16_t> output; // the mixer's output, one graph frame after another
    std::vector<PacketRecord> packets; // by sequence number, packets[0] is number 1
    std::vector<FrameRecord> frames;
    Summary summary;
};

namespace detail {

inline double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    // The nearest-rank value: the smallest with `fraction` of all at or below it.
    const std::size_t rank = static_cast<std::size_t>(std::ceil(fraction * values.size()));
    return values[std::min(values.size(), std::max<std::size_t>(rank, 1)) - 1];
}

inline double mean(const std::vector<double>& values)
{
    double sum = 0;
    for (double value : values)
        sum += value;
    return values.empty() ? 0 : sum / values.size();
}

// dB; infinity for an exact match.
inline double snrOf(double signal, double noise)
{
    if (noise <= 0)
        return signal > 0 ? std::numeric_limits<double>::infinity() : 0;
    return 10 * std::log10(signal / noise);
}

// SNR of output[i + lag] against input[i] over the overlap.
inline double snrAtLag(const std::vector<int16_t>& input, const std::vector<int16_t>& output, long lag)
{
    double signal = 0, noise = 0;
    for (std::size_t i = 0; i < input.size(); ++i) {
        const long j = static_cast<long>(i) + lag;
        if (j < 0 || j >= static_cast<long>(output.size()))
            continue;
        const double difference = double(output[j]) - input[i];
        signal += double(input[i]) * input[i];
        noise += difference * difference;
    }
    return snrOf(signal, noise);
}

// The lag in [low, high] (samples) at which output best matches input,
// judged on at most the first `span` samples of input.
inline long bestLag(const std::vector<int16_t>& input, const std::vector<int16_t>& output, long low, long high,
                    std::size_t span)
{
    long best = low;
    double bestScore = -2;
    const std::size_t count = std::min(input.size(), span);
    for (long lag = low; lag <= high; ++lag) {
        double cross = 0, energyIn = 0, energyOut = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const long j = static_cast<long>(i) + lag;
            if (j < 0 || j >= static_cast<long>(output.size()))
                continue;
            cross += double(input[i]) * output[j];
            energyIn += double(input[i]) * input[i];
            energyOut += double(output[j]) * output[j];
        }
        const double score = energyIn > 0 && energyOut > 0 ? cross / std::sqrt(energyIn * energyOut) : -1;
        if (score > bestScore) {
            bestScore = score;
            best = lag;
        }
    }
    return best;
}

// Gilbert-Elliott loss: a bad state that loses every packet, entered and
// left so that bursts last `burstLength` packets on average and the
// long-run loss is `lossRate`.
class LossModel {
public:
    LossModel(double lossRate, double burstLength)
    {
        const double rate = std::min(std::max(lossRate, 0.0), 1.0);
        m_leaveBad = 1.0 / std::max(burstLength, 1.0);
        m_enterBad = rate >= 1 ? 1.0 : rate * m_leaveBad / (1.0 - rate);
        m_bad = false;
    }
    bool lose(Random& random)
    {
        m_bad = m_bad ? !random.chance(m_leaveBad) : random.chance(m_enterBad);
        return m_bad;
    }

private:
    double m_enterBad, m_leaveBad;
    bool m_bad;
};

} // namespace detail

// The network between the sender's handler and the receiver: decides the
// arrival times of each packet's copies (none when lost).
class Network {
public:
    explicit Network(const Config& config)
        : m_config(config), m_random(config.network.seed),
          m_loss(config.network.lossRate, config.network.burstLength), m_spikeStart(-1)
    {
        for (const ScenarioLine& line : config.scenario)
            m_scenario.insert(std::make_pair(line.seqNum, line));
    }

    std::vector<double> arrivals(unsigned seqNum, unsigned sendTime)
    {
        return m_config.useScenario ? replayed(seqNum, sendTime) : modelled(sendTime);
    }

private:
    std::vector<double> replayed(unsigned seqNum, unsigned sendTime) const
    {
        std::vector<double> times;
        const auto range = m_scenario.equal_range(seqNum);
        for (auto line = range.first; line != range.second; ++line) {
            if (!line->second.lost)
                times.push_back(sendTime + (line->second.arrivalTime - line->second.sendTime));
        }
        return times;
    }

    double jitter()
    {
        const NetworkModel& model = m_config.network;
        switch (model.jitterKind) {
        case JitterKind::Uniform:
            return model.jitter * m_random.uniform();
        case JitterKind::Normal:
            return std::fabs(model.jitter * m_random.normal());
        case JitterKind::Exponential:
            return -model.jitter * std::log(m_random.uniformOpen());
        case JitterKind::Pareto:
            return model.jitter / std::sqrt(m_random.uniformOpen()) - model.jitter;
        case JitterKind::None:
            break;
        }
        return 0;
    }

    double spike(unsigned sendTime)
    {
        const NetworkModel& model = m_config.network;
        if (m_random.chance(model.spikeRate))
            m_spikeStart = sendTime;
        if (m_spikeStart < 0)
            return 0;
        const double left = model.spikeHeight - (sendTime - m_spikeStart);
        return left > 0 ? left : 0;
    }

    // Every packet takes the same draws, lost or not, so that changing one
    // rate does not reshuffle what the others decide. Times are rounded to
    // whole microseconds, which a scenario file carries exactly.
    std::vector<double> modelled(unsigned sendTime)
    {
        const NetworkModel& model = m_config.network;
        const bool lost = m_loss.lose(m_random);
        const double delay = model.baseDelay + jitter() + spike(sendTime);
        const bool heldBack = m_random.chance(model.reorderRate);
        const bool doubled = m_random.chance(model.duplicateRate);
        const double copyDelay = model.duplicateDelay * m_random.uniform();
        std::vector<double> times;
        if (lost)
            return times;
        times.push_back(toMicroseconds(sendTime + delay + (heldBack ? model.reorderDelay : 0)));
        if (doubled)
            times.push_back(toMicroseconds(times.back() + copyDelay));
        return times;
    }

    static double toMicroseconds(double ms) { return std::round(ms * 1000) / 1000; }

    const Config& m_config;
    Random m_random;
    detail::LossModel m_loss;
    double m_spikeStart; // ms; negative before the first spike
    std::multimap<unsigned, ScenarioLine> m_scenario;
};

// Runs `input` (mono PCM at config.sampleRate) through the path.
inline Result simulate(const std::vector<int16_t>& input, const Config& config)
{
    using namespace ombrel;
    const unsigned frameDuration = config.frameDuration; // ms
    const unsigned rate = config.sampleRate;             // Hz
    const std::size_t frameSamples = SonraNode::frameSize(frameDuration, rate) / 2;
    const std::size_t inputFrames = (input.size() + frameSamples - 1) / frameSamples;
    const boost::shared_ptr<boost::asio::io_service> io = boost::make_shared<boost::asio::io_service>();

    Result result;
    std::size_t nextInputFrame = 0;
    auto source = boost::make_shared<SonraDevNode>(
        [&]() -> Frame {
            if (nextInputFrame >= inputFrames)
                return Frame();
            auto frame = boost::make_shared<std::vector<char> >(frameSamples * 2, 0);
            const std::size_t first = nextInputFrame++ * frameSamples;
            const std::size_t count = std::min(frameSamples, input.size() - first);
            std::memcpy(frame->data(), input.data() + first, count * 2);
            return frame;
        },
        io, frameDuration, rate);
    auto sender = boost::make_shared<SonraSenderNode>(io, frameDuration, rate);
    auto receiver = boost::make_shared<SonraReceiverNode>(io, frameDuration, rate);
    auto mixer = boost::make_shared<SonraMixerNode>(io, frameDuration, rate);
    if (config.setDelays)
        receiver->setDelays(config.delays[0], config.delays[1], config.delays[2], config.delays[3]);

    auto pipe = boost::make_shared<SonraPipe>(frameDuration);
    if (config.codec == Codec::Opus) {
        auto encoder = boost::make_shared<SonraOpusEncNode>(io, frameDuration, rate);
        auto decoder = boost::make_shared<SonraOpusDecNode>(io, frameDuration, rate);
        pipe->connect(source, encoder);
        pipe->connect(encoder, sender);
        pipe->connect(receiver, decoder);
        pipe->connect(decoder, mixer);
    } else {
        pipe->connect(source, sender);
        pipe->connect(receiver, mixer);
    }

    // Datagrams by arrival time; equal times keep the order of sending.
    std::multimap<double, Frame> inFlight;
    Network network(config);
    sender->setSendHandler([&](Frame packet) {
        const SonraPacket view(packet);
        PacketRecord record;
        record.seqNum = view.m_header->seqNum;
        record.sendTime = view.m_header->timeStamp;
        record.arrivalTimes = network.arrivals(record.seqNum, record.sendTime);
        record.lost = record.arrivalTimes.empty();
        // Each copy is its own datagram, as it would come off a socket.
        for (double arrival : record.arrivalTimes)
            inFlight.insert(std::make_pair(arrival, boost::make_shared<std::vector<char> >(*packet)));
        result.packets.push_back(record);
    });

    // Past the input, run until the network is empty and the buffer has
    // played out what it can hold.
    const unsigned drainFrames = (config.setDelays ? config.delays[2] + config.delays[3] : 360) / frameDuration + 2;
    unsigned quietFrames = 0;
    for (unsigned frame = 0; frame < inputFrames || !inFlight.empty() || quietFrames < drainFrames; ++frame) {
        const unsigned now = pipe->elapsedTime(); // ms
        FrameRecord record;
        record.time = now;
        while (!inFlight.empty() && inFlight.begin()->first <= now) {
            receiver->dataReceived(inFlight.begin()->second);
            inFlight.erase(inFlight.begin());
            ++record.datagrams;
        }
        const uint64_t playedBefore = receiver->statistics().framesPlayed;
        pipe->processFrame();
        const SonraJbufStatistics stats = receiver->statistics();
        record.played = stats.framesPlayed != playedBefore;
        if (record.played) {
            record.seqNum = stats.lastSeqNum;
            record.timeStamp = stats.lastTimeStamp;
            record.residence = stats.lastResidenceTime;
            if (stats.lastSeqNum >= 1 && stats.lastSeqNum <= result.packets.size()) {
                PacketRecord& packet = result.packets[stats.lastSeqNum - 1];
                packet.played = true;
                packet.playTime = now;
            }
        }
        record.queued = stats.queuedFrames;
        result.frames.push_back(record);

        const Frame out = mixer->outputData();
        std::vector<int16_t> samples(frameSamples, 0);
        if (out)
            std::memcpy(samples.data(), out->data(), std::min(out->size(), frameSamples * 2));
        result.output.insert(result.output.end(), samples.begin(), samples.end());
        quietFrames = frame >= inputFrames && inFlight.empty() ? quietFrames + 1 : 0;
    }
    Summary& summary = result.summary;
    summary.jbuf = receiver->statistics();
    // The receiver holds the pipe as its clock: detach before letting go.
    pipe->clear();

    std::vector<double> networkDelays, delays;
    summary.sent = static_cast<unsigned>(result.packets.size());
    for (const PacketRecord& packet : result.packets) {
        summary.lostInNetwork += packet.lost;
        if (!packet.arrivalTimes.empty())
            summary.duplicatesSent += static_cast<unsigned>(packet.arrivalTimes.size() - 1);
        summary.datagrams += static_cast<unsigned>(packet.arrivalTimes.size());
        for (double arrival : packet.arrivalTimes)
            networkDelays.push_back(arrival - packet.sendTime);
        if (packet.played) {
            ++summary.played;
            delays.push_back(double(packet.playTime) - packet.sendTime);
            summary.maxDelay = std::max(summary.maxDelay, packet.playTime - packet.sendTime);
        } else if (!packet.lost) {
            ++summary.neverPlayed;
        }
    }
    summary.meanNetworkDelay = detail::mean(networkDelays);
    summary.p95NetworkDelay = detail::percentile(networkDelays, 0.95);
    summary.meanDelay = detail::mean(delays);
    summary.p95Delay = detail::percentile(delays, 0.95);

    // Every played frame put back where its packet's input was: the codec's
    // own delay is then the one lag left to find.
    std::vector<int16_t> aligned(inputFrames * frameSamples + frameSamples, 0);
    for (std::size_t f = 0; f < result.frames.size(); ++f) {
        const FrameRecord& frame = result.frames[f];
        const std::size_t at = static_cast<std::size_t>(frame.timeStamp) * rate / 1000;
        if (!frame.played || at + frameSamples > aligned.size())
            continue;
        std::copy(result.output.begin() + f * frameSamples, result.output.begin() + (f + 1) * frameSamples,
                  aligned.begin() + at);
    }
    const std::size_t span = 10 * rate; // samples judged when searching a lag
    summary.codecDelay = static_cast<int>(detail::bestLag(input, aligned, 0, static_cast<long>(frameSamples), span));
    summary.snr = detail::snrAtLag(input, aligned, summary.codecDelay);

    const long typicalLag = static_cast<long>(std::lround(summary.meanDelay * rate / 1000.0)) + summary.codecDelay;
    summary.fixedLag = static_cast<int>(detail::bestLag(input, result.output,
                                                        std::max(0L, typicalLag - long(frameSamples)),
                                                        typicalLag + long(frameSamples), span));
    summary.fixedLagSnr = detail::snrAtLag(input, result.output, summary.fixedLag);
    return result;
}

inline void writeScenario(std::ostream& out, const Result& result)
{
    out << std::fixed << std::setprecision(3);
    out << "# seq send_ms arrival_ms|lost\n";
    for (const PacketRecord& packet : result.packets) {
        if (packet.lost)
            out << packet.seqNum << ' ' << packet.sendTime << " lost\n";
        for (double arrival : packet.arrivalTimes)
            out << packet.seqNum << ' ' << packet.sendTime << ' ' << arrival << '\n';
    }
}

inline void writeTrace(std::ostream& out, const Result& result)
{
    out << "frame,time_ms,datagrams,played,seq,timestamp_ms,delay_ms,residence_ms,queued\n";
    for (std::size_t f = 0; f < result.frames.size(); ++f) {
        const FrameRecord& frame = result.frames[f];
        out << f << ',' << frame.time << ',' << frame.datagrams << ',' << (frame.played ? 1 : 0) << ',';
        if (frame.played)
            out << frame.seqNum << ',' << frame.timeStamp << ',' << (frame.time - frame.timeStamp) << ','
                << frame.residence;
        else
            out << ",,,";
        out << ',' << frame.queued << '\n';
    }
}

} // namespace sonranetsim

#endif
