// The records of the task model.
#include <tqcore/error_builder.h>
#include <tqcore/streamers.h>
#include <tqcore/task.h>

#include <sstream>
#include <string>

#include "error_exception_internal.h"
#include "file_ids.h"

// ---- Tasks -----------------------------------------------------------------------------------

namespace tqcore {
namespace impl {
namespace {

std::string address_of(void const* task) {
  std::ostringstream text;
  text << streamers::Pointer(task);
  return stream_text(text);
}

ErrorComposer task_record(char const* message, void const* task) {
  ErrorComposer composer(message);
  composer.param(SourceString::create_reference("address"), address_of(task));
  return composer;
}

}  // namespace

void throw_redundant_task_execution_error(void const* task, SourceLocation const& location) {
  task_record("The single-use task at {@address} has been executed previously.", task)
      .throw_error(error::tqcore_task_redundantExecution, location);
}

ErrorInfo::Ptr task_not_executed_error(void const* task, SourceLocation const& location) {
  return task_record("The task at {@address} was never executed.", task)
      .create(error::tqcore_task_notExecuted, location);
}

ErrorInfo::Ptr task_expired_error(void const* task, RelativeTime const& remaining,
                                  SourceLocation const& location) {
  std::ostringstream overtime;
  overtime << remaining * -1.0;
  return task_record("The deadline for executing the task at {@address} expired {@overtime} ago.",
                     task)
      .param(SourceString::create_reference("overtime"), stream_text(overtime))
      .create(error::tqcore_task_timeLimitExpired, location);
}

}  // namespace impl
}  // namespace tqcore
