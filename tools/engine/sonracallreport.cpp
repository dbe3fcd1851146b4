#include "sonracall.h"
#include "sonracallrun.h"
#include "sonrashell.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>

namespace sonracall {

using sonratool::quoted;
using sonratool::runCommand;

namespace {

double levelDb(const std::vector<int16_t>& samples, std::size_t first, std::size_t count, unsigned step)
{
    double energy = 0;
    std::size_t n = 0;
    for (std::size_t i = first; i < first + count && i < samples.size(); i += step, ++n)
        energy += double(samples[i]) * samples[i];
    const double rms = n ? std::sqrt(energy / n) : 0;
    return rms > 0 ? std::max(-90.0, 20 * std::log10(rms / 32768)) : -90.0;
}

std::string valueOrNaN(double value)
{
    return std::isnan(value) ? std::string("NaN") : std::to_string(value);
}

// Two more columns when a party sits on loudspeakers: its echo before and
// after the canceller (dBFS), NaN for the others.
std::string echoColumns(const Party& party, std::size_t frame)
{
    if (!party.loudspeakers || frame >= party.loudspeakers->echoBeforeDb().size())
        return " NaN NaN";
    return ' ' + valueOrNaN(party.loudspeakers->echoBeforeDb()[frame]) + ' ' +
           valueOrNaN(party.loudspeakers->echoAfterDb()[frame]);
}

// The echo columns of party `p` as two more series of its plot.
std::string echoSeries(unsigned p)
{
    const std::string block = ", '' index " + std::to_string(p);
    return block + " using 2:7 with lines lc rgb 'orange' title 'echo in the microphone'" + block +
           " using 2:8 with linespoints pt 7 ps 0.3 lc rgb 'black' title 'echo left by the canceller (far end alone)'";
}

} // namespace

// Per party and graph frame: levels said and heard (dBFS), packets lost on
// the way in, jitter-buffer residence of what was played (ms).
void writeReportData(const Call& call, const std::string& path)
{
    std::ofstream out(path);
    const auto& parties = call.parties();
    const bool echo = std::any_of(parties.begin(), parties.end(), [](const std::unique_ptr<Party>& party) {
        return bool(party->loudspeakers);
    });
    out << "# party time_s said_dbfs heard_dbfs lost jbuf_ms" << (echo ? " echo_before_dbfs echo_after_dbfs" : "")
        << "\n";
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
            if (echo)
                out << echoColumns(party, f);
            out << '\n';
        }
        out << "\n\n"; // one gnuplot data block per party
    }
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
}

void plotReport(const std::string& dataPath, unsigned parties, const std::string& picture,
                const std::vector<bool>& loudspeakers)
{
    const unsigned n = parties;
    std::string script = "set terminal pngcairo size 1000," + std::to_string(260 * n) + " font ',9'\n" +
                         "set output '" + picture + "'\nset multiplot layout " + std::to_string(n) + ",1\n" +
                         "set xlabel 'time (s)'; set ylabel 'level (dBFS)'; set yrange [-80:0]\n" +
                         "set y2label 'jitter buffer (ms) / losses'; set y2range [0:*]; set y2tics; set key outside\n";
    for (unsigned p = 0; p < n; ++p)
        script += "set title 'party " + std::to_string(p + 1) + "'\nplot '" + dataPath + "' index " +
                  std::to_string(p) + " using 2:3 with lines title 'said', '' index " + std::to_string(p) +
                  " using 2:4 with lines title 'heard', '' index " + std::to_string(p) +
                  " using 2:6 axes x1y2 with points pt 7 ps 0.3 title 'jitter buffer ms', '' index " +
                  std::to_string(p) + " using 2:($5>0?-75:NaN) with points pt 2 ps 0.6 title 'packet lost'" +
                  (p < loudspeakers.size() && loudspeakers[p] ? echoSeries(p) : std::string()) + "\n";
    script += "unset multiplot\n";
    const std::string scriptPath = dataPath + ".gp";
    std::ofstream(scriptPath) << script;
    if (runCommand("gnuplot " + quoted(scriptPath) + " 2>/dev/null") != 0)
        throw std::runtime_error("gnuplot could not draw " + picture + " (is gnuplot installed? --no-report skips it)");
}

} // namespace sonracall
