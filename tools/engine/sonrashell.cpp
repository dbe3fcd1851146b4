#include "sonrashell.h"

#include <sys/wait.h>

#include <cstdlib>

namespace sonratool {

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

} // namespace sonratool
