// The machine's CPUs, cores and packages, surveyed by running on each CPU in turn, and the
// timestamp counter's frequency.
#include <tqcore/cpu.h>

#include "file_ids.h"

#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>

#include <time.h>

#include <cerrno>
#include <exception>
#include <set>
#include <string>

namespace tqcore {
namespace hardware {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("cpu");
constexpr uint32_t kHypervisorTscLeaf = 0x40000010u - 0x40000000u;

// Puts the thread's affinity back however the survey ends.
class AffinityRestorer {
 public:
  explicit AffinityRestorer(ACE_Thread_ID const& thread) : m_thread(thread) {
    ScopedCpuAffinity::get_thread_affinity(m_thread, m_saved);
  }
  // A failure to restore raises, unless the survey is already leaving by an exception.
  ~AffinityRestorer() noexcept(false) {
    if (std::uncaught_exceptions() == m_exceptions) {
      ScopedCpuAffinity::set_thread_affinity(m_thread, m_saved);
      return;
    }
    try {
      ScopedCpuAffinity::set_thread_affinity(m_thread, m_saved);
    } catch (...) {
      // The survey's own exception is the one the caller hears of.
    }
  }
  AffinityRestorer(AffinityRestorer const&) = delete;
  AffinityRestorer& operator=(AffinityRestorer const&) = delete;

