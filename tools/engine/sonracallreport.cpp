#include "sonracall.h"
#include "sonracallrun.h"
#include "sonralistening.h"
#include "sonrashell.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace sonracall {

using sonratool::quoted;
using sonratool::runCommand;

namespace {

// A panel's vertical layout: the bottom share of its height is a band of
// event rows (lost, late, rebuilt, concealed); the levels and the jitter
// buffer's delay fill the rest, so that neither lies on the bottom axis.
const double EVENT_BAND = 0.3;      // share of the panel's height
const double DELAY_ZERO = 0.4;      // share of the height below 0 ms: apart from the levels' floor
const unsigned EVENT_ROWS = 4;      // lost, late, rebuilt, concealed
const double LEVEL_FLOOR_DB = -90;  // dBFS, what silence measures
const char* const ROW_NAMES[EVENT_ROWS] = {"lost", "late", "FEC rebuilt", "concealed"};
const int ROW_POINTS[EVENT_ROWS] = {2, 6, 8, 4}; // gnuplot point types: cross, circle, triangle, square
const char* const DIRECTION_COLOURS[] = {"#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b", "#e377c2"};

double levelDb(const std::vector<int16_t>& samples, std::size_t first, std::size_t count, unsigned step)
{
    double energy = 0;
    std::size_t n = 0;
    for (std::size_t i = first; i < first + count && i < samples.size(); i += step, ++n)
        energy += double(samples[i]) * samples[i];
    const double rms = n ? std::sqrt(energy / n) : 0;
    return rms > 0 ? std::max(LEVEL_FLOOR_DB, 20 * std::log10(rms / 32768)) : LEVEL_FLOOR_DB;
}

// What one party heard from one peer, per graph frame of the party.
struct Direction {
    unsigned from = 0;
    bool rtp = false;
    std::vector<double> residenceMs; // NaN where nothing was played
    std::vector<unsigned> rows;      // bit per event row
    std::string caption;             // MOS and counts, for the title line
    double deepestMs = 0;
};

// Lost and late packets are drawn where they would have played: their
// sending frame plus the direction's mean delay from sending to playout.
void markPackets(const Leg& leg, std::size_t frames, Direction& direction)
{
    const unsigned shift = unsigned(std::lround(leg.result.summary.meanDelay / FRAME_MS));
    for (const auto& packet : leg.result.packets) {
        const std::size_t f = packet.sendTime / FRAME_MS + shift;
        if (f < frames && !packet.played)
            direction.rows[f] |= packet.lost ? 1u : 2u;
    }
}

Direction directionOf(const Leg& leg, const sonranetsim::PathSettings& settings, std::size_t frames)
{
    Direction direction;
    direction.from = leg.from;
    direction.rtp = !leg.receiver;
    direction.residenceMs.assign(frames, NAN);
    direction.rows.assign(frames, 0);
    char caption[160];
    if (direction.rtp) {
        std::snprintf(caption, sizeof caption, "party %u over RTP", leg.from + 1);
        direction.caption = caption;
        return direction;
    }
    const sonranetsim::Listening heard = sonranetsim::listeningOf(leg.result, settings);
    const auto& records = leg.result.frames;
    for (std::size_t f = 0; f < records.size() && f < frames; ++f) {
        if (records[f].played) {
            direction.residenceMs[f] = records[f].residence;
            direction.deepestMs = std::max(direction.deepestMs, double(records[f].residence));
        }
        direction.rows[f] |= heard.fates[f] == sonranetsim::FrameFate::Rebuilt ? 4u : 0u;
        direction.rows[f] |= heard.fates[f] == sonranetsim::FrameFate::Concealed ? 8u : 0u;
    }
    markPackets(leg, frames, direction);
    const sonranetsim::Summary& s = leg.result.summary;
    std::snprintf(caption, sizeof caption, "party %u: MOS %.2f, lost %u, late %llu, FEC %u, concealed %u",
                  leg.from + 1, heard.rating.mos, s.lostInNetwork, static_cast<unsigned long long>(s.jbuf.framesTooOld),
                  heard.rebuilt, heard.concealed);
    direction.caption = caption;
    return direction;
}

// The jitter buffer axis's top: a step above the deepest delay drawn, so
// that no point sits on the border.
unsigned delayAxisTop(const std::vector<Direction>& directions)
{
    double deepest = 0;
    for (const Direction& d : directions)
        deepest = std::max(deepest, d.deepestMs);
    return (unsigned(deepest) / FRAME_MS + 1) * FRAME_MS;
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

void writeParty(std::ostream& out, const Party& party, const std::vector<Direction>& directions, std::size_t p,
                bool echo)
{
    std::string title = "party " + std::to_string(p + 1) + " hears";
    for (std::size_t k = 0; k < directions.size(); ++k)
        title += (k ? "  |  " : "  ") + directions[k].caption;
    out << "#! " << delayAxisTop(directions) << ' ' << directions.size();
    for (const Direction& d : directions)
        out << ' ' << d.from + 1;
    out << ' ' << title << '\n';
    for (std::size_t f = 0; f < directions.front().rows.size(); ++f) {
        out << f * FRAME_MS / 1000.0 << ' ' << levelDb(party.said, f * FRAME_SAMPLES, FRAME_SAMPLES, 1) << ' ';
        if (party.heard.empty())
            out << "NaN"; // played by the device itself, in real time
        else
            out << levelDb(party.heard, f * FRAME_SAMPLES * party.playbackChannels,
                           FRAME_SAMPLES * party.playbackChannels, 1);
        for (const Direction& d : directions) {
            out << ' ';
            if (std::isnan(d.residenceMs[f]))
                out << "NaN";
            else
                out << d.residenceMs[f];
            out << ' ' << d.rows[f];
        }
        if (echo)
            out << echoColumns(party, f);
        out << '\n';
    }
    out << "\n\n"; // one gnuplot data block per party
}

// One party's panel. Columns: 1 time, 2 said, 3 heard, then per direction
// its jitter buffer delay and its event rows as bits.
struct Panel {
    unsigned delayTop = FRAME_MS; // ms
    std::vector<unsigned> peers;  // parties heard, from 1
    std::string title;
};

std::vector<Panel> readPanels(const std::string& dataPath)
{
    std::ifstream in(dataPath);
    std::vector<Panel> panels;
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 3, "#! ") != 0)
            continue;
        std::istringstream fields(line.substr(3));
        Panel panel;
        std::size_t count = 0;
        fields >> panel.delayTop >> count;
        panel.peers.resize(count);
        for (unsigned& peer : panel.peers)
            fields >> peer;
        std::getline(fields >> std::ws, panel.title);
        panels.push_back(panel);
    }
    return panels;
}

