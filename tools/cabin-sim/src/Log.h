#pragma once

#include <string>

namespace cabinsim {

// One line on standard error, prefixed with the wall-clock time. Standard
// output is kept for the "listening" line that other tools wait for.
void logLine(const std::string& text);

}  // namespace cabinsim
