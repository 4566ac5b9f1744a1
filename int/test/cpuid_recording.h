// CPUID answers from a recorded dump of a real processor (the first logical CPU of the file),
// or written by hand, as a source for CpuInfo.
#pragma once

#include <tqcore/cpu.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>

namespace tqcore_test {

class CpuidRecording : public tqcore::hardware::CpuInfo::Source {
 public:
  using RegSet = tqcore::hardware::CpuInfo::RegSet;

  void set(uint32_t leaf, uint32_t subleaf, RegSet regs) { m_answers[{leaf, subleaf}] = regs; }
  RegSet cpuid(uint32_t leaf, uint32_t subleaf) const override {
    auto const found = m_answers.find({leaf, subleaf});
    return found != m_answers.end() ? found->second : RegSet{};
  }

  // The folder of the recorded dumps: TQCORE_CPUID_FIXTURES, else the shared one beside the
  // repository.
  static std::string folder() {
    char const* chosen = std::getenv("TQCORE_CPUID_FIXTURES");
    return chosen != nullptr ? chosen : TQCORE_CPUID_FIXTURES;
  }

  // False if the file cannot be read. A relative name is looked for in folder(). Lines: "CPUID
  // LLLLLLLL: EAX-EBX-ECX-EDX [SL xx]", with spaces, tabs or " : " for the separators in older
  // dumps; without "[SL xx]" the n-th repetition of a leaf is subleaf n. The first CPU ends at the
  // next CPU's header, at another section, or where leaf 0 comes again.
  bool load(std::string const& file) {
    std::ifstream in(file.front() == '/' ? file : folder() + "/" + file);
    if (!in) return false;
    std::map<uint32_t, uint32_t> seen;
    std::string line;
    bool started = false;
    while (std::getline(in, line)) {
      if (started && ends_cpu(line)) break;
      uint32_t leaf = 0;
      RegSet regs;
      int subleaf = -1;
      if (!parse(line, leaf, regs, subleaf)) continue;
      if (leaf == 0 && seen.count(0) != 0) break;
      started = true;
      uint32_t const repeat = seen[leaf]++;
      set(leaf, subleaf >= 0 ? static_cast<uint32_t>(subleaf) : repeat, regs);
    }
    return started;
  }

 private:
  static bool ends_cpu(std::string const& line) {
    return line.rfind("------[", 0) == 0 || line.rfind("CPUID Registers (", 0) == 0 ||
           (line.rfind("CPU#", 0) == 0 && line.find("AffMask") != std::string::npos) ||
           (line.rfind("Group:", 0) == 0 && line.find("Affinity mask") != std::string::npos);
  }

  static bool hex_word(char const*& at, uint32_t& value) {
    value = 0;
    for (int i = 0; i < 8; ++i, ++at) {
      if (std::isxdigit(static_cast<unsigned char>(*at)) == 0) return false;
      int const c = std::tolower(static_cast<unsigned char>(*at));
      value = value << 4 | static_cast<uint32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
    }
    return std::isxdigit(static_cast<unsigned char>(*at)) == 0;
  }

  static void skip(char const*& at, char const* characters) {
    while (*at != '\0' && std::strchr(characters, *at) != nullptr) ++at;
  }

  static bool parse(std::string const& line, uint32_t& leaf, RegSet& regs, int& subleaf) {
    char const* at = line.c_str();
    skip(at, " \t");
    if (std::strncmp(at, "CPUID", 5) != 0) return false;
    at += 5;
    skip(at, " \t");
    if (!hex_word(at, leaf)) return false;
    skip(at, " \t:");
    uint32_t* const words[] = {&regs.eax, &regs.ebx, &regs.ecx, &regs.edx};
    for (uint32_t* word : words) {
      skip(at, " \t-");
      if (!hex_word(at, *word)) return false;
    }
    char const* mark = std::strstr(at, "[SL ");
    if (mark != nullptr) subleaf = static_cast<int>(std::strtol(mark + 4, nullptr, 16));
    return true;
  }

  std::map<std::pair<uint32_t, uint32_t>, RegSet> m_answers;
};

}  // namespace tqcore_test
