#include "sonranetsimscenario.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

namespace sonranetsim {

namespace {

std::string withoutComment(std::string text)
{
    const std::string::size_type comment = text.find('#');
    if (comment != std::string::npos)
        text.erase(comment);
    std::replace(text.begin(), text.end(), ',', ' ');
    return text;
}

unsigned parseSeqNum(const std::string& text)
{
    std::size_t used = 0;
    const unsigned long seqNum = std::stoul(text, &used);
    if (used != text.size() || seqNum == 0 || seqNum > 0xffffffffUL)
        throw std::invalid_argument("sequence number");
    return static_cast<unsigned>(seqNum);
}

double parseTime(const std::string& text, const char* what)
{
    std::size_t used = 0;
    const double time = std::stod(text, &used);
    if (used != text.size() || !std::isfinite(time))
        throw std::invalid_argument(what);
    return time;
}

// Throws std::invalid_argument or std::out_of_range on a malformed line.
ScenarioLine parseLine(const std::string& seqText, std::istringstream& fields)
{
    ScenarioLine line;
    std::string sendText, arrivalText, extra;
    line.seqNum = parseSeqNum(seqText);
    if (!(fields >> sendText >> arrivalText) || (fields >> extra))
        throw std::invalid_argument("field count");
    line.sendTime = parseTime(sendText, "send time");
    if (arrivalText == "lost") {
        line.lost = true;
        return line;
    }
    line.arrivalTime = parseTime(arrivalText, "arrival time");
    if (line.arrivalTime < line.sendTime)
        throw std::invalid_argument("arrival time");
    return line;
}

} // namespace

bool parseScenario(std::istream& in, std::vector<ScenarioLine>& lines, std::string& error)
{
    std::string text;
    unsigned lineNumber = 0;
    while (std::getline(in, text)) {
        ++lineNumber;
        std::istringstream fields(withoutComment(text));
        std::string seqText;
        if (!(fields >> seqText))
            continue;
        try {
            lines.push_back(parseLine(seqText, fields));
        } catch (const std::exception&) {
            error = "line " + std::to_string(lineNumber) +
                    ": expected \"SEQ SEND_MS ARRIVAL_MS\" or \"SEQ SEND_MS lost\" with SEQ >= 1 and "
                    "ARRIVAL_MS >= SEND_MS";
            return false;
        }
    }
    return true;
}

} // namespace sonranetsim
