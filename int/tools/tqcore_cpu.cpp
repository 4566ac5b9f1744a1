// The tool's machine commands: the decoded CPUID report with the topology, the raw registers,
// the hash text, and a one-screen summary of the machine and the process.
#include <tqcore/abs_rel_time.h>
#include <tqcore/affinity.h>
#include <tqcore/cpu.h>
#include <tqcore/priority.h>

#include <unistd.h>

#include <iomanip>
#include <iostream>
#include <sstream>

#include "tool_commands.h"

namespace {

void colon_line(std::ostream& out, char const* label, std::string const& value) {
  out << label << ": " << value << '\n';
}

std::string processor_name(tqcore::hardware::CpuInfo const& cpu) {
  return cpu.brand_string().empty() ? cpu.brand_id_string() : cpu.brand_string();
}

// The names of the features the processor has, separated by spaces.
std::string feature_names(tqcore::hardware::CpuInfo const& cpu) {
  std::string names;
#define TQCORE_TOOL_FEATURE_NAME(name, leaf, reg, bit, vendor, label) \
  if (cpu.name()) names += names.empty() ? #name : " " #name;
  TQCORE_CPU_FEATURE_FLAGS(TQCORE_TOOL_FEATURE_NAME)
#undef TQCORE_TOOL_FEATURE_NAME
  return names;
}

std::string text_of(double value) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(0) << value;
  return text.str();
}

void add_topology(tool::Report& report, tqcore::hardware::Cpu const& machine) {
  report.number("packages", "Packages", std::to_string(machine.packages()));
  report.number("cores", "Cores", std::to_string(machine.cores()));
  report.number("logical_cpus", "Logical CPUs", std::to_string(machine.logical_cpus()));
  report.number("tsc_hz", "Timestamp counter (Hz)", text_of(machine.frequency()));
}

void print_cpus(tqcore::hardware::Cpu const& machine) {
  for (unsigned int cpu : machine.cpu_priority_list()) {
    std::cout << "  cpu " << cpu << ": package " << +machine.package(cpu) << ", core "
              << +machine.core(cpu) << ", thread " << +machine.ht_unit(cpu) << ", APIC id "
              << +machine.apic_id(cpu) << "\n";
  }
}

int cpu_summary(bool json) {
  tqcore::hardware::CpuInfo const cpu;
  tqcore::hardware::Cpu const machine;
  tool::Report report(json, colon_line);
  report.text("vendor", "Vendor", cpu.vendor_id());
  report.text("processor", "Processor", processor_name(cpu));
  report.number("family", "Family",
                std::to_string(cpu.cpu_brand() == cpu.brand_amd ? cpu.amd_effective_family()
                                                                : cpu.intel_effective_family()));
  report.number("model", "Model",
                std::to_string(cpu.cpu_brand() == cpu.brand_amd ? cpu.amd_effective_model()
                                                                : cpu.intel_effective_model()));
  report.number("stepping", "Stepping", std::to_string(cpu.sig_stepping()));
  add_topology(report, machine);
  report.text("features", "Features", feature_names(cpu));
  report.print(std::cout);
  if (json) return 0;
  print_cpus(machine);
  std::cout << "Decoded CPUID:\n";
  cpu.dump_cpuid_info(std::cout, "  ");
  return 0;
}

}  // namespace

int tool::run_cpu(std::vector<std::string> const& arguments) {
  std::vector<std::string> args = arguments;
  bool const json = take_json_flag(&args);
  if (args.empty()) return cpu_summary(json);
  tqcore::hardware::CpuInfo const cpu;
  if (args.size() == 1 && args[0] == "--raw" && !json) {
    cpu.dump_raw_cpuid(std::cout, "");
    return 0;
  }
  if (args.size() == 1 && args[0] == "--hash" && !json) {
    std::cout << cpu.as_string_for_hash(false, true);
    return 0;
  }
  return usage_error("cpu takes no argument, --json, --raw or --hash");
}

int tool::run_info(std::vector<std::string> const& arguments) {
  std::vector<std::string> args = arguments;
  bool const json = take_json_flag(&args);
  if (!args.empty()) return usage_error("info takes no arguments but --json");
  char host[256] = "<unknown>";
  gethostname(host, sizeof(host) - 1);
  tqcore::hardware::Cpu const machine;
  ACE_Thread_ID const self;
  tqcore::CpuAffinityMask affinity;
  tqcore::ScopedCpuAffinity::get_thread_affinity(self, affinity);
  std::ostringstream mask;
  mask << affinity;
  std::ostringstream thread_priority;
  thread_priority << tqcore::ScopedThreadPriority::TracePriority{
      tqcore::ScopedThreadPriority::get_thread_priority(self)};
  std::ostringstream process_priority;
  process_priority << tqcore::ScopedPriorityClass::TraceClass{
      tqcore::ScopedPriorityClass::get_process_priority_class()};
  Report report(json, colon_line);
  report.text("host", "Host", host);
  report.text("time", "Time (UTC)", tqcore::AbsoluteTime::now().as_string());
  report.text("processor", "Processor",
              processor_name(machine.cpu_info(machine.cpu_priority_list().front())));
  add_topology(report, machine);
  report.text("affinity", "Affinity", mask.str());
  report.text("thread_priority", "Thread priority", thread_priority.str());
  report.text("process_priority", "Process priority", process_priority.str());
  report.print(std::cout);
  if (!json) print_cpus(machine);
  return 0;
}
