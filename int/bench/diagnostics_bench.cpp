// Stack walking and symbolisation on a 20-frame chain, beside libunwind's unw_backtrace, glibc's
// backtrace and backtrace_symbols, libbacktrace and boost::stacktrace.
#define UNW_LOCAL_ONLY
#include <execinfo.h>
#include <libunwind.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tqcore/diagnostics.h>

#include <backtrace.h>
#include <benchmark/benchmark.h>
#include <boost/stacktrace.hpp>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "comparisons.h"

namespace {

constexpr int kDepth = 20;

// Calls `work` 20 frames down.
template <class Work>
__attribute__((noinline)) int down(int depth, Work& work) {
  if (depth > 0) return down(depth - 1, work) + 1;
  work();
  return 0;
}

template <class Work>
void run_down(benchmark::State& state, Work work) {
  for (auto _ : state) benchmark::DoNotOptimize(down(kDepth, work));
}

void BM_StackCapture_tqcore(benchmark::State& state) {
  tqcore::StackFrameRecord frames[tqcore::STACK_FRAME_CAPACITY];
  run_down(state, [&] {
    benchmark::DoNotOptimize(
        tqcore::capture_stack_frames(nullptr, frames, frames + tqcore::STACK_FRAME_CAPACITY));
  });
}
void BM_StackCapture_unw_backtrace(benchmark::State& state) {
  void* ips[128];
  run_down(state, [&] { benchmark::DoNotOptimize(unw_backtrace(ips, 128)); });
}
void BM_StackCapture_glibc_backtrace(benchmark::State& state) {
  void* ips[128];
  run_down(state, [&] { benchmark::DoNotOptimize(backtrace(ips, 128)); });
}

// Function names for every frame.
void BM_StackNames_tqcore(benchmark::State& state) {
  tqcore::StackFrameRecord frames[tqcore::STACK_FRAME_CAPACITY];
  run_down(state, [&] {
    tqcore::StackFrameRecord* end =
        tqcore::capture_stack_frames(nullptr, frames, frames + tqcore::STACK_FRAME_CAPACITY);
    std::ostringstream text;
    tqcore::SymbolEngineSession session;
    for (tqcore::StackFrameRecord* frame = frames; frame != end; ++frame) {
      tqcore::render_frame_symbol(session, text, frame->ip);
      text << '\n';
    }
    benchmark::DoNotOptimize(text.str());
  });
}
void BM_StackNames_glibc_backtrace_symbols(benchmark::State& state) {
  void* ips[128];
  run_down(state, [&] {
    int const n = backtrace(ips, 128);
    char** names = backtrace_symbols(ips, n);
    benchmark::DoNotOptimize(names);
    std::free(names);
  });
}

// The whole symbolic trace with files and lines, warm.
void BM_StackTrace_tqcore(benchmark::State& state) {
  run_down(state, [] { benchmark::DoNotOptimize(tqcore::get_stack_backtrace()); });
}

void ignore_error(void*, char const*, int) {}
int append_frame(void* data, uintptr_t pc, char const* file, int line, char const* function) {
  char text[64];
  std::snprintf(text, sizeof(text), "%lx %d ", static_cast<unsigned long>(pc), line);
  auto* out = static_cast<std::string*>(data);
  *out += text;
  *out += function != nullptr ? function : "?";
  *out += file != nullptr ? file : "?";
  *out += '\n';
  return 0;
}
backtrace_state* libbacktrace_state() {
  static backtrace_state* state = backtrace_create_state(nullptr, 1, ignore_error, nullptr);
  return state;
}
void BM_StackTrace_libbacktrace(benchmark::State& state) {
  backtrace_state* const symbols = libbacktrace_state();
  run_down(state, [&] {
    std::string text;
    backtrace_full(symbols, 0, append_frame, ignore_error, &text);
    benchmark::DoNotOptimize(text);
  });
}
void BM_StackTrace_boost_stacktrace(benchmark::State& state) {
  run_down(state, [] {
    benchmark::DoNotOptimize(boost::stacktrace::to_string(boost::stacktrace::stacktrace()));
  });
}

// The first symbolisation in a process: a fresh helper process for each, timing only the call.
void first_call(benchmark::State& state, char const* which) {
  std::string const helper = std::string(TQCORE_BENCH_DIR) + "/tqcore_bench_first_symbols";
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0) return state.SkipWithError("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    char* argv[] = {const_cast<char*>(helper.c_str()), const_cast<char*>(which), nullptr};
    pid_t pid = 0;
    int const failed = posix_spawn(&pid, helper.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    char text[64] = {};
    ssize_t const n = failed == 0 ? read(fds[0], text, sizeof(text) - 1) : -1;
    close(fds[0]);
    if (failed == 0) waitpid(pid, nullptr, 0);
    if (n <= 0) return state.SkipWithError("the helper did not answer");
    state.SetIterationTime(std::strtod(text, nullptr) / 1e9);
  }
}
void BM_FirstSymbolisation_tqcore(benchmark::State& state) { first_call(state, "tqcore"); }
void BM_FirstSymbolisation_libbacktrace(benchmark::State& state) {
  first_call(state, "libbacktrace");
}

}  // namespace

BENCHMARK(BM_StackCapture_tqcore);
BENCHMARK(BM_StackCapture_unw_backtrace);
BENCHMARK(BM_StackCapture_glibc_backtrace);
BENCHMARK(BM_StackNames_tqcore);
BENCHMARK(BM_StackNames_glibc_backtrace_symbols);
BENCHMARK(BM_StackTrace_tqcore);
BENCHMARK(BM_StackTrace_libbacktrace);
BENCHMARK(BM_StackTrace_boost_stacktrace);
BENCHMARK(BM_FirstSymbolisation_tqcore)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FirstSymbolisation_libbacktrace)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

namespace {
using tqcore_bench::RegisterComparison;
RegisterComparison const g_captureVsUnwind("BM_StackCapture_tqcore",
                                           "BM_StackCapture_unw_backtrace", 1.0);
RegisterComparison const g_captureVsGlibc("BM_StackCapture_tqcore",
                                          "BM_StackCapture_glibc_backtrace", 0.1);
RegisterComparison const g_namesVsGlibc("BM_StackNames_tqcore",
                                        "BM_StackNames_glibc_backtrace_symbols", 0.2);
RegisterComparison const g_traceVsLibbacktrace("BM_StackTrace_tqcore", "BM_StackTrace_libbacktrace",
                                               1.0);
RegisterComparison const g_traceVsBoost("BM_StackTrace_tqcore", "BM_StackTrace_boost_stacktrace",
                                        0.2);
RegisterComparison const g_firstVsLibbacktrace("BM_FirstSymbolisation_tqcore",
                                               "BM_FirstSymbolisation_libbacktrace", 0.5);
}  // namespace
