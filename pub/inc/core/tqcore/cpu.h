/// @file
/// The processor as CPUID describes it: vendor, family and model, brand texts, caches, counts
/// of logical CPUs and cores, APIC id layout, and one accessor a feature bit. Every answer is
/// read once at construction; queries afterwards are bit tests on what was stored.
///
/// Failures: `CpuInfo` never raises after construction; a leaf that a recorded `Source` lacks
/// answers four zero registers. `Cpu` raises "error.tqcore.hardware.invalidCpuId" for a CPU it does
/// not know and "error.tqcore.hardware.threadAffinity" when it cannot move its thread.
///
/// @code
/// tqcore::hardware::CpuInfo const cpu;
/// if (cpu.avx2()) std::cout << "AVX2 kernels\n";
/// cpu.dump_cpuid_info(std::cout, "  ");
/// @endcode
#pragma once

#include <tqcore/affinity.h>
#include <tqcore/tqcore_export.h>

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

// Every feature accessor: name, leaf, register, bit, vendor it is defined for, report label.
// clang-format off
#define TQCORE_CPU_FEATURE_FLAGS(X) \
  X(floating_point, 1, edx, 0, any, "Floating point on chip") \
  X(virtual_mode_extensions, 1, edx, 1, any, "Virtual mode extensions") \
  X(debugging_extensions, 1, edx, 2, any, "Debugging extensions") \
  X(page_size_extension, 1, edx, 3, any, "Page size extensions") \
  X(timestamp_counter, 1, edx, 4, any, "Timestamp counter") \
  X(model_specific_registers, 1, edx, 5, any, "Model-specific registers") \
  X(physical_address_extensions, 1, edx, 6, any, "Physical address extensions") \
  X(machine_check_exception, 1, edx, 7, any, "Machine check exception") \
  X(compare_and_exchange_8_bytes, 1, edx, 8, any, "Compare and exchange 8 bytes") \
  X(apic_on_chip, 1, edx, 9, any, "Apic on chip") \
  X(fast_system_call, 1, edx, 11, any, "Fast system call (SYSENTER/SYSEXIT)") \
  X(memory_type_range_registers, 1, edx, 12, any, "Memory type range registers") \
  X(page_global_enable, 1, edx, 13, any, "Page global bit supported") \
  X(machine_check_architecture, 1, edx, 14, any, "Machine check architecture is supported") \
  X(conditional_move, 1, edx, 15, any, "Conditional move supported") \
  X(page_attribute_table, 1, edx, 16, any, "Page attribute table supported") \
  X(page_size_extension_36bit, 1, edx, 17, any, "Page size extension (36-bit)") \
  X(processor_serial_number, 1, edx, 18, intel, "Processor serial number=") \
  X(clflush_supported, 1, edx, 19, any, "CLFLUSH instruction supported") \
  X(debug_store, 1, edx, 21, intel, "Debug store supported") \
  X(acpi, 1, edx, 22, intel, "ACPI supported") \
  X(mmx, 1, edx, 23, any, "MMX supported") \
  X(fast_floating_point_save_restore, 1, edx, 24, any, "Fast floating point save/restore supported") \
  X(sse, 1, edx, 25, any, "SSE supported") \
  X(sse2, 1, edx, 26, any, "SSE2 supported") \
  X(self_snoop, 1, edx, 27, intel, "Self snoop supported") \
  X(hyperthreading_capable, 1, edx, 28, any, "APIC ID=") \
  X(thermal_monitor, 1, edx, 29, intel, "Thermal monitor supported") \
  X(emulated_on_itanium, 1, edx, 30, intel, "IA-32 on IA-64 (Itanium)") \
  X(pending_break_enable, 1, edx, 31, any, "Pending break enable supported") \
  X(sse3, 1, ecx, 0, any, "SSE3 supported") \
  X(pclmuldq, 1, ecx, 1, any, "PCLMULDQ instruction supported") \
  X(debug_store_64bit, 1, ecx, 2, intel, "64-bit Debug Store Supported") \
  X(monitor_mwait_supported, 1, ecx, 3, any, "MONITOR/MWAIT instructions supported") \
  X(cpl_qualified_debug_store, 1, ecx, 4, intel, "CPL qualified debug store") \
  X(virtual_machine_extensions, 1, ecx, 5, intel, "Virtual machine extensions") \
  X(safer_mode_extensions, 1, ecx, 6, intel, "Safer Mode extensions") \
  X(enhanced_speedstep_technology, 1, ecx, 7, intel, "Enhanced Speedstep technology") \
  X(thermal_monitor_2, 1, ecx, 8, intel, "Thermal monitor 2 supported") \
  X(ssse3, 1, ecx, 9, any, "Supplemental SSE3 supported") \
  X(context_id, 1, ecx, 10, intel, "Context ID (L1 cache mode controllable by BIOS)") \
  X(sdbg, 1, ecx, 11, intel, "IA32_DEBUG_INTERFACE MSR supported") \
  X(fused_multiply_add, 1, ecx, 12, any, "Fused Multiply Add (FMA) instruction supported") \
  X(compare_and_exchange_16_bytes, 1, ecx, 13, any, "Compare and exchange 16 bytes") \
  X(can_disable_task_priority_messages, 1, ecx, 14, intel, "Can disable task priority messages") \
  X(performance_capabilities_MSR, 1, ecx, 15, intel, "Performance capabilities MSR") \
  X(processor_context_identifiers, 1, ecx, 17, intel, "Processor Context Identifiers") \
  X(direct_cache_access, 1, ecx, 18, intel, "Direct cache access supported") \
  X(sse4_1, 1, ecx, 19, any, "SSE4.1 supported") \
  X(sse4_2, 1, ecx, 20, any, "SSE4.2 supported") \
  X(x2_apic_supported, 1, ecx, 21, intel, "x2APIC support") \
  X(movbe_supported, 1, ecx, 22, intel, "MOVBE instruction supported") \
  X(popcnt_supported, 1, ecx, 23, any, "POPCNT instruction supported") \
  X(tsc_deadline, 1, ecx, 24, intel, "Time Stamp Counter Deadline") \
  X(aes, 1, ecx, 25, any, "AES Instruction Extensions") \
  X(xsave_xstor_supported, 1, ecx, 26, any, "XSAVE/STOR extended states feature") \
  X(osxsave_supported, 1, ecx, 27, any, "OS-Enabled Extended State Management supported") \
  X(avx, 1, ecx, 28, any, "AVX Extensions supported") \
  X(f16c, 1, ecx, 29, amd, "F16C half-precision convert instruction supported") \
  X(rdrand, 1, ecx, 30, intel, "RDRAND instruction supported") \
  X(hypervisor_present, 1, ecx, 31, any, "Hypervisor present (running in a VM)") \
  X(fsgsbase, 7, ebx, 0, intel, "RDFSBASE, RDGSBASE, WRFSBASE and WRGSBASE supported") \
  X(ia32_tsc_adjust_msr, 7, ebx, 1, intel, "IA32_TSC_ADJUST MSR supported") \
  X(bmi1, 7, ebx, 3, intel, "Bit Manipulation Instruction Set 1") \
  X(hle, 7, ebx, 4, intel, "Hardware Lock Elison instruction prefixes") \
  X(avx2, 7, ebx, 5, intel, "AVX2 supported") \
  X(smep, 7, ebx, 7, intel, "Supervisor mode execution protection") \
  X(bmi2, 7, ebx, 8, intel, "Bit Manipulation Instruction Set 2") \
  X(enhanced_MOVSB_STOSB, 7, ebx, 9, intel, "enhanced MOVSB STOSB") \
  X(invpcid, 7, ebx, 10, intel, "INVPCID") \
  X(rtm, 7, ebx, 11, intel, "Restricted Transactional Memory instruction set") \
  X(platform_quality_of_service_monitoring, 7, ebx, 12, intel, "Platform Quality of Service Monitoring") \
  X(fpu_cs_and_ds_deprecated, 7, ebx, 13, intel, "deprecated FPU CS and DS") \
  X(platform_quality_of_service_enforcement, 7, ebx, 15, intel, "Platform Quality of Service Enforcement") \
  X(syscall_sysret, 0x80000001, edx, 11, any, "SYSCALL/SYSRET supported") \
  X(execution_disable_bit, 0x80000001, edx, 20, any, "Execution disable bit supported") \
  X(mmx_amd_extensions, 0x80000001, edx, 22, amd, "AMD Extensions to MMX") \
  X(fast_fxsave_fxrestore, 0x80000001, edx, 25, amd, "AMD Fast FXSAVE/FXRESTORE enabled") \
  X(page_1gb, 0x80000001, edx, 26, any, "AMD 1GB Large Page support") \
  X(read_timestamp_counter_and_processor_id, 0x80000001, edx, 27, any, "RDTSCP instruction supported") \
  X(amd_3dnow_extensions, 0x80000001, edx, 30, amd, "AMD Extensions to 3DNow") \
  X(amd_3dnow, 0x80000001, edx, 31, amd, "AMD 3DNow support") \
  X(cmp_legacy, 0x80000001, ecx, 1, amd, "AMD CMP Legacy") \
  X(secure_virtual_machine, 0x80000001, ecx, 2, amd, "AMD Secure Virtual Machine supported") \
  X(extended_apic_space, 0x80000001, ecx, 3, amd, "AMD Extended APCI Space") \
  X(cr8_available, 0x80000001, ecx, 4, amd, "AMD MOV(CR8) instruction supported in legacy mode") \
  X(advanced_bit_manipulation, 0x80000001, ecx, 5, any, "Advanced Bit Manipulation (LZCNT)") \
  X(sse4a, 0x80000001, ecx, 6, amd, "AMD SSE4a supported") \
  X(misaligned_sse, 0x80000001, ecx, 7, amd, "AMD Misaligned SSE supported") \
  X(amd_3dnow_prefetch, 0x80000001, ecx, 8, any, "Prefetch supported (PREFETCH and PREFETCHW)") \
  X(os_visible_workaround, 0x80000001, ecx, 9, amd, "AMD OS-visible workaround supported") \
  X(instruction_based_sampling, 0x80000001, ecx, 10, amd, "AMD Instruction-based Sampling supported") \
  X(xop, 0x80000001, ecx, 11, amd, "AMD XOP prefeix instructions supported") \
  X(skinit_supported, 0x80000001, ecx, 12, amd, "AMD SKINIT instruction supported") \
  X(watchdog_timer, 0x80000001, ecx, 13, amd, "AMD Watchdog Timer supported") \
  X(lightweight_profiling_support, 0x80000001, ecx, 15, amd, "AMD Light-weight profiling support") \
  X(fma4, 0x80000001, ecx, 16, amd, "AMD 4-operand FMA instruction supported") \
  X(tbm, 0x80000001, ecx, 21, amd, "AMD trailing-bit manipulation instruction (TBM)") \
  X(cpuid_topology_extensions, 0x80000001, ecx, 22, amd, "AMD CPUID Topology Extensions") \
  X(processor_performance_counter_extensions, 0x80000001, ecx, 23, amd, "AMD Processor Performance Counter Extensions") \
  X(nb_performance_counter_extensions, 0x80000001, ecx, 24, amd, "AMD NB Performance Counter Extensions") \
  X(streaming_performance_monitor_architecture, 0x80000001, ecx, 25, amd, "AMD Streaming Performance Monitor Architecture") \
  X(data_access_breakpoint_extension, 0x80000001, ecx, 26, amd, "AMD Data access breakpoint extension") \
  X(performance_timestamp_counter, 0x80000001, ecx, 27, amd, "AMD Performance Timestamp Counter") \
  X(amd_power_temperature_sensor, 0x80000007, edx, 0, amd, "AMD Advanced Power Management Temperature Sensor") \
  X(amd_power_frequency_id_control, 0x80000007, edx, 1, amd, "AMD Advanced Power Management Frequency ID Control") \
  X(amd_power_voltage_id_control, 0x80000007, edx, 2, amd, "AMD Advanced Power Management Voltage ID Control") \
  X(amd_power_thermtrip, 0x80000007, edx, 3, amd, "AMD Advanced Power Management THERMTRIP") \
  X(amd_power_hardware_thermal_control, 0x80000007, edx, 4, amd, "AMD Advanced Power Management hardware thermal control") \
  X(amd_power_software_thermal_control, 0x80000007, edx, 5, amd, "AMD Advanced Power Management software thermal control") \
  X(amd_power_100_mhz_multiplier_control, 0x80000007, edx, 6, amd, "AMD Advanced Power Management 100 Mhz multiplier control") \
  X(amd_power_hardware_pstate_control, 0x80000007, edx, 7, amd, "AMD Advanced Power Management Hardware P-State control") \
  X(tsc_invariant, 0x80000007, edx, 8, any, "TSC Invariance") \
  X(em64t, 0x80000001, edx, 29, any, "EM64T supported") \
  X(lahf_sahf, 0x80000001, ecx, 0, any, "LAHF/SAHF instructions supported")
