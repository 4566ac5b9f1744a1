// Prints how many nanoseconds the first symbolic backtrace of a fresh process takes, with this
// library ("tqcore") or with libbacktrace ("libbacktrace").
#include <tqcore/diagnostics.h>

#include <backtrace.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

void ignore_error(void*, char const*, int) {}
int count_frame(void* data, uintptr_t, char const* file, int, char const* function) {
  *static_cast<int*>(data) += file != nullptr && function != nullptr ? 1 : 0;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool const ours = argc > 1 && std::strcmp(argv[1], "tqcore") == 0;
  auto const start = std::chrono::steady_clock::now();
  size_t size = 0;
  if (ours) {
    size = tqcore::get_stack_backtrace().size();
  } else {
    int frames = 0;
    backtrace_state* state = backtrace_create_state(nullptr, 0, ignore_error, nullptr);
    backtrace_full(state, 0, count_frame, ignore_error, &frames);
    size = static_cast<size_t>(frames);
  }
  auto const elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%lld %zu\n", static_cast<long long>(std::chrono::nanoseconds(elapsed).count()),
              size);
  return size > 0 ? 0 : 1;
}
