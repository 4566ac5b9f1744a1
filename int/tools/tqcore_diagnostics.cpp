// The tool's diagnostics commands: its own symbolic backtrace, to show what a report holds,
// and crashes on purpose, to show the report and the dump that a crash leaves.
#include <tqcore/diagnostics.h>
#include <tqcore/main_intercept.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <stdexcept>

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

namespace {

// Kept out of the optimiser's sight, so that each crash happens where the source says.
int volatile g_zero = 0;
int* volatile g_null = nullptr;
std::string g_crashMode;

__attribute__((noinline)) int write_through_null(int value) {
  *g_null = value;
  return value;
}
__attribute__((noinline)) int divide_by_zero(int value) { return value / g_zero; }
__attribute__((noinline)) int recurse_forever(int depth) {
  char volatile frame[512];
  frame[0] = static_cast<char>(depth);
  if (depth < 0) return 0;  // never: the stack runs out first
  return recurse_forever(depth + 1) + frame[0];
}
__attribute__((noinline)) int fail_an_assertion() {
  bool const go_on = tqcore::report_failed_debug_assert(
      __FILE__, __LINE__, "fail_an_assertion", "2 + 2 == 5", "shown by `tqcore crash assert`");
  std::cout << (go_on ? "the assertion was ignored\n" : "the assertion asked for a debugger\n");
  return 0;
}

int crash_main(int, char**) {
  if (g_crashMode == "segv") return write_through_null(1);
  if (g_crashMode == "fpe") return divide_by_zero(1);
  if (g_crashMode == "overflow") return recurse_forever(0);
  if (g_crashMode == "abort") std::abort();
  if (g_crashMode == "throw") throw std::runtime_error("thrown by `tqcore crash throw`");
  return fail_an_assertion();
}

}  // namespace

int tool::run_crash(std::vector<std::string> const& args) {
  static char const* const kModes[] = {"segv", "fpe", "abort", "throw", "overflow", "assert"};
  if (args.size() != 1 ||
      std::find(std::begin(kModes), std::end(kModes), args[0]) == std::end(kModes)) {
    return usage_error("crash takes one of segv, fpe, abort, throw, overflow, assert");
  }
  g_crashMode = args[0];
  char name[] = "tqcore";
  char* argv[] = {name, nullptr};
  return tqcore::main_invoker(crash_main, 1, argv);
}