// clang-format on

namespace tqcore {
namespace hardware {

class TQCORE_EXPORT CpuInfo {
 public:
  /// The registers of one CPUID answer.
  struct RegSet {
    uint32_t eax = 0;
    uint32_t ebx = 0;
    uint32_t ecx = 0;
    uint32_t edx = 0;
    /// Register 0 to 3 (EAX to EDX); 0 for any other.
    uint32_t reg(unsigned int index) const noexcept {
      return index == 0 ? eax : index == 1 ? ebx : index == 2 ? ecx : index == 3 ? edx : 0;
    }
    /// Byte n (0 to 15) of the registers in order, low byte of each first.
    char byte_at(unsigned int n) const noexcept {
      return static_cast<char>(reg((n & 12) >> 2) >> (8 * (n & 3)));
    }
  };

  /// One answer of leaf 4, the fields as the processor gives them (no +1 applied).
  struct IntelCacheLevel {
    uint32_t type_and_level = 0;  ///< type in bits 0-3, level in bits 5-7
    bool self_initialising = false;
    bool fully_associative = false;
    uint32_t threads_sharing = 0;
    uint32_t cores_per_package = 0;
    uint32_t line_size = 0;
    uint32_t partitions = 0;
    uint32_t ways = 0;
    uint32_t sets = 0;  ///< this one with the +1
  };

