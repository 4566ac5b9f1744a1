// The tool's processor commands: the decoded CPUID report, the raw registers, the hash text.
#include <tqcore/cpu.h>

#include <iostream>

#include "tool_commands.h"

int tool::run_cpu(std::vector<std::string> const& args) {
  tqcore::hardware::CpuInfo const cpu;
  if (args.empty()) {
    std::cout << "Vendor: " << cpu.vendor_id() << "\nBrand: "
              << (cpu.brand_string().empty() ? cpu.brand_id_string() : cpu.brand_string()) << "\n";
    cpu.dump_cpuid_info(std::cout, "  ");
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
