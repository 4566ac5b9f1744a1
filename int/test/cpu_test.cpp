// CPUID decoding over recorded dumps of real processors and hand-written register sets, and
// on this machine against what the kernel says of it.
#include <gtest/gtest.h>

#include <tqcore/cpu.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "cpuid_recording.h"

namespace {

using tqcore::hardware::CpuInfo;
using tqcore_test::CpuidRecording;

struct RecordedCpu {
  char const* file;
  CpuInfo::ECpuBrand brand;
  int family;
  char const* brand_id_string;  // null: not checked
  uint32_t logical;
  uint32_t cores;
};

class RecordedCpuTest : public ::testing::TestWithParam<RecordedCpu> {
 protected:
  void SetUp() override {
    if (!m_recording.load(GetParam().file)) {
      GTEST_SKIP() << "no recorded dump " << GetParam().file << " in " << CpuidRecording::folder();
    }
  }
  CpuidRecording m_recording;
};

TEST_P(RecordedCpuTest, DecodesAsTheProcessorIs) {
  RecordedCpu const& row = GetParam();
  CpuInfo const cpu(m_recording);
  EXPECT_EQ(cpu.cpu_brand(), row.brand);
  EXPECT_EQ(cpu.cpu_family(), row.family);
  if (row.brand_id_string != nullptr) {
    EXPECT_EQ(cpu.brand_id_string(), row.brand_id_string);
  }
  EXPECT_EQ(cpu.logical_count(), row.logical);
  EXPECT_EQ(cpu.core_count(), row.cores);
}

INSTANTIATE_TEST_SUITE_P(
    Dumps, RecordedCpuTest,
    ::testing::Values(
        RecordedCpu{"GenuineIntel0000480_486_CPUID.txt", CpuInfo::brand_intel, 4,
                    "IntelDX4(TM), IntelDX4 OverDrive", 1, 1},
        RecordedCpu{"GenuineIntel0000543_P55C_CPUID.txt", CpuInfo::brand_intel, 5,
                    "Pentium with MMX(TM) technology 166-200 Mhz", 1, 1},
        RecordedCpu{"GenuineIntel0000660_P2_Mendocino_CPUID.txt", CpuInfo::brand_intel, 6,
                    "Celeron, model 6", 1, 1},
        RecordedCpu{"GenuineIntel0000686_P3_Coppermine_CPUID.txt", CpuInfo::brand_intel, 6,
                    "Intel(R) Celeron(R) processor", 1, 1},
        RecordedCpu{"GenuineIntel0000683_P3_Coppermine_CPUID.txt", CpuInfo::brand_intel, 6,
                    "Intel(R) Pentium(R) III processor", 1, 1},
        RecordedCpu{"GenuineIntel0000F0A_P4_Willamette_CPUID.txt", CpuInfo::brand_intel, 15,
                    "Intel(R) Pentium(R) 4 processor", 1, 1},
        RecordedCpu{"GenuineIntel0000F13_P4_Willamette_CPUID.txt", CpuInfo::brand_intel, 15,
                    "Intel(R) Celeron(R) processor", 1, 1},
        RecordedCpu{"GenuineIntel00506E3_Skylake_CPUID.txt", CpuInfo::brand_intel, 6, "", 4, 4},
        RecordedCpu{"GenuineIntel00806F8_SapphireRapids_05_CPUID.txt", CpuInfo::brand_intel, 6, "",
                    40, 20},
        RecordedCpu{"AuthenticAMD0000F51_K8_Sledgehammer_CPUID.txt", CpuInfo::brand_amd, 15,
                    "AMD Engineering Sample 00", 1, 1},
        RecordedCpu{"AuthenticAMD0070FF1_K8_Lima_CPUID.txt", CpuInfo::brand_amd, 15,
                    "AMD Sempron(tm) Processor 4700+", 1, 1},
        RecordedCpu{"AuthenticAMD0100F42_K10_Deneb_CPUID.txt", CpuInfo::brand_amd, 15, nullptr, 4,
                    4},
        RecordedCpu{"AuthenticAMD0800F11_K17_Zen_CPUID4.txt", CpuInfo::brand_amd, 15, nullptr, 16,
                    16},
        RecordedCpu{"CyrixInstead0000600_MII_CPUID.txt", CpuInfo::brand_cyrix, 4, "", 1, 1},
        RecordedCpu{"GenuineTMx860000543_Crusoe_CPUID.txt", CpuInfo::brand_transmeta, 4, "", 1, 1},
        RecordedCpu{"Virtual CPU 0000F4A_Snap850_CPUID.txt", CpuInfo::brand_unknown, 4, "", 1, 1}));

CpuInfo recorded(char const* file) {
  CpuidRecording recording;
  recording.load(file);
  return CpuInfo(recording);
}

bool have_fixtures() { return std::ifstream(CpuidRecording::folder() + "/README.md").good(); }

// Lines of a report, sampled where a fault is likely: numbers derived from several fields,
// quirks kept on purpose, the order of the moved flag lines.
TEST(CpuReport, SkylakeLines) {
  if (!have_fixtures()) GTEST_SKIP() << "no recorded dumps in " << CpuidRecording::folder();
  CpuInfo const cpu = recorded("GenuineIntel00506E3_Skylake_CPUID.txt");
  std::ostringstream report;
  cpu.dump_cpuid_info(report, "> ");
  std::string const text = report.str();
  for (char const* line :
       {"> Family=6\n> Brand=0\n> Last Basic Leaf=22\n", "> Logical count=4 Core Count=4\n",
        "> Hyperthreading is not enabled\n", "> Intel extended Family=6 and Model=94\n",
        "> Vendor Id=GenuineIntel\n",
        "> Signature=506e3 ExFamily=0 ExModel=5 Type=0 Family=6 Model=14 Stepping=3\n",
        "> Brand string='Intel(R) Core(TM) i5-6400T CPU @ 2.20GHz'\n",
        "> Machine check exception=Yes\n", "> APIC ID==Yes\n",
        "> SSE4.2 supported=Yes\n> x2APIC support=Yes\n",
        "> AVX Extensions supported=Yes\n> F16C half-precision convert instruction supported=Yes\n"
        "> RDRAND instruction supported=Yes\n> XSAVE/STOR extended states feature=Yes\n",
        "> AMD Advanced Power Management Hardware P-State control=No\n"
        "> Hypervisor present (running in a VM)=No\n> TSC Invariance=Yes\n"
        "> RDFSBASE, RDGSBASE, WRFSBASE and WRGSBASE supported=Yes\n",
        "> Platform Quality of Service Enforcement=No\n> EM64T supported=Yes\n"
        "> LAHF/SAHF instructions supported=Yes\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(text.find("Hypervisor Vendor Id"), std::string::npos);
}

TEST(CpuReport, RawDumpAndHashText) {
  if (!have_fixtures()) GTEST_SKIP() << "no recorded dumps in " << CpuidRecording::folder();
  CpuInfo const cpu = recorded("AuthenticAMD0800F11_K17_Zen_CPUID4.txt");
  std::ostringstream raw;
  cpu.dump_raw_cpuid(raw, "");
  std::string const text = raw.str();
  EXPECT_EQ(text.rfind("Famliy=15 brandString='", 0), 0u) << text;
  EXPECT_NE(text.find("\nLeaf=00000000 EAX=0000000d EBX=68747541 ECX=444d4163 EDX=69746e65\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nLeaf=80000000 EAX="), std::string::npos);
  std::string const hash = cpu.as_string_for_hash(false);
  size_t const records = (cpu.basic_leaves().size() + cpu.extended_leaves().size());
  EXPECT_EQ(hash.size(), 41 * records);
  EXPECT_EQ(hash.substr(0, 41), "000000000000000d68747541444d416369746e65\n");
}

// The repository's own recording: this machine, a guest of a hypervisor.
TEST(CpuReport, ThisMachinesRecording) {
  CpuidRecording recording;
  ASSERT_TRUE(recording.load(TQCORE_REPO_CPUID_FIXTURES "/AuthenticAMD_EPYC_KVM_2cpu.txt"));
  CpuInfo const cpu(recording);
  EXPECT_EQ(cpu.brand_string(), "AMD EPYC");
  EXPECT_EQ(cpu.brand_id_string(), "AMD Engineering Sample 00");  // its extended brand id is 0
  EXPECT_EQ(cpu.amd_effective_family(), 25u);
  EXPECT_EQ(cpu.hypervisor_vendor_id(), std::string("KVMKVMKVM\0\0\0", 12));
  EXPECT_EQ(cpu.logical_count(), 2u);
  EXPECT_EQ(cpu.core_count(), 2u);
  std::ostringstream report;
  cpu.dump_cpuid_info(report, "");
  EXPECT_NE(report.str().find("\n Hypervisor Vendor Id='KVMKVMKVM"), std::string::npos);
  // Bytes low first: 0xfb escaped, "~" as it is, NUL as \0.
  EXPECT_NE(report.str().find("\n Hypervisor Interface Id='\\xfb~\\0\\x01' (0x01007efb)\n"),
            std::string::npos)
      << report.str();
}

TEST(CpuReport, RegisterRecordText) {
  CpuInfo::RegSet const regs{0x0000000D, 0x756E6547, 0x6C65746E, 0x49656E69};
  EXPECT_EQ(CpuInfo::regset_to_string(0, regs), "000000000000000d756e65476c65746e49656e69");
}

// Hand-written answers, for the edges the recordings do not reach.
CpuidRecording intel_with(uint32_t extended_top) {
  CpuidRecording recording;
  recording.set(0, 0, {1, 0x756E6547, 0x6C65746E, 0x49656E69});
  recording.set(1, 0, {0x00106A5, 0, 0, 0});
  recording.set(0x80000000, 0, {extended_top, 0, 0, 0});
  return recording;
}

TEST(CpuInfoEdges, ExtendedLeavesBeyondTheLimitAreIgnored) {
  EXPECT_EQ(CpuInfo(intel_with(0x80000062)).extended_leaves().size(), 99u);
  EXPECT_TRUE(CpuInfo(intel_with(0x80000063)).extended_leaves().empty());
  CpuidRecording recording = intel_with(0x80000001);
  recording.set(1, 0, {0x01006A5, 0, 0, 0});  // family 6, extended family 1
  CpuInfo const short_extended(recording);
  EXPECT_EQ(short_extended.cache_size(), 0u);
  EXPECT_EQ(short_extended.amd_physical_core_count(), 1u);
  EXPECT_EQ(short_extended.intel_effective_family(), 7u);  // 6 + 1: the sum is unconditional
}

TEST(CpuInfoEdges, UnknownVendorReadsNothingMore) {
  CpuidRecording recording;
  recording.set(0, 0, {5, 0x12345678, 0x12345678, 0x12345678});
  recording.set(1, 0, {0x543, 0, 0xFFFFFFFF, 0xFFFFFFFF});
  CpuInfo const cpu(recording);
  EXPECT_EQ(cpu.cpu_brand(), CpuInfo::brand_unknown);
  EXPECT_EQ(cpu.cpu_family(), 4);
  EXPECT_TRUE(cpu.basic_leaves().empty());
  EXPECT_FALSE(cpu.sse2() || cpu.floating_point() || cpu.hypervisor_present());
  EXPECT_EQ(cpu.logical_count(), 1u);
  EXPECT_EQ(cpu.core_count(), 1u);
  EXPECT_EQ(cpu.brand_id_string(), "");
}

TEST(CpuInfoEdges, BrandIdStrings) {
  CpuidRecording intel = intel_with(0x80000001);
  intel.set(1, 0, {0x6F2, 0, 0, 0});  // stepping masked
  EXPECT_EQ(CpuInfo(intel).brand_id_string().rfind("Intel Core(TM) 2 Duo, ", 0), 0u);
  intel.set(1, 0, {0xF27, 0, 0, 0});  // the dash is the stored byte 0x96
  EXPECT_NE(CpuInfo(intel).brand_id_string().find("Pentium 4 \x96 M,"), std::string::npos);
  intel.set(1, 0, {0x681, 24, 0, 0});
  EXPECT_EQ(CpuInfo(intel).brand_id_string(), "Unrecognized Intel CPU Brand String");
  intel.set(1, 0, {0x681, 3, 0, 0});
  EXPECT_EQ(CpuInfo(intel).brand_id_string(), "Intel(R) Celeron(R) processor");
  CpuidRecording amd;
  amd.set(0, 0, {1, 0x68747541, 0x444D4163, 0x69746E65});
  amd.set(1, 0, {0x612, 0, 0, 0});
  amd.set(0x80000000, 0, {0x80000001, 0, 0, 0});
  amd.set(0x80000001, 0, {0, 0x0100, 0, 0});
  EXPECT_EQ(CpuInfo(amd).brand_id_string(), "AMD Athlon(tm) 64 Processor 2200+");
  amd.set(0x80000001, 0, {0, 0x8000, 0, 0});  // top bit set: by signature
  EXPECT_EQ(CpuInfo(amd).brand_id_string(), "AMD Athlon");
}

TEST(CpuInfoEdges, HashTextIgnoresWhatTheSystemEnabled) {
  CpuidRecording first = intel_with(0x80000001);
  first.set(0, 0, {13, 0x756E6547, 0x6C65746E, 0x49656E69});
  first.set(13, 0, {7, 0x340, 0x440, 0});
  CpuidRecording second = first;
  second.set(1, 0, {0x00106A5, 0, 1u << 27, 0});
  second.set(13, 0, {7, 0x440, 0x440, 0});
  EXPECT_NE(CpuInfo(first).as_string_for_hash(false), CpuInfo(second).as_string_for_hash(false));
  EXPECT_EQ(CpuInfo(first).as_string_for_hash(false, true),
            CpuInfo(second).as_string_for_hash(false, true));
}

// This machine: the flags that the kernel names as well, both ways.
TEST(ThisCpu, FlagsAgreeWithTheKernel) {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  std::set<std::string> flags;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("flags", 0) != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    for (std::string word; words >> word;) flags.insert(word);
    break;
  }
  ASSERT_FALSE(flags.empty());
  CpuInfo const cpu;
  struct Pair {
    char const* kernel;
    bool ours;
  } const pairs[] = {{"fpu", cpu.floating_point()},
                     {"tsc", cpu.timestamp_counter()},
                     {"cx8", cpu.compare_and_exchange_8_bytes()},
                     {"cmov", cpu.conditional_move()},
                     {"mmx", cpu.mmx()},
                     {"sse", cpu.sse()},
                     {"sse2", cpu.sse2()},
                     {"pni", cpu.sse3()},
                     {"ssse3", cpu.ssse3()},
                     {"sse4_1", cpu.sse4_1()},
                     {"sse4_2", cpu.sse4_2()},
                     {"popcnt", cpu.popcnt_supported()},
                     {"aes", cpu.aes()},
                     {"avx", cpu.avx()},
                     {"hypervisor", cpu.hypervisor_present()},
                     {"lm", cpu.em64t()},
                     {"syscall", cpu.syscall_sysret()},
                     {"rdtscp", cpu.read_timestamp_counter_and_processor_id()}};
  for (Pair const& pair : pairs) EXPECT_EQ(flags.count(pair.kernel) != 0, pair.ours) << pair.kernel;
  EXPECT_EQ(CpuInfo::get_option_flag(CpuInfo::option_sse2), cpu.sse2());
  EXPECT_EQ(CpuInfo::get_option_flag(CpuInfo::option_avx2), flags.count("avx2") != 0);
  EXPECT_FALSE(CpuInfo::get_option_flag(static_cast<CpuInfo::EOptionFlag>(288 + 128 * 200)));
}

}  // namespace
