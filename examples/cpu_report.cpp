// The machine as workers see it: processor, packages, cores, and the order in which to spread
// threads over the CPUs (one a package, then one a core, hyper-threads last).
#include <tqcore/affinity.h>
#include <tqcore/cpu.h>

#include <iostream>

int main() {
  tqcore::hardware::Cpu const machine;  // may measure the timestamp counter for a second
  unsigned int const first = machine.cpu_priority_list().front();
  tqcore::hardware::CpuInfo const& cpu = machine.cpu_info(first);
  std::cout << cpu.vendor_id() << " " << cpu.brand_string() << ": " << machine.packages()
            << " package(s), " << machine.cores() << " core(s), " << machine.logical_cpus()
            << " logical CPU(s), " << static_cast<long>(machine.frequency() / 1e6) << " MHz\n";
  std::cout << "spread workers over CPUs:";
  for (unsigned int number : machine.cpu_priority_list()) std::cout << " " << number;
  std::cout << "\nAVX2: " << (cpu.avx2() ? "yes" : "no") << "\n";
  tqcore::CpuAffinityMask only;
  only.set_cpu(first);
  {
    tqcore::ScopedCpuAffinity const pinned(only, ACE_Thread_ID());  // this block runs there
    std::cout << "pinned to " << only << " (was " << pinned.old_affinity() << ")\n";
  }
  return 0;
}
