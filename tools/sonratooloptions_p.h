// Command-line option values shared by the tools: numbers in a range, with
// a usage error that names the option and what it wants.
#ifndef SONRA_TOOLOPTIONS_P_H
#define SONRA_TOOLOPTIONS_P_H

#include <sstream>
#include <stdexcept>
#include <string>

namespace sonratool {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline std::string plain(double value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

inline double number(const std::string& option, const std::string& text, double lowest, double highest)
{
    std::size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || !(value >= lowest && value <= highest))
        throw UsageError(option + " wants a number from " + plain(lowest) + " to " + plain(highest) + ", not \"" +
                         text + "\"");
    return value;
}

inline unsigned whole(const std::string& option, const std::string& text, double lowest, double highest)
{
    const double value = number(option, text, lowest, highest);
    if (value != static_cast<unsigned>(value))
        throw UsageError(option + " wants a whole number, not \"" + text + "\"");
    return static_cast<unsigned>(value);
}

} // namespace sonratool

#endif
