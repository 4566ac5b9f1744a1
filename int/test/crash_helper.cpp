// A program that fails in the way its one argument names, under main_invoker: the crash
// tests run it as a child and read what it leaves behind.
#include <tqcore/bad_alloc_handler.h>
#include <tqcore/diagnostics.h>
#include <tqcore/main_intercept.h>

#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// Kept out of the optimiser's sight, so that each fault happens where the source says.
volatile int g_zero = 0;
int* volatile g_null = nullptr;

__attribute__((noinline)) void crash_null_write(int value) { *g_null = value; }
__attribute__((noinline)) int crash_null_read() { return *g_null; }
__attribute__((noinline)) int crash_divide(int value) { return value / g_zero; }
__attribute__((noinline)) void crash_execute() {
  auto const code = reinterpret_cast<void (*)()>(reinterpret_cast<uintptr_t>(&g_zero));
  code();
}
__attribute__((noinline)) int crash_recurse(int depth) {
  volatile char frame[1024];
  frame[0] = static_cast<char>(depth);
  if (depth < 0) return 0;  // never: the stack runs out first
  return crash_recurse(depth + 1) + frame[0];
}
__attribute__((noinline)) void crash_new() {
  rlimit limit{size_t{1} << 30, size_t{1} << 30};
  setrlimit(RLIMIT_AS, &limit);
  std::vector<char*> blocks;
  for (;;) blocks.push_back(new char[size_t{64} << 20]);
}
__attribute__((noinline)) void crash_assert() {
  tqcore::report_failed_debug_assert("crash_helper.cpp", 42, "crash_assert", "1 == 2", "details");
}

int run(int argc, char** argv) {
  std::string const mode = argc > 1 ? argv[1] : "";
  if (mode == "null-write") crash_null_write(7);
  if (mode == "null-read") return crash_null_read();
  if (mode == "execute") crash_execute();
  if (mode == "divide") return crash_divide(argc);
  if (mode == "overflow") return crash_recurse(0);
  if (mode == "abort") std::abort();
  if (mode == "throw-int") throw 42;
  if (mode == "throw-runtime") throw std::runtime_error("helper gave up");
  if (mode == "terminate-thread") std::thread([] { std::terminate(); }).join();
  if (mode == "new") crash_new();
  if (mode == "assert") crash_assert();
  if (mode == "dump-path") {
    char path[292];
    std::printf("%s\n", tqcore::make_dump_file_path(path, sizeof(path)) ? path : "<failed>");
    return 0;
  }
  if (mode == "thread-fault") {
    std::thread([] {
      tqcore::ScopedSignalAlternateStack const stack;
      crash_null_write(3);
    }).join();
  }
  std::puts("no crash");
  return 5;
}

}  // namespace

int main(int argc, char** argv) {
  tqcore::BadAllocHandler const out_of_memory;
  return tqcore::main_invoker(run, argc, argv);
}