  /// Where the answers come from: the processor, or a recording of another one. A leaf or
  /// subleaf that a recording lacks answers four zero registers.
  class TQCORE_EXPORT Source {
   public:
    virtual ~Source() = default;
    virtual RegSet cpuid(uint32_t leaf, uint32_t subleaf) const = 0;
  };

  /// Index into the vendor table; -1 for a vendor outside it. Only Intel and AMD are decoded.
  enum ECpuBrand : int {
    brand_unknown = -1,
    brand_intel = 0,
    brand_amd = 1,
    brand_umc = 2,
    brand_cyrix = 3,
    brand_nexgen = 4,
    brand_centaur = 5,
    brand_rise = 6,
    brand_sis = 7,
    brand_transmeta = 8,
    brand_nsc = 9,
  };
  /// Leaf 1's family field (bits 8-11); 4 where it cannot be read.
  enum ECpuFamily : int {
    family_486 = 4,
    family_pentium = 5,
    family_p6 = 6,
    family_extended = 15,  ///< the extended family field counts
  };
  /// Leaf 0x80000006's L2 associativity field.
  enum EL2Associativity : int {
    l2_disabled = 0,
    l2_direct_mapped = 1,
    l2_2_way = 2,
    l2_4_way = 4,
    l2_8_way = 6,
    l2_16_way = 8,
    l2_32_way = 10,
    l2_48_way = 11,
    l2_64_way = 12,
    l2_96_way = 13,
    l2_128_way = 14,
    l2_fully_associative = 15,
  };
  /// A bit of a fresh CPUID answer, numbered by group: 0-63 leaf 1 ECX then EDX; 64-191 leaf 6
  /// EAX to EDX; 192-255 leaf 0x80000001 ECX then EDX; 256-287 leaf 0x80000007 EDX; from 288,
  /// leaf 7 with subleaf (n - 288) / 128 and bit (n - 288) % 128 across EAX to EDX.
  enum EOptionFlag : unsigned int {
    option_sse3 = 0,
    option_ssse3 = 9,
    option_fma = 12,
    option_sse4_1 = 19,
    option_sse4_2 = 20,
    option_popcnt = 23,
    option_aes = 25,
    option_avx = 28,
    option_hypervisor = 31,
    option_sse2 = 32 + 26,
    option_lahf_sahf = 192,
    option_tsc_invariant = 256 + 8,
    option_bmi1 = 288 + 32 + 3,
    option_avx2 = 288 + 32 + 5,
    option_bmi2 = 288 + 32 + 8,
    option_avx512f = 288 + 32 + 16,
  };

