// A readable name for processors too old to name themselves in the brand-string leaves: a
// decision table over brand index, signature or AMD's extended brand id.
#include <tqcore/cpu.h>

#include <cstdio>

namespace tqcore {
namespace hardware {
namespace {

struct KeyText {
  uint32_t key;
  char const* text;
};

constexpr char kUnrecognizedIntel[] = "Unrecognized Intel CPU Brand String";
constexpr char kCeleron[] = "Intel(R) Celeron(R) processor";
constexpr char kMobileCeleron[] = "Mobile Intel(R) Celeron(R) processor";
constexpr char kXeon[] = "Intel(R) Xeon(TM) processor";
constexpr char kXeonMp[] = "Intel(R) Xeon(TM) processor MP";
constexpr uint32_t kXeonSignature = 3859;  // 0xF13

// By brand index; null where the signature decides.
constexpr char const* kIntelByIndex[24] = {
    nullptr,
    kCeleron,
    "Intel(R) Pentium(R) III processor",
    nullptr,
    "Intel(R) Pentium(R) III processor",
    kUnrecognizedIntel,
    "Mobile Intel(R) Pentium(R) III processor-M",
    kMobileCeleron,
    "Intel(R) Pentium(R) 4 processor",
    "Intel(R) Pentium(R) 4 processor",
    kCeleron,
    nullptr,
    kXeonMp,
    kUnrecognizedIntel,
    nullptr,
    kMobileCeleron,
    kUnrecognizedIntel,
    "Mobile Genuine Intel(R) processor",
    "Intel(R) Celeron(R) M processor",
    kMobileCeleron,
    kCeleron,
    "Mobile Genuine Intel(R) processor",
    "Intel(R) Pentium(R) M processor",
    kMobileCeleron,
};

// By signature without stepping (and bits 14-15) when the brand index is 0. The dash of the
// three Pentium 4 - M rows is the single byte 0x96, as the table has always stored it.
constexpr KeyText kIntelBySignature[] = {
    {0x400, "Intel486(TM) DX"},
    {0x410, "Intel486(TM) DX"},
    {0x420, "Intel486 SX"},
    {0x430, "Intel487(TM), IntelDX2(TM), IntelDX2 OverDrive(R)"},
    {0x440, "Intel486 SL"},
    {0x450, "IntelSX2(TM)"},
    {0x470, "Write-Back Enhanced IntelDX2"},
    {0x480, "IntelDX4(TM), IntelDX4 OverDrive"},
    {0x510, "Pentium(R) 60-66 Mhz"},
    {0x520, "Pentium 75-200 Mhz"},
    {0x540, "Pentium with MMX(TM) technology 166-200 Mhz"},
    {0x610, "Pentium Pro"},
    {0x630, "Pentium II model 3"},
    {0x650, "Pentium II model 5, Pentium II Xeon model 5, Intel(R) Celeron(R) model 5"},
    {0x660, "Celeron, model 6"},
    {0x670, "Pentium III model 7, Pentium III Xeon model 7"},
    {0x680, "Pentium III model 8, Pentium III Xeon model 8, Celeron model 8"},
    {0x690, "Intel Pentium M model 9"},
    {0x6A0, "Pentium III Xeon model A"},
    {0x6B0, "Pentium III model B"},
    {0x6D0, "Intel Pentium M model D 90 nm"},
    {0x6E0, "Intel Core(TM) Duo model E, Intel Core(TM) Solo model E 65 nm"},
    {0x6F0,
     "Intel Core(TM) 2 Duo, Intel Core(TM) 2 Duo mobile, Intel Core(TM) 2 Quad, Intel Core(TM) "
     "2 Quad mobile, Intel Core(TM) 2 Extreme, Intel Pentium Dual-Core, Intel Xeon model F, 65 "
     "nm"},
    {0xF00, "Pentium 4 model 0 0.18 micron, Intel Xeon model 0 0.18 micron"},
    {0xF10, "Pentium 4, Intel Xeon, Intel Xeon MP, Intel Celeron, model 1 0.18 micron"},
    {0xF20,
     "Pentium 4, Mobile Intel Pentium 4 \x96 M, Intel Xeon, Intel Xeon MP, Intel Celeron, Mobile "
     "Intel Celeron, model 2 0.13 micron"},
    {0xF30, "Pentium 4, Mobile Intel Pentium 4 \x96 M, Intel Xeon, Intel Celeron, model 3 90 nm"},
    {0xF40, "Pentium 4, Mobile Intel Pentium 4 \x96 M, Intel Xeon, Intel Celeron, model 4 90 nm"},
    {0xF60,
     "Pentium 4, Pentium D, Pentium Extreme Edition, Intel Xeon MP, Intel Celeron D, model 6 65 "
     "nm"},
    {0x1480, "IntelDX4 OverDrive"},
    {0x1510, "Pentium OverDrive for Pentium 60-66 Mhz"},
    {0x1520, "Pentium OverDrive for Pentium 75-133 Mhz"},
    {0x1530, "Pentium OverDrive for Intel486"},
    {0x1540, "Pentium OverDrive with MMX(TM) technology for Pentium 75-133 Mhz"},
    {0x1630, "Intel Pentium II OverDrive"},
    {0x10660, "Intel Celeron model 16, 65 nm"},
    {0x10670, "Intel Core(TM) 2 Extreme, Intel Xeon, model 17, 45 nm"},
};

// AMD's extended brand id: a format by model, fed by nn through a linear rule.
struct AmdModel {
  uint32_t model;
  char const* format;
  uint32_t factor;
  uint32_t offset;
};

constexpr AmdModel kAmdByModel[] = {
    {0, "AMD Engineering Sample %02d", 1, 0},
    {4, "AMD Athlon(tm) 64 Processor %02d00+", 1, 22},
    {5, "AMD Athlon(tm) 64 X2 Dual Core Processor %02d00+", 1, 22},
    {8, "Mobile AMD Athlon(tm) 64 Processor %02d00+", 1, 22},
    {9, "Mobile AMD Athlon(tm) 64 Processor %02d00+", 1, 22},
    {10, "AMD Turion(tm) 64 Mobile Technology ML-%02d", 1, 22},
    {11, "AMD Turion(tm) 64 Mobile Technology MT-%02d", 1, 22},
    {12, "AMD Opteron(tm) Processor 1%02d", 2, 38},
    {13, "AMD Opteron(tm) Processor 1%02d", 2, 38},
    {14, "AMD Opteron(tm) Processor 1%02d HE", 2, 38},
    {15, "AMD Opteron(tm) Processor 1%02d EE", 2, 38},
    {16, "AMD Opteron(tm) Processor 2%02d", 2, 38},
    {17, "AMD Opteron(tm) Processor 2%02d", 2, 38},
    {18, "AMD Opteron(tm) Processor 2%02d HE", 2, 38},
    {19, "AMD Opteron(tm) Processor 2%02d EE", 2, 38},
    {20, "AMD Opteron(tm) Processor 8%02d", 2, 38},
    {21, "AMD Opteron(tm) Processor 8%02d", 2, 38},
    {22, "AMD Opteron(tm) Processor 8%02d HE", 2, 38},
    {23, "AMD Opteron(tm) Processor 8%02d EE", 2, 38},
    {29, "Mobile AMD Athlon(tm) XP-M Processor %02d00+", 1, 22},
    {30, "Mobile AMD Athlon(tm) XP-M Processor %02d00+", 1, 22},
    {32, "AMD Athlon(tm) XP Processor %02d00+", 1, 22},
    {33, "Mobile AMD Sempron(tm) Processor %02d00+", 1, 24},
    {35, "Mobile AMD Sempron(tm) Processor %02d00+", 1, 24},
    {34, "AMD Sempron(tm) Processor %02d00+", 1, 24},
    {38, "AMD Sempron(tm) Processor %02d00+", 1, 24},
    {36, "AMD Athlon(tm) 64 FX-%02d Processor", 1, 24},
    {41, "Dual Core AMD Opteron(tm) Processor 1%02d SE", 5, 45},
    {42, "Dual Core AMD Opteron(tm) Processor 2%02d SE", 5, 45},
    {43, "Dual Core AMD Opteron(tm) Processor 8%02d SE", 5, 45},
    {44, "Dual Core AMD Opteron(tm) Processor 1%02d", 5, 45},
    {45, "Dual Core AMD Opteron(tm) Processor 1%02d", 5, 45},
    {56, "Dual Core AMD Opteron(tm) Processor 1%02d", 5, 45},
    {46, "Dual Core AMD Opteron(tm) Processor 1%02d HE", 5, 45},
    {47, "Dual Core AMD Opteron(tm) Processor 1%02d EE", 5, 45},
    {48, "Dual Core AMD Opteron(tm) Processor 2%02d", 5, 45},
    {49, "Dual Core AMD Opteron(tm) Processor 2%02d", 5, 45},
    {57, "Dual Core AMD Opteron(tm) Processor 2%02d", 5, 45},
    {50, "Dual Core AMD Opteron(tm) Processor 2%02d HE", 5, 45},
    {51, "Dual Core AMD Opteron(tm) Processor 2%02d EE", 5, 45},
    {52, "Dual Core AMD Opteron(tm) Processor 8%02d", 5, 45},
    {53, "Dual Core AMD Opteron(tm) Processor 8%02d", 5, 45},
    {58, "Dual Core AMD Opteron(tm) Processor 8%02d", 5, 45},
    {54, "Dual Core AMD Opteron(tm) Processor 8%02d HE", 5, 45},
    {55, "Dual Core AMD Opteron(tm) Processor 8%02d EE", 5, 45},
};

// By leaf 1's family and model when there is no extended brand id.
constexpr KeyText kAmdBySignature[] = {
    {0x500, "AMD-K5 Model 0"},
    {0x510, "AMD-K5 Model 1"},
    {0x520, "AMD-K5 Model 2"},
    {0x530, "AMD-K5 Model 3"},
    {0x560, "AMD-K6"},
    {0x580, "AMD-K6"},
    {0x590, "AMD-K6"},
    {0x570, "AMD-K6 Model 7"},
    {0x610, "AMD Athlon"},
    {0x620, "AMD Athlon Model 2"},
    {0x630, "AMD Duron"},
    {0x640, "AMD Athlon Model 4"},
    {0x660,
     "AMD Athlon MP, AMD Athlon XP, Mobile AMD Athlon 4, AMD Duron, Mobile AMD Duron, Model 6"},
    {0x670, "AMD Duron Model 7, Mobile AMD Duron Model 7"},
    {0x680, "AMD Athlon XP, AMD Athlon MP, AMD Sempron"},
    {0x6A0, "Mobile AMD Athlon XP"},
};

template <size_t N>
char const* find_text(KeyText const (&table)[N], uint32_t key) {
  for (KeyText const& entry : table) {
    if (entry.key == key) return entry.text;
  }
  return "";
}

std::string intel_brand(CpuInfo const& cpu) {
  uint32_t const index = cpu.brand_index();
  uint32_t const signature = cpu.signature();
  if (index >= 24) return kUnrecognizedIntel;
  switch (index) {
    case 0:
      return find_text(kIntelBySignature, signature & 0xFFF3FF0);
    case 3:
      return signature == 0x681 ? kCeleron : "Intel(R) Pentium(R) III XeonTM processor";
    case 11:
      return signature == kXeonSignature ? kXeonMp : kXeon;
    case 14:
      return signature == kXeonSignature ? kXeon : "Mobile Intel(R) Pentium(R) 4 processor-M";
    default:
      return kIntelByIndex[index];
  }
}

std::string amd_brand(CpuInfo const& cpu) {
  uint32_t const id = cpu.amd_extended_brand_id();
  if (cpu.cpuid_last_extended_level() >= 1 && static_cast<int16_t>(id) >= 0) {
    uint32_t const model = id >> 6 & 0x3F;
    uint32_t const nn = id & 0x3F;
    for (AmdModel const& row : kAmdByModel) {
      if (row.model != model) continue;
      char text[96];
      std::snprintf(text, sizeof(text), row.format, static_cast<int>(nn * row.factor + row.offset));
      return text;
    }
    return "AMD Processor model unknown";
  }
  uint32_t const key = cpu.cpuid_last_basic_level() >= 1 ? cpu.signature() & 0xFF0 : 0;
  if ((key & 0xF00) == 0x400) return "Am486";
  return find_text(kAmdBySignature, key);
}

}  // namespace

void CpuInfo::set_brand_id_string() {
  if (m_brand == brand_intel) m_brandIdString = intel_brand(*this);
  if (m_brand == brand_amd) m_brandIdString = amd_brand(*this);
}

}  // namespace hardware
}  // namespace tqcore
