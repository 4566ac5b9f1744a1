// The tool's machine commands: the decoded CPUID report with the topology, the raw registers,
// the hash text, and a one-screen summary of the machine and the process.
#include <tqcore/abs_rel_time.h>
#include <tqcore/affinity.h>
#include <tqcore/cpu.h>
#include <tqcore/priority.h>

#include <unistd.h>

#include <iomanip>
#include <iostream>

#include "tool_commands.h"

namespace {

std::string processor_name(tqcore::hardware::CpuInfo const& cpu) {
  return cpu.brand_string().empty() ? cpu.brand_id_string() : cpu.brand_string();
}

void print_topology(tqcore::hardware::Cpu const& machine) {
  std::cout << "Topology: " << machine.packages() << " package(s), " << machine.cores()
            << " core(s), " << machine.logical_cpus() << " logical CPU(s)\n";
  for (unsigned int cpu : machine.cpu_priority_list()) {
    std::cout << "  cpu " << cpu << ": package " << +machine.package(cpu) << ", core "
              << +machine.core(cpu) << ", thread " << +machine.ht_unit(cpu) << ", APIC id "
              << +machine.apic_id(cpu) << "\n";
  }
  std::cout << "Timestamp counter: " << std::fixed << std::setprecision(1)
            << machine.frequency() / 1e6 << " MHz\n";
}

}  // namespace

int tool::run_cpu(std::vector<std::string> const& args) {
  tqcore::hardware::CpuInfo const cpu;
  if (args.empty()) {
    std::cout << "Vendor: " << cpu.vendor_id() << "\nProcessor: " << processor_name(cpu) << "\n";
    cpu.dump_cpuid_info(std::cout, "  ");
    print_topology(tqcore::hardware::Cpu());
    return 0;
  }
  if (args.size() == 1 && args[0] == "--raw") {
    cpu.dump_raw_cpuid(std::cout, "");
    return 0;
  }
  if (args.size() == 1 && args[0] == "--hash") {
    std::cout << cpu.as_string_for_hash(false, true);
    return 0;
  }
  return usage_error("cpu takes no argument, --raw or --hash");
}

int tool::run_info(std::vector<std::string> const& args) {
  if (!args.empty()) return usage_error("info takes no arguments");
  char host[256] = "<unknown>";
  gethostname(host, sizeof(host) - 1);
  tqcore::hardware::Cpu const machine;
  ACE_Thread_ID const self;
  tqcore::CpuAffinityMask affinity;
  tqcore::ScopedCpuAffinity::get_thread_affinity(self, affinity);
  std::cout << "Host: " << host << "\nTime: " << tqcore::AbsoluteTime::now() << " UTC\n"
            << "Processor: " << processor_name(machine.cpu_info(machine.cpu_priority_list()[0]))
            << "\n";
  print_topology(machine);
  std::cout << "Affinity: " << affinity << " (" << affinity.size() << " CPUs)\n"
            << "Priority: thread "
            << tqcore::ScopedThreadPriority::
                   TracePriority{tqcore::ScopedThreadPriority::get_thread_priority(self)}
            << ", process "
            << tqcore::ScopedPriorityClass::
                   TraceClass{tqcore::ScopedPriorityClass::get_process_priority_class()}
            << "\n";
  return 0;
}