  static constexpr int s_numSupportedBrands = 10;
  /// "Hv#1", the interface id of hypervisors that follow the common hypervisor interface.
  static constexpr uint32_t HypervisorVendorIdHv1 = 0x31237648;

  /// The processor the calling thread runs on (pin the thread first to choose it).
  CpuInfo();
  /// A recording: the same decoding without the hardware.
  explicit CpuInfo(Source const& source);

  ECpuBrand cpu_brand() const noexcept { return m_brand; }
  ECpuFamily cpu_family() const noexcept { return m_family; }
  std::string const& vendor_id() const noexcept { return m_vendorId; }
  std::string const& brand_string() const noexcept { return m_brandString; }
  /// A readable name for processors too old to give a brand string; empty when unknown.
  std::string const& brand_id_string() const noexcept { return m_brandIdString; }
  /// Stored leaves - 1: -1 for none. The extended one is an index, not 0x8000xxxx. A processor
  /// that names a last basic leaf above 255, or more than 98 extended leaves, answers nonsense:
  /// then only leaf 0 of that range is stored, or no extended leaf.
  int cpuid_last_basic_level() const noexcept { return static_cast<int>(m_basic.size()) - 1; }
  int cpuid_last_extended_level() const noexcept { return static_cast<int>(m_extended.size()) - 1; }

