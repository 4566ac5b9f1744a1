// Reading CPUID: every leaf the processor reports, once, and what is derived from them.
#include <tqcore/cpu.h>

#include <cpuid.h>

#include <cstring>

namespace tqcore {
namespace hardware {
namespace {

constexpr char const* kVendorStrings[CpuInfo::s_numSupportedBrands] = {
    "GenuineIntel", "AuthenticAMD", "UMC UMC UMC ", "CyrixInstead", "NexGenDriven",
    "CentaurHauls", "RiseRiseRise", "Sis Sis Sis ", "GenuineTMx86", "Geode by NSC",
};

constexpr uint32_t kExtendedBase = 0x80000000u;
constexpr uint32_t kHypervisorBase = 0x40000000u;
// More extended leaves than this is taken for a processor that answers nonsense.
constexpr uint32_t kExtendedLeafLimit = 98;
// Processors stop near 0x20; a larger last basic leaf is nonsense too, and read as leaf 0 only
// (else a recorded or virtual answer of 0xFFFFFFFF would ask for 64 GiB of leaves).
constexpr uint32_t kBasicLeafLimit = 255;
constexpr uint32_t kHypervisorLeafLimit = 255;

class ProcessorSource : public CpuInfo::Source {
 public:
  CpuInfo::RegSet cpuid(uint32_t leaf, uint32_t subleaf) const override {
    CpuInfo::RegSet regs;
    CpuInfo::cpuid(leaf, subleaf, regs.eax, regs.ebx, regs.ecx, regs.edx);
    return regs;
  }
};

void append_register(std::string& text, uint32_t value) {
  for (int i = 0; i < 4; ++i) text += static_cast<char>(value >> (8 * i));
}

CpuInfo::IntelCacheLevel decode_cache_level(CpuInfo::RegSet const& regs) {
  CpuInfo::IntelCacheLevel level;
  level.type_and_level = regs.eax & 0xFF;
  level.self_initialising = (regs.eax >> 8 & 1) != 0;
  level.fully_associative = (regs.eax >> 9 & 1) != 0;
  level.threads_sharing = regs.eax >> 14 & 0xFFF;
  level.cores_per_package = regs.eax >> 26 & 0x3F;
  level.line_size = regs.ebx & 0xFFF;
  level.partitions = regs.ebx >> 12 & 0x3FF;
  level.ways = regs.ebx >> 22 & 0x3FF;
  level.sets = regs.ecx + 1;
  return level;
}

// floor(log2(value)) of the value cut to 8 bits; 0 below 2.
uint32_t log2_of_byte(uint32_t value) {
  value &= 0xFF;
  uint32_t bits = 0;
  while (value >= 2) {
    value >>= 1;
    ++bits;
  }
  return bits;
}

}  // namespace

CpuInfo::CpuInfo() { populate_cpu_info(ProcessorSource()); }

CpuInfo::CpuInfo(Source const& source) { populate_cpu_info(source); }

void CpuInfo::cpuid(unsigned int leaf, unsigned int subleaf, unsigned int& eax, unsigned int& ebx,
                    unsigned int& ecx, unsigned int& edx) noexcept {
  __cpuid_count(leaf, subleaf, eax, ebx, ecx, edx);
}

void CpuInfo::populate_cpu_info(Source const& source) {
  RegSet const zero = source.cpuid(0, 0);
  m_vendorId.reserve(12);
  append_register(m_vendorId, zero.ebx);
  append_register(m_vendorId, zero.edx);
  append_register(m_vendorId, zero.ecx);
  for (int i = 0; i < s_numSupportedBrands; ++i) {
    if (m_vendorId == kVendorStrings[i]) m_brand = static_cast<ECpuBrand>(i);
  }
  if (m_brand == brand_intel || m_brand == brand_amd) {
    uint32_t const last_basic = zero.eax <= kBasicLeafLimit ? zero.eax : 0;
    m_basic.resize(static_cast<size_t>(last_basic) + 1);
    m_basic[0] = zero;
    for (uint32_t leaf = 1; leaf <= last_basic; ++leaf) m_basic[leaf] = source.cpuid(leaf, 0);
    m_family = m_basic.size() > 1 ? static_cast<ECpuFamily>(m_basic[1].eax >> 8 & 0xF) : family_486;
    if (m_brand == brand_intel || m_family >= family_pentium) {
      RegSet const top = source.cpuid(kExtendedBase, 0);
      if (top.eax >= kExtendedBase && top.eax - kExtendedBase <= kExtendedLeafLimit) {
        m_extended.resize(top.eax - kExtendedBase + 1);
        m_extended[0] = top;
        for (size_t i = 1; i < m_extended.size(); ++i) {
          m_extended[i] = source.cpuid(kExtendedBase + static_cast<uint32_t>(i), 0);
        }
      }
    }
    if (m_extended.size() > 4) {
      for (size_t i = 2; i <= 4; ++i) {
        for (unsigned int n = 0; n < 16; ++n) m_brandString += m_extended[i].byte_at(n);
      }
      m_brandString.resize(std::strlen(m_brandString.c_str()));
    }
    if (m_brand == brand_intel && m_basic.size() > 4) {
      for (int n = 0;; ++n) {
        RegSet const regs = source.cpuid(4, static_cast<uint32_t>(n));
        m_cacheLevels[n] = decode_cache_level(regs);
        if ((regs.eax & 0xF) == 0 || n > 63) break;
      }
    }
    if (m_brand == brand_intel && m_basic.size() > 0xB) {
      for (uint32_t n = 0; n < 256; ++n) {
        RegSet const regs = source.cpuid(0xB, n);
        if (regs.eax == 0 && regs.ebx == 0) break;
        m_topology.push_back(regs);
      }
    }
  } else {
    m_family = family_486;  // nothing more is read for a vendor that is not served
  }
  if (m_basic.size() > 1 && (m_basic[1].ecx >> 31) != 0) {
    RegSet const top = source.cpuid(kHypervisorBase, 0);
    uint32_t const count = top.eax - kHypervisorBase;
    if (top.eax >= kHypervisorBase && count <= kHypervisorLeafLimit) {
      m_hypervisor.resize(count + 1);
      m_hypervisor[0] = top;
      for (uint32_t i = 1; i <= count; ++i) m_hypervisor[i] = source.cpuid(kHypervisorBase + i, 0);
    }
  }
  set_brand_id_string();
  decide_features();
}

void CpuInfo::decide_features() noexcept {
#define TQCORE_CPU_FEATURE_DECIDE(name, leaf, reg, bit, vendor, label)       \
  if (feature(leaf, reg_##reg, bit, vendor_##vendor)) {                      \
    m_features[feature_##name >> 6] |= uint64_t{1} << (feature_##name & 63); \
  }
  TQCORE_CPU_FEATURE_FLAGS(TQCORE_CPU_FEATURE_DECIDE)
#undef TQCORE_CPU_FEATURE_DECIDE
}

CpuInfo::IntelCacheLevel CpuInfo::cache_level(int subleaf) const noexcept {
  auto const found = m_cacheLevels.find(subleaf);
  return found != m_cacheLevels.end() ? found->second : IntelCacheLevel{};
}

uint32_t CpuInfo::logical_count() const noexcept {
  if (m_basic.size() < 2) return 1;
  bool const threads = hyperthreading_capable();
  if (m_brand == brand_intel) {
    for (RegSet const& level : m_topology) {
      if ((level.ecx >> 8 & 0xFF) == 2) return level.ebx & 0xFFFF;
    }
    if (threads) return m_basic[1].ebx >> 16 & 0xFF;
    if (m_basic.size() < 5) return 1;
    return cache_level(0).cores_per_package;
  }
  if (m_brand == brand_amd) {
    // The guard asks for 5 extended leaves though it reads the ninth: kept as it was.
    uint32_t const n = m_extended.size() > 4 ? (extended(8).ecx & 0xF) + 1 : 1;
    if (!threads || cmp_legacy()) return n;
    return n * (m_basic[1].ebx >> 16 & 0xFF);
  }
  return 1;
}

uint32_t CpuInfo::core_count() const noexcept {
  if (m_brand == brand_intel) {
    if (m_topology.size() > 1) {
      uint32_t threads = 0;
      uint32_t logical = 0;
      for (RegSet const& level : m_topology) {
        uint32_t const type = level.ecx >> 8 & 0xFF;
        if (type == 1) threads = level.ebx;
        if (type == 2) logical = level.ebx;
      }
      if (threads >= 1 && logical >= 1) return logical / threads;
    }
    if (m_basic.size() < 5) return 1;
    return cache_level(0).cores_per_package + 1;
  }
  if (m_brand == brand_amd) {
    if (m_extended.size() > 8) return (m_extended[8].ecx & 0xF) + 1;
    if (m_basic.size() < 2 || !cmp_legacy() || !hyperthreading_capable()) return 1;
    return logical_count();
  }
  return 1;
}

uint32_t CpuInfo::core_apic_id_shift() const noexcept {
  if (m_brand != brand_intel) return 0;
  if (!m_topology.empty()) return m_topology.front().eax & 0xF;
  uint32_t const cores = core_count();
  return cores == 0 ? 0 : log2_of_byte(logical_count() / cores);
}

uint32_t CpuInfo::package_apic_id_shift() const noexcept {
  if (m_brand == brand_amd) {
    uint32_t const field = extended(8).ecx >> 12 & 0xF;
    if (m_extended.size() > 8 && field != 0) return field;
    return log2_of_byte(core_count());
  }
  if (m_brand != brand_intel) return 0;
  if (m_topology.size() >= 2) return m_topology[1].eax & 0xF;
  return log2_of_byte(core_count()) + core_apic_id_shift();
}

void CpuInfo::get_processor_serial_number(unsigned int& high,
                                          unsigned long long& low) const noexcept {
  if (!processor_serial_number()) return;
  high = basic(1).eax;
  low = static_cast<unsigned long long>(basic(3).ecx) << 32 | basic(3).edx;
}

std::string CpuInfo::hypervisor_vendor_id() const {
  std::string text;
  if (m_hypervisor.empty()) return text;
  append_register(text, m_hypervisor[0].ebx);
  append_register(text, m_hypervisor[0].ecx);
  append_register(text, m_hypervisor[0].edx);
  return text;
}

bool CpuInfo::is_fast_system_call_supported() const noexcept {
  // Early processors set the bit without having the instructions.
  if (m_brand == brand_intel) return fast_system_call() && (signature() & 0xFFF3FFF) >= 0x633;
  return fast_system_call();
}

bool CpuInfo::get_option_flag(EOptionFlag flag) {
  struct Group {
    uint32_t first;
    uint32_t end;
    uint32_t leaf;
    int first_register;
  };
  static constexpr Group kGroups[] = {
      {0, 64, 1, 2},
      {64, 192, 6, 0},
      {192, 256, kExtendedBase + 1, 2},
      {256, 288, kExtendedBase + 7, 3},
  };
  unsigned int eax = 0;
  unsigned int ebx = 0;
  unsigned int ecx = 0;
  unsigned int edx = 0;
  uint32_t const number = flag;
  for (Group const& group : kGroups) {
    if (number < group.first || number >= group.end) continue;
    cpuid(group.leaf & kExtendedBase, 0, eax, ebx, ecx, edx);
    if (eax < group.leaf) return false;
    cpuid(group.leaf, 0, eax, ebx, ecx, edx);
    uint32_t const position =
        number - group.first + 32 * static_cast<uint32_t>(group.first_register);
    RegSet const regs{eax, ebx, ecx, edx};
    return (regs.reg(position / 32) >> (position % 32) & 1) != 0;
  }
  uint32_t const subleaf = (number - 288) / 128;
  uint32_t const position = (number - 288) % 128;
  cpuid(0, 0, eax, ebx, ecx, edx);
  if (eax < 7) return false;
  cpuid(7, 0, eax, ebx, ecx, edx);
  if (subleaf > eax) return false;
  cpuid(7, subleaf, eax, ebx, ecx, edx);
  RegSet const regs{eax, ebx, ecx, edx};
  return (regs.reg(position / 32) >> (position % 32) & 1) != 0;
}

}  // namespace hardware
}  // namespace tqcore
