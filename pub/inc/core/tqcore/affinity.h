/// @file
/// Sets of logical CPUs (at most 64) and scope guards that pin a thread to a set for a block.
///
/// Failures: the guards raise "error.tqcore.hardware.threadAffinity" with the system's errno record
/// nested; the masks never fail.
///
/// @code
/// tqcore::CpuAffinityMask only_first;
/// only_first.set_cpu(0);
/// tqcore::ScopedCpuAffinity const pinned(only_first, ACE_Thread_ID());
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <ace/OS_NS_Thread.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>

namespace tqcore {

class TQCORE_EXPORT CpuAffinityMask {
 public:
  /// The CPU numbers of a mask in ascending order.
  class TQCORE_EXPORT const_cpu_iterator {
   public:
    /// The CPU number; std::out_of_range "dereference of bad cpu iterator" at the end.
    unsigned int operator*() const;
    /// To the next CPU of the mask; std::out_of_range "advancing cpu beyond end()" at the end.
    const_cpu_iterator& operator++();
    bool operator==(const_cpu_iterator const& other) const noexcept { return m_cpu == other.m_cpu; }
    bool operator!=(const_cpu_iterator const& other) const noexcept { return m_cpu != other.m_cpu; }

   private:
    friend class CpuAffinityMask;
    const_cpu_iterator(CpuAffinityMask const* mask, unsigned int cpu) noexcept
        : m_cpu(cpu), m_mask(mask) {}
    unsigned int m_cpu;
    CpuAffinityMask const* m_mask;
  };

  static constexpr unsigned int max_cpus() noexcept { return 64; }

  CpuAffinityMask() noexcept = default;

  /// Bit `cpu` modulo 64: no range check.
  void set_cpu(unsigned int cpu) noexcept { m_mask |= bit(cpu); }
  void clear_cpu(unsigned int cpu) noexcept { m_mask &= ~bit(cpu); }
  bool is_set(unsigned int cpu) const noexcept { return (m_mask & bit(cpu)) != 0; }
  void clear() noexcept { m_mask = 0; }
  void union_mask(CpuAffinityMask const& other, CpuAffinityMask& result) const noexcept {
    result.m_mask = m_mask | other.m_mask;
  }
  void intersection_mask(CpuAffinityMask const& other, CpuAffinityMask& result) const noexcept {
    result.m_mask = m_mask & other.m_mask;
  }
  void add(CpuAffinityMask const& other) noexcept { m_mask |= other.m_mask; }
  void subtract(CpuAffinityMask const& other) noexcept { m_mask &= ~other.m_mask; }
  size_t size() const noexcept { return static_cast<size_t>(__builtin_popcountll(m_mask)); }
  const_cpu_iterator begin_cpu() const noexcept { return const_cpu_iterator(this, next_from(0)); }
  const_cpu_iterator end_cpu() const noexcept { return const_cpu_iterator(this, max_cpus()); }
  bool operator==(CpuAffinityMask const& other) const noexcept { return m_mask == other.m_mask; }
  bool operator!=(CpuAffinityMask const& other) const noexcept { return m_mask != other.m_mask; }

 private:
  friend class ScopedCpuAffinity;
  friend TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, CpuAffinityMask const& mask);

  explicit CpuAffinityMask(uint64_t mask) noexcept : m_mask(mask) {}
  uint64_t get_mask() const noexcept { return m_mask; }
  static uint64_t bit(unsigned int cpu) noexcept { return uint64_t{1} << (cpu & 63); }
  /// The lowest CPU of the mask at or above `cpu`, or 64.
  unsigned int next_from(unsigned int cpu) const noexcept {
    uint64_t const rest = cpu >= 64 ? 0 : m_mask >> cpu << cpu;
    return rest == 0 ? 64 : static_cast<unsigned int>(__builtin_ctzll(rest));
  }

  uint64_t m_mask = 0;
};

/// Binary digits, highest first, from one above the next multiple of 8 over the highest CPU
/// down to CPU 0: CPU 0 alone reads "000000001".
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, CpuAffinityMask const& mask);

/// Pins a thread to a set of CPUs for a scope. Failures raise
/// "error.tqcore.hardware.threadAffinity" with the system's errno as the cause.
class TQCORE_EXPORT ScopedCpuAffinity {
 public:
  ScopedCpuAffinity(CpuAffinityMask const& mask, ACE_Thread_ID const& thread);
  /// Restores the mask in force before; raises if that fails.
  ~ScopedCpuAffinity() noexcept(false);
  ScopedCpuAffinity(ScopedCpuAffinity const&) = default;
  ScopedCpuAffinity& operator=(ScopedCpuAffinity const&) = default;

  CpuAffinityMask const& old_affinity() const noexcept { return m_oldAffinity; }

  /// Whether the thread may run on `mask` (which is tried and undone); false without a report.
  static bool can_set_affinity(ACE_Thread_ID const& thread, CpuAffinityMask& mask);
  static void get_thread_affinity(ACE_Thread_ID const& thread, CpuAffinityMask& mask);
  /// Sets the thread to `mask`, and `mask` to what it was.
  static void swap_thread_affinity(ACE_Thread_ID const& thread, CpuAffinityMask& mask);
  static void set_thread_affinity(ACE_Thread_ID const& thread, CpuAffinityMask const& mask);

 private:
  CpuAffinityMask m_oldAffinity;
  ACE_Thread_ID m_thread;
};

/// A preferred CPU for a thread. The system schedules by affinity only, so this guard changes
/// nothing and every CPU reads as 64, "none".
class TQCORE_EXPORT ScopedIdealCpu {
 public:
  ScopedIdealCpu(unsigned int cpu, ACE_Thread_ID const& thread);
  ~ScopedIdealCpu();
  ScopedIdealCpu(ScopedIdealCpu const&) = default;
  ScopedIdealCpu& operator=(ScopedIdealCpu const&) = default;

  static unsigned int swap_ideal_cpu(ACE_Thread_ID const& thread, unsigned int cpu);
  static unsigned int get_ideal_cpu(ACE_Thread_ID const& thread);
  static void set_ideal_cpu(ACE_Thread_ID const& thread, unsigned int cpu);

 private:
  unsigned int m_oldIdealCpu;
  ACE_Thread_ID m_thread;
};

}  // namespace tqcore
