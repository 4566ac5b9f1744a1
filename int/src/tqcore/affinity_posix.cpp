// CPU sets of threads through pthread_{get,set}affinity_np, limited to the first 64 CPUs.
#include <tqcore/affinity.h>

#include "error_exception_internal.h"
#include "file_ids.h"
#include "hardware_internal.h"

#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>
#include <tqcore/streamers.h>

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace tqcore {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("affinity");
constexpr char kSetTemplate[] = "SetThreadAffinity({@threadId}, {@mask})";

[[noreturn]] void raise_affinity_error(char const* function, ACE_Thread_ID const& thread,
                                       CpuAffinityMask const& mask, int error) {
  std::ostringstream text;
  text << mask;
  ErrorComposer(kSetTemplate)
      .param("threadId", impl::thread_handle_text(thread))
      .param("mask", impl::stream_text(text))
      .throw_with_nested_errno(error::tqcore_hardware_threadAffinity,
                               SourceLocation(function, kFileId, __LINE__), error);
}

cpu_set_t to_cpu_set(uint64_t mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (unsigned int cpu = 0; cpu < 64; ++cpu) {
    if ((mask >> cpu & 1) != 0) CPU_SET(cpu, &set);
  }
  return set;
}

uint64_t from_cpu_set(cpu_set_t const& set) {
  uint64_t mask = 0;
  for (unsigned int cpu = 0; cpu < 64; ++cpu) {
    if (CPU_ISSET(cpu, &set)) mask |= uint64_t{1} << cpu;
  }
  return mask;
}

int apply(ACE_Thread_ID const& thread, uint64_t mask) {
  cpu_set_t const set = to_cpu_set(mask);
  return pthread_setaffinity_np(thread.handle(), sizeof(set), &set);
}

int read(ACE_Thread_ID const& thread, uint64_t& mask) {
  cpu_set_t set;
  int const result = pthread_getaffinity_np(thread.handle(), sizeof(set), &set);
  if (result == 0) mask = from_cpu_set(set);
  return result;
}

}  // namespace

std::string impl::thread_handle_text(ACE_Thread_ID const& thread) {
  std::ostringstream text;
  // A thread handle is a number here; it is shown as the pointer it is elsewhere.
  void const* const address =
      reinterpret_cast<void const*>(thread.handle());  // NOLINT(performance-no-int-to-ptr)
  text << streamers::Pointer(address);
  return impl::stream_text(text);
}

unsigned int CpuAffinityMask::const_cpu_iterator::operator*() const {
  if (m_cpu >= max_cpus()) throw std::out_of_range("dereference of bad cpu iterator");
  return m_cpu;
}

CpuAffinityMask::const_cpu_iterator& CpuAffinityMask::const_cpu_iterator::operator++() {
  if (m_cpu >= max_cpus()) throw std::out_of_range("advancing cpu beyond end()");
  m_cpu = m_mask->next_from(m_cpu + 1);
  return *this;
}

std::ostream& operator<<(std::ostream& stream, CpuAffinityMask const& mask) {
  int const highest = mask.m_mask == 0 ? -1 : 63 - __builtin_clzll(mask.m_mask);
  int const top = std::min(highest + 8 - highest % 8, 64);
  for (int position = top; position >= 0; --position) {
    // Position 64 shows bit 0 again: the selector wraps around.
    stream << ((mask.m_mask >> (position & 63) & 1) != 0 ? '1' : '0');
  }
  return stream;
}

ScopedCpuAffinity::ScopedCpuAffinity(CpuAffinityMask const& mask, ACE_Thread_ID const& thread)
    : m_oldAffinity(mask), m_thread(thread) {
  swap_thread_affinity(m_thread, m_oldAffinity);
}

ScopedCpuAffinity::~ScopedCpuAffinity() noexcept(false) {
  set_thread_affinity(m_thread, m_oldAffinity);
}

bool ScopedCpuAffinity::can_set_affinity(ACE_Thread_ID const& thread, CpuAffinityMask& mask) {
  uint64_t old = 0;
  if (read(thread, old) != 0 || apply(thread, mask.get_mask()) != 0) return false;
  apply(thread, old);
  return true;
}

void ScopedCpuAffinity::get_thread_affinity(ACE_Thread_ID const& thread, CpuAffinityMask& mask) {
  uint64_t value = 0;
  if (int const error = read(thread, value)) {
    raise_affinity_error("tqcore::ScopedCpuAffinity::get_thread_affinity()", thread, mask, error);
  }
  mask.m_mask = value;
}

void ScopedCpuAffinity::swap_thread_affinity(ACE_Thread_ID const& thread, CpuAffinityMask& mask) {
  uint64_t old = 0;
  int error = read(thread, old);
  if (error == 0) error = apply(thread, mask.get_mask());
  if (error != 0) {
    raise_affinity_error("tqcore::ScopedCpuAffinity::swap_thread_affinity()", thread, mask, error);
  }
  mask.m_mask = old;
}

void ScopedCpuAffinity::set_thread_affinity(ACE_Thread_ID const& thread,
                                            CpuAffinityMask const& mask) {
  if (int const error = apply(thread, mask.get_mask())) {
    raise_affinity_error("tqcore::ScopedCpuAffinity::set_thread_affinity()", thread, mask, error);
  }
}

ScopedIdealCpu::ScopedIdealCpu(unsigned int cpu, ACE_Thread_ID const& thread)
    : m_oldIdealCpu(swap_ideal_cpu(thread, cpu)), m_thread(thread) {}

ScopedIdealCpu::~ScopedIdealCpu() { swap_ideal_cpu(m_thread, m_oldIdealCpu); }

unsigned int ScopedIdealCpu::swap_ideal_cpu(ACE_Thread_ID const&, unsigned int) {
  return CpuAffinityMask::max_cpus();
}

unsigned int ScopedIdealCpu::get_ideal_cpu(ACE_Thread_ID const& thread) {
  return swap_ideal_cpu(thread, CpuAffinityMask::max_cpus());
}

void ScopedIdealCpu::set_ideal_cpu(ACE_Thread_ID const& thread, unsigned int cpu) {
  swap_ideal_cpu(thread, cpu);
}

}  // namespace tqcore
