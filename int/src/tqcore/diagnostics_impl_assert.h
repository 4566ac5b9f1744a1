// The pieces of an assertion report that its tests and the terminal question share.
#pragma once

#include <tqcore/diagnostics.h>
#include <tqcore/tqcore_export.h>

#include <cstdint>
#include <string>

#include <sys/ucontext.h>

namespace tqcore {
namespace impl {

// The answers of the question, as the report's logic counts them; 0: nobody could be asked.
constexpr int kAnswerNone = 0;
constexpr int kAnswerAbort = 3;
constexpr int kAnswerRetry = 4;
constexpr int kAnswerIgnore = 5;

struct AssertAnswer {
  int choice = kAnswerNone;
  bool modifier = false;  // Shift: an upper-case answer
};

// Everything one report gathers, on the reporting thread's stack.
struct AssertReport {
  ucontext_t context;
  std::string utc;
  uint32_t thread_id = 0;
  uint32_t process_id = 0;
  std::string program;
  char const* file = nullptr;
  unsigned int line = 0;
  char const* function = nullptr;
  char const* expression = nullptr;
  char const* details = nullptr;
  unsigned int skip_frames = 0;  // the caller's frames left out of the trace
  StackFrameRecord frames[STACK_FRAME_CAPACITY];
  StackFrameRecord* first = frames;
  StackFrameRecord* end = frames;
  bool filled = false;  // the walk filled every record
};

// Whether TQTQ_ASSERT_THROW_ALWAYS asks for an exception instead of a question.
TQCORE_EXPORT bool assert_throw_always();
// The text the person is shown.
TQCORE_EXPORT std::string assert_dialog_text(AssertReport const& report);
// Reads an answer line: its first non-blank character a/r/i, upper case for Shift.
TQCORE_EXPORT AssertAnswer parse_assert_answer(char const* line);

// Asks the person at the controlling terminal; kAnswerNone without one.
AssertAnswer ask_person(std::string const& text);
// Tells the person at the controlling terminal, if there is one.
void tell_person(std::string const& text);

}  // namespace impl
}  // namespace tqcore
