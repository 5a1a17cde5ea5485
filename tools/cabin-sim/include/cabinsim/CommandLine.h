#pragma once

#include "cabinsim/Server.h"

#include <optional>
#include <string>
#include <vector>

namespace cabinsim {

struct CommandLine {
  ServerOptions options;
  bool help = false;
};

// Parses the simulator's arguments (without the program name). Accepts
// "--flag value" and "--flag=value". On a mistake returns nothing and says
// why in `error`.
//
// Threading: pure function.
//
//   std::string error;
//   auto line = cabinsim::parseCommandLine({"--port", "0", "--interval", "0.2"}, error);
std::optional<CommandLine> parseCommandLine(const std::vector<std::string>& args, std::string& error);

// The --help text.
std::string usageText();

}  // namespace cabinsim