 private:
  ACE_Thread_ID m_thread;
  CpuAffinityMask m_saved;
  int m_exceptions = std::uncaught_exceptions();
};

[[noreturn]] void raise_invalid_cpu(unsigned int cpu, char const* function) {
  ErrorComposer("Cpu Id {@cpuid} not valid")
      .param("cpuid", std::to_string(cpu))
      .throw_error(error::tqcore_hardware_invalidCpuId,
                   SourceLocation(function, kFileId, __LINE__));
}

long long monotonic_nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

}  // namespace

Cpu::Cpu() {
  ACE_Thread_ID const thread;
  {
    AffinityRestorer const restore(thread);
    survey(thread);
  }
  CpuInfo const& reference = m_cpuInfo.at(m_referenceCpu);
  if (reference.hyperthreading_capable() && reference.cpuid_last_basic_level() >= 1) {
    m_apicUsable = true;
    m_packageMask = static_cast<unsigned char>(reference.apic_id_package_mask());
    m_coreApicMask = static_cast<unsigned char>(reference.apic_id_core_mask());
  }
  take_flags(reference);
  group();
  m_frequency = frequency_from_cpuid(reference);
  if (m_frequency <= 0) m_frequency = measure_frequency();
}

void Cpu::survey(ACE_Thread_ID const& thread) {
  int most_leaves = -2;
  for (unsigned int n = 0; n < CpuAffinityMask::max_cpus(); ++n) {
    CpuAffinityMask only;
    only.set_cpu(n);
    if (!ScopedCpuAffinity::can_set_affinity(thread, only)) continue;
    ScopedCpuAffinity::set_thread_affinity(thread, only);
    CpuInfo const& info = m_cpuInfo.emplace(n, CpuInfo()).first->second;
    m_logicalCount += 1;
    if (info.cpuid_last_basic_level() > most_leaves) {
      most_leaves = info.cpuid_last_basic_level();
      m_referenceCpu = n;
    }
  }
}

void Cpu::take_flags(CpuInfo const& reference) {
  m_mmx = reference.mmx();
  m_mmxAmdExtensions = reference.mmx_amd_extensions();
  m_3dnow = reference.amd_3dnow();
  m_3dnowExtensions = reference.amd_3dnow_extensions();
  m_popcnt = reference.popcnt_supported();
  m_sse = reference.sse();
  m_sse2 = reference.sse2();
  m_sse3 = reference.sse3();
  m_sse41 = reference.sse4_1();
  m_sse42 = reference.sse4_2();
  m_cmpxchg8 = reference.compare_and_exchange_8_bytes();
  m_cmpxchg16 = reference.compare_and_exchange_16_bytes();
  m_cmov = reference.conditional_move();
}

// The lowest-numbered CPU of each package and core is its first.
void Cpu::group() {
  std::set<unsigned int> packages;
  std::set<unsigned int> cores;
  for (auto const& [number, info] : m_cpuInfo) {
    unsigned int package_key = number;
    unsigned int core_key = number;
    if (m_apicUsable) {
      package_key = info.apic_id() & m_packageMask;
      core_key = info.apic_id() & m_coreApicMask;
    }
    if (packages.insert(package_key).second) {
      m_physicalMask.set_cpu(number);
      m_packageCount += 1;
    }
    if (cores.insert(core_key).second) {
      m_coreMask.set_cpu(number);
      m_coreCount += 1;
    }
    m_logicalMask.set_cpu(number);
  }
  m_priorityList.reserve(static_cast<size_t>(m_logicalCount));
  CpuAffinityMask taken;
  for (CpuAffinityMask const* mask : {&m_physicalMask, &m_coreMask, &m_logicalMask}) {
    for (auto cpu = mask->begin_cpu(); cpu != mask->end_cpu(); ++cpu) {
      if (taken.is_set(*cpu)) continue;
      taken.set_cpu(*cpu);
      m_priorityList.push_back(*cpu);
    }
  }
}

double Cpu::frequency_from_cpuid(CpuInfo const& reference) const {
  std::vector<CpuInfo::RegSet> const& basic = reference.basic_leaves();
  if (basic.size() > 0x15 && basic[0x15].ecx != 0 && basic[0x15].eax != 0) {
    return static_cast<double>(basic[0x15].ecx) * basic[0x15].ebx / basic[0x15].eax;
  }
  if (basic.size() > 0x16 && (basic[0x16].eax & 0xFFFF) != 0) {
    return (basic[0x16].eax & 0xFFFF) * 1e6;
  }
  std::vector<CpuInfo::RegSet> const& hypervisor = reference.hypervisor_leaves();
  if (hypervisor.size() > kHypervisorTscLeaf && hypervisor[kHypervisorTscLeaf].eax != 0) {
    return hypervisor[kHypervisorTscLeaf].eax * 1e3;  // kHz
  }
  return 0;
}

double Cpu::measure_frequency() {
  ACE_Thread_ID const thread;
  CpuAffinityMask mask;
  ScopedCpuAffinity::get_thread_affinity(thread, mask);
  CpuAffinityMask lowest;
  lowest.set_cpu(*mask.begin_cpu());
  ScopedCpuAffinity const pinned(lowest, thread);
  // The thread sleeps through the second: nothing is held, and both ends are read back to
  // back, so the sleep's own lateness does not matter.
  long long const start = monotonic_nanoseconds();
  unsigned long long const start_ticks = read_timestamp();
  timespec second{1, 0};
  while (nanosleep(&second, &second) != 0 && errno == EINTR) {
  }
  unsigned long long const end_ticks = read_timestamp();
  long long const elapsed = monotonic_nanoseconds() - start;
  return static_cast<double>(end_ticks - start_ticks) / static_cast<double>(elapsed) * 1e9;
}

unsigned char Cpu::package(unsigned int cpu) const {
  if (!m_apicUsable) return static_cast<unsigned char>(cpu);
  CpuInfo const& info = cpu_info(cpu);
  return static_cast<unsigned char>(info.apic_id() >> info.package_apic_id_shift());
}

unsigned char Cpu::core(unsigned int cpu) const {
  if (!m_apicUsable) return static_cast<unsigned char>(cpu);
  CpuInfo const& info = cpu_info(cpu);
  return static_cast<unsigned char>((info.apic_id() & ~m_packageMask & 0xFF) >>
                                    info.core_apic_id_shift());
}

unsigned char Cpu::ht_unit(unsigned int cpu) const {
  if (!m_apicUsable) return 0;
  return static_cast<unsigned char>(cpu_info(cpu).apic_id() & ~m_coreApicMask & 0xFF);
}

unsigned char Cpu::apic_id(unsigned int cpu) const {
  return static_cast<unsigned char>(cpu_info(cpu).apic_id());
}

bool Cpu::is_first_physical_cpu(unsigned int cpu) const {
  if (!is_cpu_present(cpu))
    raise_invalid_cpu(cpu, "tqcore::hardware::Cpu::is_first_physical_cpu()");
  return m_physicalMask.is_set(cpu);
}

bool Cpu::is_first_core_cpu(unsigned int cpu) const {
  if (!is_cpu_present(cpu)) raise_invalid_cpu(cpu, "tqcore::hardware::Cpu::is_first_core_cpu()");
  return m_coreMask.is_set(cpu);
}

}  // namespace hardware
}  // namespace tqcore
