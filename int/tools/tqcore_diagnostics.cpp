// The tool's diagnostics commands: its own symbolic backtrace, to show what a report holds.
#include <tqcore/diagnostics.h>

#include <iostream>

#include "tool_commands.h"

namespace {

enum class Colour { red, green, blue };

// A short chain of known calls, so the printed frames show names, values, files and lines.
__attribute__((noinline)) int print_backtrace(int depth, Colour colour, double scale,
                                              unsigned int max_frames) {
  if (depth > 0) return print_backtrace(depth - 1, colour, scale * 2, max_frames) + 0;
  std::cout << tqcore::get_stack_backtrace(0, max_frames);
  return 0;
}

}  // namespace

int tool::run_stack(std::vector<std::string> const& args) {
  unsigned int max_frames = 0;
  if (args.size() == 2 && args[0] == "--max") {
    max_frames = static_cast<unsigned int>(std::stoul(args[1]));
  } else if (!args.empty()) {
    return usage_error("stack takes no arguments but --max N");
  }
  return print_backtrace(2, Colour::green, 0.5, max_frames);
}
