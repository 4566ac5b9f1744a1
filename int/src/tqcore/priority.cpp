// Thread priorities and process priority classes: the label tables, the guards, and their
// mapping onto the nice values of threads.
#include <tqcore/priority.h>

#include "error_exception_internal.h"
#include "file_ids.h"
#include "hardware_internal.h"

#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>
#include <tqcore/streamers.h>
#include <tqcore/string_util.h>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <sstream>

namespace tqcore {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("priority");

template <class Value>
struct Level {
  char const* label;
  Value value;
  int nice;
};

constexpr Level<long> kThreadLevels[] = {
    {"Idle", ScopedThreadPriority::threadPriorityIdle, 19},
    {"Lowest", ScopedThreadPriority::threadPriorityLowest, 10},
    {"BelowNormal", ScopedThreadPriority::threadPriorityBelowNormal, 5},
    {"Normal", ScopedThreadPriority::threadPriorityNormal, 0},
    {"AboveNormal", ScopedThreadPriority::threadPriorityAboveNormal, -5},
    {"Highest", ScopedThreadPriority::threadPriorityHighest, -10},
    {"TimeCritical", ScopedThreadPriority::threadPriorityTimeCritical, -20},
};

constexpr Level<unsigned long> kClassLevels[] = {
    {"Idle", ScopedPriorityClass::priorityClassIdle, 19},
    {"BelowNormal", ScopedPriorityClass::priorityClassBelowNormal, 10},
    {"Normal", ScopedPriorityClass::priorityClassNormal, 0},
    {"AboveNormal", ScopedPriorityClass::priorityClassAboveNormal, -5},
    {"High", ScopedPriorityClass::priorityClassHigh, -10},
    {"Realtime", ScopedPriorityClass::priorityClassRealtime, -20},
};

template <class Value, size_t N>
Level<Value> const* by_value(Level<Value> const (&table)[N], Value value) {
  for (Level<Value> const& level : table) {
    if (level.value == value) return &level;
  }
  return nullptr;
}

template <class Value, size_t N>
Level<Value> const* by_label(Level<Value> const (&table)[N], char const* label, size_t length) {
  for (Level<Value> const& level : table) {
    if (compare_nocase_ascii(level.label, std::strlen(level.label), label, length) == 0) {
      return &level;
    }
  }
  return nullptr;
}

template <class Value, size_t N>
Value nearest(Level<Value> const (&table)[N], int nice) {
  Level<Value> const* best = &table[0];
  for (Level<Value> const& level : table) {
    if (std::abs(level.nice - nice) < std::abs(best->nice - nice)) best = &level;
  }
  return best->value;
}

pid_t kernel_id(ACE_Thread_ID const& thread) {
  return pthread_equal(thread.handle(), pthread_self()) != 0
             ? static_cast<pid_t>(syscall(SYS_gettid))
             : 0;
}

[[noreturn]] void raise_other_thread(ErrorComposer& composer, SourceLocation const& where) {
  composer.throw_error(
      error::tqcore_hardware_threadPriority, where,
      ErrorInfo::create(error::tqcore_hardware_threadPriority,
                        "Only the calling thread's priority can be read or set here: the kernel "
                        "id of another thread is not known",
                        where));
}

int read_nice(pid_t id) {
  errno = 0;
  int const nice = getpriority(PRIO_PROCESS, static_cast<id_t>(id));
  return nice == -1 && errno != 0 ? 0 : nice;
}

// Every thread of the process; the first failure's errno, or 0.
int set_every_thread(int nice) {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return errno;
  int failure = 0;
  while (dirent const* entry = readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    auto const id = static_cast<id_t>(std::strtol(entry->d_name, nullptr, 10));
    if (setpriority(PRIO_PROCESS, id, nice) != 0 && failure == 0 && errno != ESRCH) {
      failure = errno;
    }
  }
  closedir(tasks);
  return failure;
}

}  // namespace

ScopedThreadPriority::ScopedThreadPriority(long priority, ACE_Thread_ID const& thread)
    : m_oldPriority(get_thread_priority(thread)), m_thread(thread) {
  set_thread_priority(m_thread, priority);
}

ScopedThreadPriority::~ScopedThreadPriority() noexcept(false) {
  set_thread_priority(m_thread, m_oldPriority);
}

