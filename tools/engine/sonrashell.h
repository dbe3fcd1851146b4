// Running other programs from the tools (espeak-ng, gnuplot) through the shell.
#ifndef SONRA_SHELL_H
#define SONRA_SHELL_H

#include <string>

namespace sonratool {

// The command's exit code, -1 when it could not run.
int runCommand(const std::string& command);
// `text` as one word for the shell.
std::string quoted(const std::string& text);

} // namespace sonratool

#endif
