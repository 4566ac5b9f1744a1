/// @file
/// The exported pieces of the task model: the context a task is invoked with, with its
/// deadline, and the records of a task that ran twice, never ran, or missed its deadline.
///
/// Failures: the records of a task that ran twice ("error.tqcore.task.redundantExecution"), never
/// ran ("error.tqcore.task.notExecuted") or missed its deadline
/// ("error.tqcore.task.timeLimitExpired").
///
/// @code
/// struct ThisThread : tqcore::IThreadAffinity {
///   bool is_current_thread() const override { return true; }
/// } thread;
/// tqcore::TaskInvocationContext const context(thread);
/// bool const here = context.thread().is_current_thread();
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/error_info.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

namespace tqcore {

/// The thread that carries a task, as its owner names it; this library only passes it on.
class IThreadAffinity {
 public:
  virtual bool is_current_thread() const = 0;

 protected:
  ~IThreadAffinity() = default;
};

namespace impl {

class TQCORE_EXPORT TaskExecutionOptions {
 public:
  TaskExecutionOptions() noexcept = default;
  AbsoluteTime deadline = AbsoluteTime::infinite;
};

[[noreturn]] TQCORE_EXPORT void throw_redundant_task_execution_error(
    void const* task, SourceLocation const& location);
TQCORE_EXPORT ErrorInfo::Ptr task_not_executed_error(void const* task,
                                                     SourceLocation const& location);
/// `remaining` is the span left to the deadline: negative once it has passed.
TQCORE_EXPORT ErrorInfo::Ptr task_expired_error(void const* task, RelativeTime const& remaining,
                                                SourceLocation const& location);

}  // namespace impl

class TQCORE_EXPORT TaskInvocationContext {
 public:
  explicit TaskInvocationContext(IThreadAffinity& thread) noexcept : m_thread(&thread) {}

  IThreadAffinity& thread() const noexcept { return *m_thread; }
  impl::TaskExecutionOptions const& options() const noexcept { return m_options; }
  /// The deadline becomes now plus `span`; infinite when either is.
  TaskInvocationContext& cancel_after(RelativeTime const& span) noexcept {
    m_options.deadline = AbsoluteTime::now() + span;
    return *this;
  }

 private:
  IThreadAffinity* m_thread;  ///< a pointer, so that the context stays assignable
  impl::TaskExecutionOptions m_options;
};

}  // namespace tqcore