std::string number(double value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

// The right axis: the jitter buffer's delay above 0 ms, the event rows'
// names in the band below it.
std::string delayAxis(const Panel& panel, double& bandBottom, double& rowHeight)
{
    const double top = panel.delayTop;
    const double range = top / (1 - DELAY_ZERO);
    bandBottom = -range * DELAY_ZERO;
    rowHeight = range * EVENT_BAND / EVENT_ROWS;
    const unsigned step = std::max(FRAME_MS, (unsigned(top) / 4 + FRAME_MS - 1) / FRAME_MS * FRAME_MS);
    std::string axis = "set y2range [" + number(bandBottom) + ":" + number(top) + "]\nset y2tics 0," +
                       std::to_string(step) + "," + number(top) + " nomirror\n";
    for (unsigned row = 0; row < EVENT_ROWS; ++row)
        axis += "set y2tics add ('" + std::string(ROW_NAMES[row]) + "' " +
                number(bandBottom + (row + 0.5) * rowHeight) + ")\n";
    return axis;
}

std::string panelScript(const std::string& dataPath, const Panel& panel, unsigned index, const std::string& extra)
{
    double bandBottom = 0, rowHeight = 0;
    std::string script = "set title \"" + panel.title + "\"\n" + delayAxis(panel, bandBottom, rowHeight);
    const std::string block = "'" + dataPath + "' index " + std::to_string(index);
    script += "plot " + block + " using 1:2 with lines lc rgb '#b0b0b0' title 'said', " + block +
              " using 1:3 with lines lc rgb '#303030' title 'heard'";
    for (std::size_t k = 0; k < panel.peers.size(); ++k) {
        const std::string colour = DIRECTION_COLOURS[k % (sizeof DIRECTION_COLOURS / sizeof *DIRECTION_COLOURS)];
        const std::string delay = std::to_string(4 + 2 * k), rows = std::to_string(5 + 2 * k);
        script += ", " + block + " using 1:" + delay + " axes x1y2 with points pt 7 ps 0.35 lc rgb '" + colour +
                  "' title 'from party " + std::to_string(panel.peers[k]) + ": jitter buffer ms'";
        for (unsigned row = 0; row < EVENT_ROWS; ++row) {
            // Each direction a little apart within the row, so that both show.
            const double y = bandBottom + (row + 0.3 + 0.4 * (k + 1) / (panel.peers.size() + 1)) * rowHeight;
            script += ", " + block + " using 1:((int($" + rows + ")&" + std::to_string(1u << row) + ")?" + number(y) +
                      ":NaN) axes x1y2 with points pt " + std::to_string(ROW_POINTS[row]) + " ps 0.5 lc rgb '" +
                      colour + "' notitle";
        }
    }
    return script + extra + "\n";
}

// The echo columns, after every direction's two, as two more level series.
std::string echoSeries(const Panel& panel, unsigned index, const std::string& dataPath)
{
    const std::string block = ", '" + dataPath + "' index " + std::to_string(index);
    const std::string before = std::to_string(4 + 2 * panel.peers.size()), after = std::to_string(5 + 2 * panel.peers.size());
    return block + " using 1:" + before + " with lines lc rgb 'orange' title 'echo in the microphone'" + block +
           " using 1:" + after + " with linespoints pt 7 ps 0.3 lc rgb 'black' title 'echo left (far end alone)'";
}

} // namespace

