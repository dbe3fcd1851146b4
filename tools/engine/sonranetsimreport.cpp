#include "sonranetsimreport.h"

#include "sonranetsimquality.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <limits>

namespace sonranetsim {

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    // The nearest-rank value: the smallest with `fraction` of all at or below it.
    const std::size_t rank = static_cast<std::size_t>(std::ceil(fraction * values.size()));
    return values[std::min(values.size(), std::max<std::size_t>(rank, 1)) - 1];
}

double mean(const std::vector<double>& values)
{
    double sum = 0;
    for (double value : values)
        sum += value;
    return values.empty() ? 0 : sum / values.size();
}

namespace {

// dB; infinity for an exact match.
double snrOf(double signal, double noise)
{
    if (noise <= 0)
        return signal > 0 ? std::numeric_limits<double>::infinity() : 0;
    return 10 * std::log10(signal / noise);
}

// SNR of output[i + lag] against input[i] over the overlap.
double snrAtLag(const std::vector<int16_t>& input, const std::vector<int16_t>& output, long lag)
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
long bestLag(const std::vector<int16_t>& input, const std::vector<int16_t>& output, long low, long high,
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

void countPackets(const std::vector<PacketRecord>& packets, Summary& summary)
{
    summary.sent = static_cast<unsigned>(packets.size());
    for (const PacketRecord& packet : packets) {
        summary.lostInNetwork += packet.lost;
        if (!packet.arrivalTimes.empty())
            summary.duplicatesSent += static_cast<unsigned>(packet.arrivalTimes.size() - 1);
        summary.datagrams += static_cast<unsigned>(packet.arrivalTimes.size());
        if (packet.played)
            ++summary.played;
        else if (!packet.lost)
            ++summary.neverPlayed;
    }
}

void measureDelays(const std::vector<PacketRecord>& packets, Summary& summary)
{
    std::vector<double> networkDelays, delays;
    for (const PacketRecord& packet : packets) {
        for (double arrival : packet.arrivalTimes)
            networkDelays.push_back(arrival - packet.sendTime);
        if (packet.played) {
            delays.push_back(double(packet.playTime) - packet.sendTime);
            summary.maxDelay = std::max(summary.maxDelay, packet.playTime - packet.sendTime);
        }
    }
    summary.meanNetworkDelay = mean(networkDelays);
    summary.p95NetworkDelay = percentile(networkDelays, 0.95);
    summary.meanDelay = mean(delays);
    summary.p95Delay = percentile(delays, 0.95);
}

// Copies the output that graph frame `f` led to (its decoder may give it
// a frame or more later) to aligned[at...]; silence past the end.
void placeOutput(const Result& result, std::size_t f, std::size_t frameSamples, std::vector<int16_t>& aligned,
                 std::size_t at)
{
    const std::size_t from = (f + result.outputLag) * frameSamples;
    if (from + frameSamples <= result.output.size())
        std::copy(result.output.begin() + from, result.output.begin() + from + frameSamples, aligned.begin() + at);
    else
        std::fill(aligned.begin() + at, aligned.begin() + at + frameSamples, int16_t(0));
}

// Every played frame put back where its packet's input was: the codec's
// own delay is then the one lag left to find.
std::vector<int16_t> alignPlayedFrames(const Result& result, std::size_t inputFrames, unsigned sampleRate,
                                       std::size_t frameSamples)
{
    std::vector<int16_t> aligned(inputFrames * frameSamples + frameSamples, 0);
    for (std::size_t f = 0; f < result.frames.size(); ++f) {
        const FrameRecord& frame = result.frames[f];
        const std::size_t at = static_cast<std::size_t>(frame.timeStamp) * sampleRate / 1000;
        if (frame.played && at + frameSamples <= aligned.size())
            placeOutput(result, f, frameSamples, aligned, at);
    }
    return aligned;
}

// What was heard in the place of each packet's input: the played frames
// as above, and every other frame (concealment, or silence) in the place
// after the frame before it, unless a played frame holds that place. So a
// lost packet's place holds what the listener heard instead of it.
std::vector<int16_t> alignHeardFrames(const Result& result, std::size_t inputFrames, unsigned sampleRate,
                                      std::size_t frameSamples)
{
    std::vector<int16_t> aligned = alignPlayedFrames(result, inputFrames, sampleRate, frameSamples);
    std::vector<bool> held(aligned.size() / frameSamples, false);
    for (const FrameRecord& frame : result.frames) {
        const std::size_t at = static_cast<std::size_t>(frame.timeStamp) * sampleRate / 1000;
        if (frame.played && at / frameSamples < held.size())
            held[at / frameSamples] = true;
    }
    std::size_t next = aligned.size(); // sample where an unplayed frame goes; none before the first play
    for (std::size_t f = 0; f < result.frames.size(); ++f) {
        const FrameRecord& frame = result.frames[f];
        if (frame.played)
            next = static_cast<std::size_t>(frame.timeStamp) * sampleRate / 1000;
        else if (next + frameSamples <= aligned.size() && !held[next / frameSamples])
            placeOutput(result, f, frameSamples, aligned, next);
        next += frameSamples;
    }
    return aligned;
}

void measureSnr(const std::vector<int16_t>& input, unsigned sampleRate, std::size_t frameSamples, Result& result)
{
    Summary& summary = result.summary;
    const std::size_t inputFrames = (input.size() + frameSamples - 1) / frameSamples;
    const std::vector<int16_t> aligned = alignPlayedFrames(result, inputFrames, sampleRate, frameSamples);
    const std::size_t span = 10 * sampleRate; // samples judged when searching a lag
    const long frame = static_cast<long>(frameSamples);
    summary.codecDelay = static_cast<int>(bestLag(input, aligned, 0, frame, span));
    summary.snr = snrAtLag(input, aligned, summary.codecDelay);

    const long typicalLag = static_cast<long>(std::lround(summary.meanDelay * sampleRate / 1000.0)) +
                            summary.codecDelay;
    summary.fixedLag = static_cast<int>(
        bestLag(input, result.output, std::max(0L, typicalLag - frame), typicalLag + frame, span));
    summary.fixedLagSnr = snrAtLag(input, result.output, summary.fixedLag);

    const SpectralDistance distance = logSpectralDistance(
        input, alignHeardFrames(result, inputFrames, sampleRate, frameSamples), summary.codecDelay, sampleRate);
    summary.spectralDistance = distance.mean;
    summary.spectralFrames = distance.frames;
}

} // namespace

void summarise(const std::vector<int16_t>& input, unsigned sampleRate, std::size_t frameSamples, Result& result)
{
    countPackets(result.packets, result.summary);
    measureDelays(result.packets, result.summary);
    measureSnr(input, sampleRate, frameSamples, result);
}

void writeScenario(std::ostream& out, const Result& result)
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

void writeTrace(std::ostream& out, const Result& result)
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
