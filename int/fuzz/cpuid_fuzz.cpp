// CPUID decoding of register sets no processor gives: every accessor, both dumps and the hash
// text run over them, and the sanitizers see any read outside what the source answered.
#include <tqcore/cpu.h>

#include "fuzz_support.h"

#include <map>
#include <sstream>
#include <utility>

namespace {

using tqcore::hardware::CpuInfo;

// Answers the leaves the input names, zeros for all others. A record is a leaf selector (low
// bits the leaf, high bits its range: basic, hypervisor or extended), a subleaf and 16 bytes.
class FuzzedSource : public CpuInfo::Source {
 public:
  explicit FuzzedSource(tqcore_fuzz::Input& input) {
    while (input.left() > 0) {
      uint8_t const selector = input.byte();
      uint32_t const range = (selector & 0xC0) == 0x80   ? 0x80000000u
                             : (selector & 0xC0) == 0x40 ? 0x40000000u
                                                         : 0u;
      uint32_t const leaf = range | (selector & 0x3Fu) | ((selector & 0xC0) == 0xC0 ? 0x60u : 0u);
      uint32_t const subleaf = input.byte() % 8;
      CpuInfo::RegSet regs;
      regs.eax = input.integral<uint32_t>();
      regs.ebx = input.integral<uint32_t>();
      regs.ecx = input.integral<uint32_t>();
      regs.edx = input.integral<uint32_t>();
      m_answers[{leaf, subleaf}] = regs;
    }
  }
  CpuInfo::RegSet cpuid(uint32_t leaf, uint32_t subleaf) const override {
    auto const found = m_answers.find({leaf, subleaf});
    return found != m_answers.end() ? found->second : CpuInfo::RegSet{};
  }

 private:
  std::map<std::pair<uint32_t, uint32_t>, CpuInfo::RegSet> m_answers;
};

// Every accessor's answer folds into one number, so none is skipped as unused.
unsigned long long touch_accessors(CpuInfo const& info) {
  unsigned long long sum = 0;
  sum += static_cast<unsigned long long>(info.cpu_brand()) + info.vendor_id().size() +
         info.brand_string().size() + info.brand_id_string().size();
  sum += info.signature() + info.sig_family() + info.sig_model() + info.sig_stepping() +
         info.sig_processor_type() + info.sig_extended_family() + info.sig_extended_model();
  sum += static_cast<unsigned long long>(info.cpu_family()) + info.intel_effective_family() +
         info.intel_effective_model() + info.amd_effective_family() + info.amd_effective_model() +
         info.amd_extended_brand_id();
  sum += info.brand_index() + info.clflush_line_size() + info.logical_count() + info.apic_id();
  sum += info.core_count() + info.amd_physical_core_count() + info.core_apic_id_shift() +
         info.package_apic_id_shift() + info.apic_id_core_mask() + info.apic_id_package_mask();
  sum += info.cache_line_size() + info.cache_size() + info.lines_per_tag() +
         static_cast<unsigned long long>(info.L2_associativity());
  sum += info.min_monitor_line_size() + info.max_monitor_line_size() +
         info.num_physical_address_bits() + info.num_virtual_address_bits();
  sum += static_cast<unsigned long long>(info.cpuid_last_basic_level()) +
         static_cast<unsigned long long>(info.cpuid_last_extended_level());
  sum += info.hypervisor_vendor_id().size() + info.hypervisor_interface_id();
  sum += info.is_hyperthreading_enabled() + info.is_fast_system_call_supported();
  sum += info.cache_levels().size() + info.topology().size() + info.hypervisor_leaves().size();
  unsigned int serial_high = 0;
  unsigned long long serial_low = 0;
  info.get_processor_serial_number(serial_high, serial_low);
  sum += serial_high + serial_low;
  // Each feature flag, by the same list the header builds its accessors from.
#define TQCORE_FUZZ_FEATURE(name, leaf, reg, bit, vendor, label) sum += info.name();
  TQCORE_CPU_FEATURE_FLAGS(TQCORE_FUZZ_FEATURE)
#undef TQCORE_FUZZ_FEATURE
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  tqcore_fuzz::Input input(data, size);
  FuzzedSource const source(input);
  CpuInfo const info(source);
  std::ostringstream out;
  info.dump_cpuid_info(out, "  ");
  info.dump_raw_cpuid(out, "  ");
  out << info.as_string_for_hash(true, true) << info.as_string_for_hash(false, false)
      << touch_accessors(info);
  FUZZ_CHECK(!out.str().empty(), std::string());
  return 0;
}