// Per party: a header line for its panel (the delay axis's top, the peers,
// the title with MOS and counts), then per graph frame the levels said and
// heard (dBFS) and per peer the jitter buffer's delay (ms) and its events.
void writeReportData(const Call& call, const std::string& path)
{
    std::ofstream out(path);
    const auto& parties = call.parties();
    const bool echo = std::any_of(parties.begin(), parties.end(), [](const std::unique_ptr<Party>& party) {
        return bool(party->loudspeakers);
    });
    out << "# time_s said_dbfs heard_dbfs, then per peer: jbuf_ms events (1 lost, 2 late, 4 FEC rebuilt, "
           "8 concealed)"
        << (echo ? ", then echo_before_dbfs echo_after_dbfs" : "") << "\n";
    for (std::size_t p = 0; p < parties.size(); ++p) {
        const std::size_t frames = parties[p]->said.size() / FRAME_SAMPLES;
        std::vector<Direction> directions;
        for (const auto& leg : call.legs())
            if (leg->to == p)
                directions.push_back(directionOf(*leg, call.config().net, frames));
        writeParty(out, *parties[p], directions, p, echo);
    }
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
}

void plotReport(const std::string& data, unsigned parties, const std::string& png,
                const std::vector<bool>& loudspeakers)
{
    // Absolute paths in the script, so that it draws the picture again from any folder.
    const std::string dataPath = std::filesystem::absolute(data).string();
    const std::string picture = std::filesystem::absolute(png).string();
    const std::vector<Panel> panels = readPanels(dataPath);
    if (panels.size() != parties)
        throw std::runtime_error("the report's data in " + dataPath + " does not hold " + std::to_string(parties) +
                                 " parties");
    std::string script = "set terminal pngcairo size 1000," + std::to_string(280 * parties) + " font ',9'\n" +
                         "set output '" + picture + "'\nset multiplot layout " + std::to_string(parties) + ",1\n" +
                         "set xlabel 'time at the listener (s)' offset 0,0.5; set xrange [0:*] noextend\n" +
                         "set ylabel 'level (dBFS)'; set ytics -90,30,0 nomirror\n" +
                         "set yrange [" + number(LEVEL_FLOOR_DB / (1 - EVENT_BAND)) + ":0]\n" +
                         "set y2label 'jitter buffer delay (ms)'\n" +
                         "set key outside top center horizontal maxrows 1 samplen 2\n";
    for (unsigned p = 0; p < parties; ++p)
        script += panelScript(dataPath, panels[p], p,
                              p < loudspeakers.size() && loudspeakers[p] ? echoSeries(panels[p], p, dataPath) : "");
    script += "unset multiplot\n";
    const std::string scriptPath = dataPath + ".gp";
    std::ofstream(scriptPath) << script;
    if (runCommand("gnuplot " + quoted(scriptPath) + " 2>/dev/null") != 0)
        throw std::runtime_error("gnuplot could not draw " + picture + " (is gnuplot installed? --no-report skips it)");
}

} // namespace sonracall
