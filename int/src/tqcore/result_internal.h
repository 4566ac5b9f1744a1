// What the result family's files share inside the library.
#pragma once

#include <tqcore/error_code.h>
#include <tqcore/error_info.h>
#include <tqcore/source_string.h>

#include <atomic>
#include <exception>

namespace tqcore {
namespace impl {

// One record per process, built by the first get() and published by compare-and-exchange; the
// cell keeps its own reference, so the record is never released and never rebuilt. The cells
// are constant-initialised; records that a failure path needs are got once while the library
// loads, so that the path itself never allocates.
class CachedRecord {
 public:
  constexpr CachedRecord(ErrorCode const& code, char const* message, char const* function,
                         char const* file_id, int line)
      : m_code(code), m_message(message), m_function(function), m_fileId(file_id), m_line(line) {}

  ErrorInfo::Ptr get() {
    ErrorInfo const* cached = m_cell.load(std::memory_order_acquire);
    if (cached != nullptr) return ErrorInfo::Ptr(cached);
    ErrorInfo::Ptr own =
        ErrorInfo::create(m_code, m_message, SourceLocation(m_function, m_fileId, m_line));
    if (!m_cell.compare_exchange_strong(cached, own.get(), std::memory_order_acq_rel)) {
      return ErrorInfo::Ptr(cached);  // another thread won: its record, ours is dropped
    }
    ErrorInfo::Ptr(own).detach();  // the reference the cell keeps
    return own;
  }

 private:
  ErrorCode const& m_code;
  char const* m_message;
  char const* m_function;
  char const* m_fileId;
  int m_line;
  std::atomic<ErrorInfo const*> m_cell{nullptr};
};

// Writes what `error` holds to the critical-error trace; never raises.
void trace_exception_during_unwinding(std::exception_ptr const& error);

// Runs `raise`, which throws the error a destructor must report. While an exception that began
// after `uncaught_before` unwinds the stack, a second one would end the process: the error goes
// to the critical-error trace instead.
template <class Raise>
void raise_unless_unwinding(int uncaught_before, Raise raise) {
  if (std::uncaught_exceptions() <= uncaught_before) {
    raise();
    return;
  }
  try {
    raise();
  } catch (...) {
    trace_exception_during_unwinding(std::current_exception());
  }
}

}  // namespace impl
}  // namespace tqcore
