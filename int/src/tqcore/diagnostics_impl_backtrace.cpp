// The calling thread's symbolic backtrace, and what a process does to be ready for one.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <sstream>

#include "diagnostics_impl_internal.h"
#include "error_exception_internal.h"

namespace tqcore {

__attribute__((noinline)) std::string get_stack_backtrace(unsigned int skip_frames,
                                                          unsigned int max_frames) {
  std::string text;
  try {
    StackFrameRecord frames[STACK_FRAME_CAPACITY];
    // This function's frame and the walker's are never shown.
    unsigned int const skip = 2 + std::min(skip_frames, STACK_FRAME_CAPACITY - 2);
    unsigned int const room = STACK_FRAME_CAPACITY - skip;
    unsigned int const wanted = max_frames == 0 ? room : std::min(max_frames, room);
    StackFrameRecord const* const end =
        capture_stack_frames(nullptr, frames, frames + skip + wanted);
    if (end > frames + skip) {
      std::ostringstream stream;
      SymbolEngineSession session;
      render_stack_frames(session, stream, frames + skip, end);
      text = impl::stream_text(stream);  // a stream that failed to grow would cut the trace
    }
  } catch (...) {
    text = "<failed>";
  }
  asm volatile("" ::: "memory");  // no tail call: callers count this frame
  return text;
}

void preinitialize_diagnostics_libraries() { impl::thread_stack_bounds(); }

bool is_interactive_session() {
  // 0 unknown, 1 no, 2 yes
  static std::atomic<int> answer{0};
  int known = answer.load(std::memory_order_acquire);
  if (known == 0) {
    bool yes = isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
    if (yes) {
      int const fd = open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC);
      yes = fd >= 0;
      if (fd >= 0) close(fd);
    }
    known = yes ? 2 : 1;
    answer.store(known, std::memory_order_release);
  }
  return known == 2;
}

}  // namespace tqcore
