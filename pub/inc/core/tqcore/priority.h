/// @file
/// Scope guards that change a thread's priority or the process's priority class for a block,
/// and the labels that configuration and traces use for them.
///
/// Failures: the guards raise "error.tqcore.hardware.threadPriority" or
/// "error.tqcore.hardware.priorityClass" with the system's errno record nested; the labels never
/// fail.
///
/// @code
/// tqcore::ScopedThreadPriority const lower(
///     tqcore::ScopedThreadPriority::threadPriorityBelowNormal, ACE_Thread_ID());
/// @endcode
///
/// The values are the family's portable constants. Here they map onto the nice value of each
/// thread (Idle 19, Lowest 10, BelowNormal 5, Normal 0, AboveNormal -5, Highest -10,
/// TimeCritical -20; the classes likewise, applied to every thread of the process), so a thread
/// priority and the class share one number and the last one set wins. Raising a priority above
/// Normal needs the privilege to lower nice values (RLIMIT_NICE or CAP_SYS_NICE).
#pragma once

#include <tqcore/tqcore_export.h>

#include <ace/OS_NS_Thread.h>

#include <cstddef>
#include <iosfwd>
#include <string>

namespace tqcore {

class TQCORE_EXPORT ScopedThreadPriority {
 public:
  static constexpr long threadPriorityIdle = -15;
  static constexpr long threadPriorityLowest = -2;
  static constexpr long threadPriorityBelowNormal = -1;
  static constexpr long threadPriorityNormal = 0;
  static constexpr long threadPriorityAboveNormal = 1;
  static constexpr long threadPriorityHighest = 2;
  static constexpr long threadPriorityTimeCritical = 15;

  /// For stream output: the label, or "##UNKNOWN(<value>)".
  struct TracePriority {
    long value;
  };

  /// Keeps the thread's priority, then sets `priority`; raises
  /// "error.tqcore.hardware.threadPriority" if either fails. Only the calling thread's priority
  /// can be read or set here: the kernel id of another thread is not known.
  ScopedThreadPriority(long priority, ACE_Thread_ID const& thread);
  /// Restores the kept priority; raises if that fails.
  ~ScopedThreadPriority() noexcept(false);
  ScopedThreadPriority(ScopedThreadPriority const&) = default;
  ScopedThreadPriority& operator=(ScopedThreadPriority const&) = default;

  long old_thread_priority() const noexcept { return m_oldPriority; }

  static void set_thread_priority(ACE_Thread_ID const& thread, long priority);
  /// The label's value nearest to the thread's nice value.
  static long get_thread_priority(ACE_Thread_ID const& thread);
  /// The label, or empty for a value outside the table.
  static std::string thread_priority_as_string(long priority);
  /// By label, in any case; raises for an unknown label.
  static long thread_priority_from_string(char const* label, size_t length);

 private:
  long m_oldPriority;
  ACE_Thread_ID m_thread;
};

class TQCORE_EXPORT ScopedPriorityClass {
 public:
  static constexpr unsigned long priorityClassIdle = 0x40;
  static constexpr unsigned long priorityClassBelowNormal = 0x4000;
  static constexpr unsigned long priorityClassNormal = 0x20;
  static constexpr unsigned long priorityClassAboveNormal = 0x8000;
  static constexpr unsigned long priorityClassHigh = 0x80;
  static constexpr unsigned long priorityClassRealtime = 0x100;

  struct TraceClass {
    unsigned long value;
  };

  /// Keeps the process's class, then sets `priority_class` on every thread of the process;
  /// raises "error.tqcore.hardware.priorityClass" if either fails.
  explicit ScopedPriorityClass(unsigned long priority_class);
  ~ScopedPriorityClass() noexcept(false);
  ScopedPriorityClass(ScopedPriorityClass const&) = default;
  ScopedPriorityClass& operator=(ScopedPriorityClass const&) = default;

  unsigned long old_priority_class() const noexcept { return m_oldClass; }

  static void set_process_priority_class(unsigned long priority_class);
  /// The class nearest to the main thread's nice value.
  static unsigned long get_process_priority_class();
  static std::string process_priority_class_as_string(unsigned long priority_class);
  static unsigned long process_priority_class_from_string(char const* label, size_t length);

 private:
  unsigned long m_oldClass;
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream,
                                       ScopedThreadPriority::TracePriority const& trace);
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream,
                                       ScopedPriorityClass::TraceClass const& trace);

}  // namespace tqcore