  uint32_t signature() const noexcept { return basic(1).eax; }
  uint32_t sig_stepping() const noexcept { return signature() & 0xF; }
  uint32_t sig_model() const noexcept { return signature() >> 4 & 0xF; }
  uint32_t sig_family() const noexcept { return signature() >> 8 & 0xF; }
  uint32_t sig_processor_type() const noexcept { return signature() >> 12 & 0x3; }
  uint32_t sig_extended_model() const noexcept { return signature() >> 16 & 0xF; }
  uint32_t sig_extended_family() const noexcept { return signature() >> 20 & 0xFF; }
  uint32_t intel_effective_family() const noexcept { return sig_family() + sig_extended_family(); }
  uint32_t intel_effective_model() const noexcept {
    return sig_model() + sig_extended_model() * 16;
  }
  uint32_t amd_effective_family() const noexcept {
    return sig_family() < 15 ? sig_family() : sig_family() + sig_extended_family();
  }
  uint32_t amd_effective_model() const noexcept {
    return sig_model() < 15 ? sig_model() : 15 + sig_extended_model();
  }
  uint32_t brand_index() const noexcept { return basic(1).ebx & 0xFF; }
  uint32_t clflush_line_size() const noexcept { return basic(1).ebx >> 8 & 0xFF; }
  uint32_t cache_line_size() const noexcept { return extended(6).ecx & 0xFF; }
  EL2Associativity L2_associativity() const noexcept {
    return static_cast<EL2Associativity>(extended(6).ecx >> 12 & 0xF);
  }
  uint32_t cache_size() const noexcept { return (extended(6).ecx >> 16) * 1024; }
  uint32_t lines_per_tag() const noexcept {
    return m_brand == brand_amd ? extended(6).ecx >> 8 & 0xF : 0;
  }
  uint32_t num_physical_address_bits() const noexcept { return extended(8).eax & 0xFF; }
  uint32_t num_virtual_address_bits() const noexcept { return extended(8).eax >> 8 & 0xFF; }
  uint32_t amd_physical_core_count() const noexcept {
    return has_extended(8) ? (extended(8).ecx & 0xF) + 1 : 1;
  }
  uint32_t amd_extended_brand_id() const noexcept {
    return has_extended(1) ? extended(1).ebx & 0xFFFF : 0xFFFFFFFFu;
  }
  uint32_t min_monitor_line_size() const noexcept { return basic(5).eax & 0xFFFF; }
  uint32_t max_monitor_line_size() const noexcept { return basic(5).ebx & 0xFFFF; }
  uint32_t apic_id() const noexcept { return hyperthreading_capable() ? basic(1).ebx >> 24 : 0; }
  bool is_hyperthreading_enabled() const {
    return hyperthreading_capable() && logical_count() > core_count();
  }
  /// Intel with a processor serial number only; otherwise the outputs are left as they are.
  void get_processor_serial_number(unsigned int& high, unsigned long long& low) const noexcept;
  std::string hypervisor_vendor_id() const;
  uint32_t hypervisor_interface_id() const noexcept { return hypervisor(1).eax; }
  bool is_fast_system_call_supported() const noexcept;