void ScopedThreadPriority::set_thread_priority(ACE_Thread_ID const& thread, long priority) {
  static SourceLocation const where =
      TQCORE_SOURCE_LOCATION("tqcore::ScopedThreadPriority::set_thread_priority()", kFileId);
  // The message lacks its closing bracket and names a parameter that is called "threadId":
  // both as the family has always had them.
  ErrorComposer composer("SetThreadPriority({@threadHandle}, {@priority}");
  composer.param("threadId", impl::thread_handle_text(thread))
      .param("priority", std::to_string(priority));
  pid_t const id = kernel_id(thread);
  if (id == 0) raise_other_thread(composer, where);
  Level<long> const* level = by_value(kThreadLevels, priority);
  if (level == nullptr) {
    composer.throw_with_nested_errno(error::tqcore_hardware_threadPriority, where, EINVAL);
  }
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(id), level->nice) != 0) {
    composer.throw_with_nested_errno(error::tqcore_hardware_threadPriority, where, errno);
  }
}

long ScopedThreadPriority::get_thread_priority(ACE_Thread_ID const& thread) {
  pid_t const id = kernel_id(thread);
  if (id == 0) {
    static SourceLocation const where =
        TQCORE_SOURCE_LOCATION("tqcore::ScopedThreadPriority::get_thread_priority()", kFileId);
    ErrorComposer composer("GetThreadPriority({@threadHandle})");
    composer.param("threadHandle", impl::thread_handle_text(thread));
    raise_other_thread(composer, where);
  }
  return nearest(kThreadLevels, read_nice(id));
}

std::string ScopedThreadPriority::thread_priority_as_string(long priority) {
  Level<long> const* level = by_value(kThreadLevels, priority);
  return level != nullptr ? level->label : "";
}

long ScopedThreadPriority::thread_priority_from_string(char const* label, size_t length) {
  if (Level<long> const* level = by_label(kThreadLevels, label, length)) return level->value;
  ErrorComposer("Unknown thread priority label: '{@label}'")
      .param("label", std::string(label, length))
      .throw_with_nested_errno(
          error::tqcore_hardware_threadPriority,
          TQCORE_SOURCE_LOCATION("tqcore::ScopedThreadPriority::thread_priority_from_string()",
                                 kFileId),
          EINVAL);
}

ScopedPriorityClass::ScopedPriorityClass(unsigned long priority_class)
    : m_oldClass(get_process_priority_class()) {
  set_process_priority_class(priority_class);
}

ScopedPriorityClass::~ScopedPriorityClass() noexcept(false) {
  set_process_priority_class(m_oldClass);
}

void ScopedPriorityClass::set_process_priority_class(unsigned long priority_class) {
  Level<unsigned long> const* level = by_value(kClassLevels, priority_class);
  int const failure = level == nullptr ? EINVAL : set_every_thread(level->nice);
  if (failure == 0) return;
  ErrorComposer("SetPriorityClass({@processId}, {@priority})")
      .param("processId", std::to_string(getpid()))
      .param("priority", std::to_string(priority_class))
      .throw_with_nested_errno(
          error::tqcore_hardware_priorityClass,
          TQCORE_SOURCE_LOCATION("tqcore::ScopedPriorityClass::set_process_priority_class()",
                                 kFileId),
          failure);
}

unsigned long ScopedPriorityClass::get_process_priority_class() {
  return nearest(kClassLevels, read_nice(getpid()));
}

std::string ScopedPriorityClass::process_priority_class_as_string(unsigned long priority_class) {
  Level<unsigned long> const* level = by_value(kClassLevels, priority_class);
  return level != nullptr ? level->label : "";
}

unsigned long ScopedPriorityClass::process_priority_class_from_string(char const* label,
                                                                      size_t length) {
  if (Level<unsigned long> const* level = by_label(kClassLevels, label, length)) {
    return level->value;
  }
  // The message names "priorityClass" while the parameter is "label": kept as it always was.
  ErrorComposer("Unknown process priority class label: '{@priorityClass}'")
      .param("label", std::string(label, length))
      .throw_with_nested_errno(
          error::tqcore_hardware_priorityClass,
          TQCORE_SOURCE_LOCATION(
              "tqcore::ScopedPriorityClass::process_priority_class_from_string()", kFileId),
          EINVAL);
}

std::ostream& operator<<(std::ostream& stream, ScopedThreadPriority::TracePriority const& trace) {
  if (Level<long> const* level = by_value(kThreadLevels, trace.value))
    return stream << level->label;
  return stream << "##UNKNOWN(" << trace.value << ")";
}

std::ostream& operator<<(std::ostream& stream, ScopedPriorityClass::TraceClass const& trace) {
  if (Level<unsigned long> const* level = by_value(kClassLevels, trace.value)) {
    return stream << level->label;
  }
  return stream << "##UNKNOWN(" << trace.value << ")";
}

}  // namespace tqcore
