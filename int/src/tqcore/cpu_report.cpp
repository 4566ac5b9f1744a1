// What CpuInfo shows a person (the decoded report and the raw registers) and a machine (a
// canonical text of the registers to hash).
#include <tqcore/cpu.h>

#include <iomanip>
#include <ostream>
#include <string>
#include <vector>

namespace tqcore {
namespace hardware {

// The report's view of the stored registers: its flag lines read bits straight, ignoring
// the vendor tests of the accessors.
class CpuReport {
 public:
  explicit CpuReport(CpuInfo const& cpu) : m_cpu(cpu) {}
  bool bit(uint32_t leaf, int reg, int bit) const { return m_cpu.stored_bit(leaf, reg, bit); }

 private:
  CpuInfo const& m_cpu;
};

namespace {

struct FlagLine {
  char const* name;
  uint32_t leaf;
  int reg;
  int bit;
  char const* label;
};

enum { eax = 0, ebx = 1, ecx = 2, edx = 3 };

#define TQCORE_CPU_FLAG_LINE(name, leaf, reg, bit, vendor, label) {#name, leaf, reg, bit, label},
constexpr FlagLine kFlagLines[] = {TQCORE_CPU_FEATURE_FLAGS(TQCORE_CPU_FLAG_LINE)};
#undef TQCORE_CPU_FLAG_LINE

bool named(FlagLine const& line, char const* name) { return std::string(line.name) == name; }
bool moved_forward(FlagLine const& line) {
  return named(line, "avx") || named(line, "f16c") || named(line, "rdrand");
}
bool moved_back(FlagLine const& line) {
  return line.leaf == 7 || named(line, "hypervisor_present") || named(line, "tsc_invariant");
}

// The report's order: the table's, but the AVX, F16C and RDRAND lines come before the XSAVE
// line, and the hypervisor, TSC-invariance and leaf-7 lines after the last AMD power line.
std::vector<FlagLine> report_order() {
  std::vector<FlagLine> order;
  for (FlagLine const& line : kFlagLines) {
    if (moved_forward(line) || moved_back(line)) continue;
    if (named(line, "xsave_xstor_supported")) {
      for (FlagLine const& early : kFlagLines) {
        if (moved_forward(early)) order.push_back(early);
      }
    }
    order.push_back(line);
    if (named(line, "amd_power_hardware_pstate_control")) {
      for (char const* late : {"hypervisor_present", "tsc_invariant"}) {
        for (FlagLine const& other : kFlagLines) {
          if (named(other, late)) order.push_back(other);
        }
      }
      for (FlagLine const& other : kFlagLines) {
        if (other.leaf == 7) order.push_back(other);
      }
    }
  }
  return order;
}

// A byte as the report shows it: printable as it is, NUL as "\0", anything else as "\x" and
// two hexadecimal digits of the value as a signed char.
void write_byte(std::ostream& out, char byte) {
  auto const value = static_cast<unsigned char>(byte);
  if (value >= 32 && value <= 127) {
    out << byte;
  } else if (value == 0) {
    out << "\\0";
  } else {
    out << "\\x" << std::hex << std::setw(2) << std::setfill('0')
        << (static_cast<int>(static_cast<signed char>(byte)) & 0xFF) << std::dec;
  }
}

void write_summary(std::ostream& out, char const* prefix, CpuInfo const& cpu) {
  out << prefix << "Family=" << cpu.cpu_family() << "\n";
  out << prefix << "Brand=" << cpu.cpu_brand() << "\n";
  out << prefix << "Last Basic Leaf=" << cpu.cpuid_last_basic_level() << "\n";
  out << prefix << "Last Extended Leaf=" << cpu.cpuid_last_extended_level() << "\n";
  out << prefix << "Logical count=" << cpu.logical_count() << " Core Count=" << cpu.core_count()
      << "\n";
  out << prefix << "Hyperthreading is" << (cpu.is_hyperthreading_enabled() ? "" : " not")
      << " enabled\n";
}

void write_identity(std::ostream& out, char const* prefix, CpuInfo const& cpu) {
  if (cpu.cpu_brand() == CpuInfo::brand_intel) {
    out << prefix << "Intel extended Family=" << cpu.intel_effective_family()
        << " and Model=" << cpu.intel_effective_model() << "\n";
  } else if (cpu.cpu_brand() == CpuInfo::brand_amd) {
    out << prefix << "AMD extended Family=" << cpu.amd_effective_family()
        << " and Model=" << cpu.amd_effective_model() << "\n";
    out << prefix << "AMD Extended Brand ID=" << cpu.amd_extended_brand_id() << "\n";
    out << prefix << "AMD Physical Core Count=" << cpu.amd_physical_core_count() << "\n";
  }
  out << prefix << "Vendor Id=" << cpu.vendor_id() << "\n";
  out << prefix << "Signature=" << std::hex << cpu.signature() << std::dec
      << " ExFamily=" << cpu.sig_extended_family() << " ExModel=" << cpu.sig_extended_model()
      << " Type=" << cpu.sig_processor_type() << " Family=" << cpu.sig_family()
      << " Model=" << cpu.sig_model() << " Stepping=" << cpu.sig_stepping() << "\n";
  if (cpu.hyperthreading_capable()) {
    out << prefix << "APIC ID=" << cpu.apic_id() << "\n";
    out << prefix << "Logical CPUs=" << cpu.logical_count() << "\n";
    out << prefix << "APIC Package Mask=0x" << std::hex << cpu.apic_id_package_mask()
        << "\n APIC Core Mask=0x" << cpu.apic_id_core_mask() << std::dec << "\n";
    out << prefix << "APIC Package Shift=" << cpu.package_apic_id_shift()
        << " APIC Core Shift=" << cpu.core_apic_id_shift() << "\n";
  }
  out << prefix << "Brand Index=" << cpu.brand_index() << "\n";
  out << prefix << "Cache Line Flush Size=" << cpu.clflush_line_size() << " bytes\n";
}

// "XXXX-XXXX-..." in groups of four upper-case digits, as processor serial numbers are written.
void write_serial_number(std::ostream& out, char const* prefix, CpuInfo const& cpu) {
  unsigned int high = 0;
  unsigned long long low = 0;
  cpu.get_processor_serial_number(high, low);
  uint16_t const groups[] = {static_cast<uint16_t>(high >> 16), static_cast<uint16_t>(high),
                             static_cast<uint16_t>(low >> 48),  static_cast<uint16_t>(low >> 32),
                             static_cast<uint16_t>(low >> 16),  static_cast<uint16_t>(low)};
  out << prefix << "Processor serial number=" << std::hex << std::uppercase << std::setfill('0');
  for (size_t i = 0; i < 6; ++i) out << (i == 0 ? "" : "-") << std::setw(4) << groups[i];
  out << std::dec << std::nouppercase << std::setfill(' ') << "\n";
}

void write_caches(std::ostream& out, char const* prefix, CpuInfo const& cpu) {
  int const extended = cpu.cpuid_last_extended_level();
  if (cpu.cpuid_last_basic_level() > 4) {
    out << prefix << "Min monitor line size=" << cpu.min_monitor_line_size() << " bytes\n";
    out << prefix << "Max monitor line size=" << cpu.max_monitor_line_size() << " bytes\n";
  }
  if (extended >= 4) out << prefix << "Brand string='" << cpu.brand_string() << "'\n";
  if (extended <= 6) return;
  out << prefix << "Cache line size=" << cpu.cache_line_size() << " bytes\n";
  out << prefix << "L2 associativity=" << cpu.L2_associativity() << "\n";
  out << prefix << "L2 Cache size=" << cpu.cache_size() << " bytes\n";
  if (extended >= 8) {
    out << prefix << "Physical address bits=" << cpu.num_physical_address_bits() << "\n";
    out << prefix << "Virtual address bits=" << cpu.num_virtual_address_bits() << "\n";
  }
  if (cpu.cpu_brand() == CpuInfo::brand_amd) {
    out << prefix << "AMD lines per tag=" << cpu.lines_per_tag() << "\n";
  }
}

void write_flags(std::ostream& out, char const* prefix, CpuInfo const& cpu) {
  static std::vector<FlagLine> const kOrder = report_order();
  CpuReport const report(cpu);
  for (FlagLine const& line : kOrder) {
    // This line has always read bit 14, the machine check architecture's.
    int const bit = named(line, "machine_check_exception") ? 14 : line.bit;
    out << prefix << line.label << "=" << (report.bit(line.leaf, line.reg, bit) ? "Yes" : "No")
        << "\n";
  }
}

void write_hypervisor(std::ostream& out, char const* prefix, CpuInfo const& cpu) {
  out << prefix << " Hypervisor Vendor Id='" << cpu.hypervisor_vendor_id() << "'\n";
  uint32_t const id = cpu.hypervisor_interface_id();
  out << prefix << " Hypervisor Interface Id='";
  for (int i = 0; i < 4; ++i) write_byte(out, static_cast<char>(id >> (8 * i)));
  out << "' (0x" << std::hex << std::setw(8) << std::setfill('0') << id << std::dec
      << std::setfill(' ') << ")\n";
}

void write_leaf(std::ostream& out, char const* prefix, uint32_t leaf, CpuInfo::RegSet const& regs) {
  out << prefix << std::hex << std::setfill('0') << "Leaf=" << std::setw(8) << leaf
      << " EAX=" << std::setw(8) << regs.eax << " EBX=" << std::setw(8) << regs.ebx
      << " ECX=" << std::setw(8) << regs.ecx << " EDX=" << std::setw(8) << regs.edx << std::dec
      << std::setfill(' ') << "\n";
}

void append_leaf(std::string& text, uint32_t leaf, CpuInfo::RegSet const& regs) {
  text += CpuInfo::regset_to_string(leaf, regs);
  text += '\n';
}

}  // namespace

void CpuInfo::dump_cpuid_info(std::ostream& out, char const* prefix) const {
  write_summary(out, prefix, *this);
  if (m_basic.size() > 1) {
    write_identity(out, prefix, *this);
    if (m_basic.size() >= 3 && m_brand == brand_intel && processor_serial_number()) {
      write_serial_number(out, prefix, *this);
    }
    write_caches(out, prefix, *this);
  }
  write_flags(out, prefix, *this);
  if (hypervisor_present()) write_hypervisor(out, prefix, *this);
}

void CpuInfo::dump_raw_cpuid(std::ostream& out, char const* prefix) const {
  out << prefix << "Famliy=" << m_family << " brandString='" << m_brandIdString
      << "' max basic leaf=" << cpuid_last_basic_level()
      << " max extended leaf=" << cpuid_last_extended_level() << "\n";
  for (size_t i = 0; i < m_basic.size(); ++i) {
    write_leaf(out, prefix, static_cast<uint32_t>(i), m_basic[i]);
  }
  for (size_t i = 0; i < m_extended.size(); ++i) {
    write_leaf(out, prefix, 0x80000000u + static_cast<uint32_t>(i), m_extended[i]);
  }
  if (!m_topology.empty()) out << prefix << "Processor Topology\n";
  for (size_t i = 0; i < m_topology.size(); ++i) {
    write_leaf(out, prefix, static_cast<uint32_t>(i), m_topology[i]);
  }
  if (!m_hypervisor.empty()) out << prefix << "Hypervisor CPUID\n";
  for (size_t i = 0; i < m_hypervisor.size(); ++i) {
    write_leaf(out, prefix, 0x40000000u + static_cast<uint32_t>(i), m_hypervisor[i]);
  }
}

std::string CpuInfo::regset_to_string(unsigned int leaf, RegSet const& regs) {
  std::string text(40, '0');
  uint32_t const words[] = {leaf, regs.eax, regs.ebx, regs.ecx, regs.edx};
  for (size_t w = 0; w < 5; ++w) {
    for (size_t digit = 0; digit < 8; ++digit) {
      text[w * 8 + digit] = "0123456789abcdef"[words[w] >> (28 - 4 * digit) & 0xF];
    }
  }
  return text;
}

std::string CpuInfo::as_string_for_hash(bool include_hypervisor, bool normalize) const {
  std::vector<RegSet> basic = m_basic;
  if (normalize) {
    // What the operating system enabled would make one machine hash two ways.
    if (basic.size() > 1) basic[1].ecx |= 1u << 27;
    if (basic.size() > 13) basic[13].ebx = basic[13].ecx;
  }
  std::string text;
  text.reserve(41 * (basic.size() + m_extended.size() + m_topology.size() + m_hypervisor.size()));
  for (size_t i = 0; i < basic.size(); ++i) append_leaf(text, static_cast<uint32_t>(i), basic[i]);
  for (size_t i = 0; i < m_extended.size(); ++i) {
    append_leaf(text, 0x80000000u + static_cast<uint32_t>(i), m_extended[i]);
  }
  // The topology's records are taken from the extended table at the same index: existing
  // hashes depend on it.
  for (size_t i = 0; i < m_topology.size(); ++i) {
    append_leaf(text, static_cast<uint32_t>(i), extended(i));
  }
  if (include_hypervisor) {
    for (size_t i = 0; i < m_hypervisor.size(); ++i) {
      append_leaf(text, static_cast<uint32_t>(i), m_hypervisor[i]);
    }
  }
  return text;
}

std::ostream& operator<<(std::ostream& out, CpuInfo::TraceCpuidInfo const& trace) {
  trace.cpu->dump_cpuid_info(out, trace.prefix);
  return out;
}

std::ostream& operator<<(std::ostream& out, CpuInfo::TraceRawCpuid const& trace) {
  trace.cpu->dump_raw_cpuid(out, trace.prefix);
  return out;
}

}  // namespace hardware
}  // namespace tqcore