  /// Logical CPUs and cores in a package, and the APIC id's layout.
  uint32_t logical_count() const noexcept;
  uint32_t core_count() const noexcept;
  uint32_t core_apic_id_shift() const noexcept;
  uint32_t package_apic_id_shift() const noexcept;
  uint32_t apic_id_package_mask() const noexcept {
    return 0xFFu << package_apic_id_shift() & 0xFFu;
  }
  uint32_t apic_id_core_mask() const noexcept { return 0xFFu << core_apic_id_shift() & 0xFFu; }

  /// The stored answers.
  std::vector<RegSet> const& basic_leaves() const noexcept { return m_basic; }
  std::vector<RegSet> const& extended_leaves() const noexcept { return m_extended; }
  std::vector<RegSet> const& topology() const noexcept { return m_topology; }
  std::vector<RegSet> const& hypervisor_leaves() const noexcept { return m_hypervisor; }
  std::map<int, IntelCacheLevel> const& cache_levels() const noexcept { return m_cacheLevels; }

// Each a test of one bit, decided at construction.
#define TQCORE_CPU_FEATURE_ACCESSOR(name, leaf, reg, bit, vendor, label) \
  bool name() const noexcept { return has_feature(feature_##name); }
  TQCORE_CPU_FEATURE_FLAGS(TQCORE_CPU_FEATURE_ACCESSOR)
#undef TQCORE_CPU_FEATURE_ACCESSOR

  /// A bit of a fresh CPUID answer on the calling thread's processor, without an instance.
  static bool get_option_flag(EOptionFlag flag);
  /// Issues the instruction.
  static void cpuid(unsigned int leaf, unsigned int subleaf, unsigned int& eax, unsigned int& ebx,
                    unsigned int& ecx, unsigned int& edx) noexcept;

  /// Everything decoded, one line each, each line opening with `prefix`.
  void dump_cpuid_info(std::ostream& out, char const* prefix) const;
  /// The registers as read.
  void dump_raw_cpuid(std::ostream& out, char const* prefix) const;
  /// The leaf and the registers as 40 lower-case hexadecimal digits.
  static std::string regset_to_string(unsigned int leaf, RegSet const& regs);
  /// A canonical text of the registers to hash, to recognise a machine. `normalize` clears
  /// what depends on the operating system's settings rather than the processor.
  std::string as_string_for_hash(bool include_hypervisor, bool normalize = false) const;

  /// For trace statements: `out << CpuInfo::TraceCpuidInfo(&cpu, "  ")`.
  struct TraceCpuidInfo {
    CpuInfo const* cpu;
    char const* prefix;
  };
  struct TraceRawCpuid {
    CpuInfo const* cpu;
    char const* prefix;
  };

 private:
  enum Register : int { reg_eax = 0, reg_ebx = 1, reg_ecx = 2, reg_edx = 3 };
  enum Vendor : int { vendor_any, vendor_intel, vendor_amd };
#define TQCORE_CPU_FEATURE_ID(name, leaf, reg, bit, vendor, label) feature_##name,
  enum FeatureId : unsigned int { TQCORE_CPU_FEATURE_FLAGS(TQCORE_CPU_FEATURE_ID) feature_count };
#undef TQCORE_CPU_FEATURE_ID

  bool has_feature(FeatureId id) const noexcept {
    return (m_features[id >> 6] >> (id & 63) & 1) != 0;
  }
  void decide_features() noexcept;

  void populate_cpu_info(Source const& source);
  void set_brand_id_string();

  static RegSet const& absent() noexcept {
    static RegSet const zero;
    return zero;
  }
  RegSet const& basic(size_t leaf) const noexcept {
    return leaf < m_basic.size() ? m_basic[leaf] : absent();
  }
  RegSet const& extended(size_t index) const noexcept {
    return index < m_extended.size() ? m_extended[index] : absent();
  }
  RegSet const& hypervisor(size_t index) const noexcept {
    return index < m_hypervisor.size() ? m_hypervisor[index] : absent();
  }
  bool has_extended(size_t index) const noexcept { return index < m_extended.size(); }
  /// A stored bit; false where the leaf is missing or the vendor does not match.
  bool feature(uint32_t leaf, Register reg, int bit, Vendor vendor) const noexcept {
    if (vendor == vendor_intel && m_brand != brand_intel) return false;
    if (vendor == vendor_amd && m_brand != brand_amd) return false;
    return stored_bit(leaf, reg, bit);
  }
  bool stored_bit(uint32_t leaf, int reg, int bit) const noexcept {
    if (leaf >= 0x80000000u) {
      size_t const index = leaf - 0x80000000u;
      return index < m_extended.size() && (m_extended[index].reg(reg) >> bit & 1) != 0;
    }
    return leaf < m_basic.size() && (m_basic[leaf].reg(reg) >> bit & 1) != 0;
  }
  IntelCacheLevel cache_level(int subleaf) const noexcept;

  ECpuBrand m_brand = brand_unknown;
  std::string m_vendorId;
  std::string m_brandString;
  std::string m_brandIdString;
  ECpuFamily m_family = family_486;
  std::vector<RegSet> m_basic;
  std::vector<RegSet> m_extended;
  std::vector<RegSet> m_topology;
  std::vector<RegSet> m_hypervisor;
  std::map<int, IntelCacheLevel> m_cacheLevels;
  uint64_t m_features[(feature_count + 63) / 64] = {};

  friend class CpuReport;
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& out, CpuInfo::TraceCpuidInfo const& trace);
TQCORE_EXPORT std::ostream& operator<<(std::ostream& out, CpuInfo::TraceRawCpuid const& trace);

/// A snapshot of the machine as the calling thread may use it: every CPU of its affinity
/// (at most 64), how they group into cores and packages, the timestamp counter's frequency,
/// and the instruction-set facts asked most. The survey pins the thread to each CPU in turn
/// and restores its affinity; afterwards every query is a look-up.
class TQCORE_EXPORT Cpu {
 public:
  /// The survey. The timestamp counter's frequency comes from CPUID (the crystal ratio of leaf
  /// 0x15, the base frequency of leaf 0x16, or the hypervisor's leaf 0x40000010), else it is
  /// measured over one second, during which the thread sleeps.
  Cpu();

  int logical_cpus() const noexcept { return m_logicalCount; }
  int cores() const noexcept { return m_coreCount; }
  int packages() const noexcept { return m_packageCount; }
  /// Timestamp-counter ticks a second.
  double frequency() const noexcept { return m_frequency; }
  bool is_cpu_present(unsigned int cpu) const noexcept { return m_logicalMask.is_set(cpu); }
  void get_logical_mask(CpuAffinityMask& mask) const noexcept { mask = m_logicalMask; }
  void get_core_mask(CpuAffinityMask& mask) const noexcept { mask = m_coreMask; }
  void get_physical_mask(CpuAffinityMask& mask) const noexcept { mask = m_physicalMask; }
  /// One CPU a package first, then one a core, then the hyper-threads.
  std::vector<unsigned int> const& cpu_priority_list() const noexcept { return m_priorityList; }

  /// These look a CPU up without checking it: ask is_cpu_present first.
  unsigned char package(unsigned int cpu) const;
  unsigned char core(unsigned int cpu) const;
  unsigned char ht_unit(unsigned int cpu) const;
  unsigned char apic_id(unsigned int cpu) const;
  CpuInfo const& cpu_info(unsigned int cpu) const { return m_cpuInfo.at(cpu); }

  /// Whether `cpu` is the lowest-numbered of its package (core); raises
  /// "error.tqcore.hardware.invalidCpuId" for a CPU that is not present.
  bool is_first_physical_cpu(unsigned int cpu) const;
  bool is_first_core_cpu(unsigned int cpu) const;

  bool has_mmx() const noexcept { return m_mmx; }
  bool has_mmx_amd_extensions() const noexcept { return m_mmxAmdExtensions; }
  bool has_3dnow() const noexcept { return m_3dnow; }
  bool has_3dnow_extensions() const noexcept { return m_3dnowExtensions; }
  bool has_popcnt() const noexcept { return m_popcnt; }
  bool has_sse() const noexcept { return m_sse; }
  bool has_sse2() const noexcept { return m_sse2; }
  bool has_sse3() const noexcept { return m_sse3; }
  bool has_sse4_1() const noexcept { return m_sse41; }
  bool has_sse4_2() const noexcept { return m_sse42; }
  bool has_8_byte_compare_exchange() const noexcept { return m_cmpxchg8; }
  bool has_16_byte_compare_exchange() const noexcept { return m_cmpxchg16; }
  bool has_conditional_move() const noexcept { return m_cmov; }

  /// The processor's timestamp counter, not serialised.
  static unsigned long long read_timestamp() noexcept { return __builtin_ia32_rdtsc(); }

 protected:
  /// Timestamp ticks over one second of the monotonic clock, on the lowest CPU of the thread.
  static double measure_frequency();

 private:
  void survey(ACE_Thread_ID const& thread);
  void take_flags(CpuInfo const& reference);
  void group();
  double frequency_from_cpuid(CpuInfo const& reference) const;

  double m_frequency = 0;
  CpuAffinityMask m_logicalMask;
  CpuAffinityMask m_coreMask;
  CpuAffinityMask m_physicalMask;
  std::map<unsigned int, CpuInfo> m_cpuInfo;
  std::vector<unsigned int> m_priorityList;
  int m_logicalCount = 0;
  int m_coreCount = 0;
  int m_packageCount = 0;
  bool m_apicUsable = false;
  unsigned char m_packageMask = 0xFF;
  unsigned char m_coreApicMask = 0xFF;
  unsigned int m_referenceCpu = 0;
  bool m_mmx = false;
  bool m_mmxAmdExtensions = false;
  bool m_3dnow = false;
  bool m_3dnowExtensions = false;
  bool m_popcnt = false;
  bool m_sse = false;
  bool m_sse2 = false;
  bool m_sse3 = false;
  bool m_sse41 = false;
  bool m_sse42 = false;
  bool m_cmpxchg8 = false;
  bool m_cmpxchg16 = false;
  bool m_cmov = false;
};

}  // namespace hardware
}  // namespace tqcore
