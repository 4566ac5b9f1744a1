// Diagnostics: the default trace, name cleaning, memory and register dumps, and walks and
// backtraces of real call chains (one built plainly, one optimised).
#define UNW_LOCAL_ONLY
#include <libunwind.h>
#include <signal.h>
#include <sys/mman.h>

#include <tqcore/diagnostics.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "stack_chain_helper.h"
#include "test_support.h"

namespace tqcore {
namespace {

using tqcore_test::kAddressSanitizer;

std::string trace_text(char const* message_template, char const* packed, size_t size) {
  testing::internal::CaptureStderr();
  write_default_trace("ASSERT", SourceLocation("ns::fn()", "//depot/a.cpp", 12), message_template,
                      packed, size);
  return testing::internal::GetCapturedStderr();
}

TEST(DefaultTrace, HolesTakeValuesAndWhatIsLeftFollowsVerbatim) {
  EXPECT_EQ(trace_text("a{b}{}", "x", 1), "\n*** ASSERT - ns::fn()@//depot/a.cpp(12)\na{b}x\n");
  std::string const rest = trace_text("plain", "v1\0v2", 5);
  EXPECT_EQ(rest.substr(rest.find(")\n") + 2), std::string("plainv1\0v2\n", 11));
  std::string const short_of_values = trace_text("{}{}{}", "1\0002", 3);
  EXPECT_EQ(short_of_values.substr(short_of_values.find(")\n") + 2), "12\n");
}

int g_probes = 0;
bool refusing_probe(SourceLocation const& at, SourceString const&, char const* packed, size_t n) {
  g_probes += at.line() == 0 && packed == nullptr && n == 0 ? 1 : 100;
  return false;
}

TEST(DefaultTrace, AssertWantedAsksTheHandlerWithAnEmptyLocation) {
  EXPECT_TRUE(is_assert_trace_wanted());
  set_diagnostic_trace_handlers(nullptr, nullptr, refusing_probe);
  EXPECT_FALSE(is_assert_trace_wanted());
  set_diagnostic_trace_handlers(nullptr, nullptr, nullptr);
  EXPECT_EQ(g_probes, 1);
}

struct NameCase {
  char const* name;
  size_t limit;
  char const* cleaned;
};
void PrintTo(NameCase const& c, std::ostream* out) { *out << c.name; }

class CleanName : public testing::TestWithParam<NameCase> {};

TEST_P(CleanName, Cleans) {
  std::string name = GetParam().name;
  name.resize(clean_decorated_name(&name[0], name.size(), GetParam().limit));
  EXPECT_EQ(name, GetParam().cleaned);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Diagnostics, CleanName, testing::Values(
    NameCase{"class stlp_std::basic_string<char> __ptr64", 256, "class std::basic_string<char>"},
    NameCase{"my::stlp_std::x", 256, "my::stlp_std::x"},
    NameCase{"::stlpd_std::map<int, long> const &", 256, "::std::map<int,long>const&"},
    NameCase{"std::vector<int, std::allocator<int> >", 256, "std::vector<int,std::allocator<int>>"},
    NameCase{" f __ptr32x", 256, "f __ptr32x"},
    NameCase{"map<int,vector<char>>", 5, "map<~,~>"},
    NameCase{"a<b>::c<d,e>::f<", 5, "a<~>::c<~,~>::f<"},
    NameCase{"f<>(g<,>)", 1, "f<>(g<,>)"}));
// clang-format on

TEST(CleanNameLimit, ShortensOnlyPastTheLimit) {
  std::string at_limit = "f<" + std::string(253, 'x') + ">";
  std::string past = at_limit + "y";
  EXPECT_EQ(clean_decorated_name(&at_limit[0], at_limit.size(), 256), 256u);
  past.resize(clean_decorated_name(&past[0], past.size(), 256));
  EXPECT_EQ(past, "f<~>y");
}

TEST(SmartPointerName, KnowsTheTableColumnByColumn) {
  for (char const* yes : {"tqcore::RefCountPtr<tqcore::ErrorInfo const>", "boost::shared_ptr<X>",
                          "std::auto_ptr", "", "tqcore::RefCountPtr<open", "btost::shared_ptr"}) {
    EXPECT_TRUE(is_smart_pointer_type_name(yes)) << yes;
  }
  for (char const* no : {"tqcore::RefCountPtr<X>::iterator", "std::vector<int>", "int",
                         "tqcore::RefCountPtrs", "boost::scoped_ptrX<int>"}) {
    EXPECT_FALSE(is_smart_pointer_type_name(no)) << no;
  }
}

std::string dumped(uint64_t begin, uint64_t end, uint64_t head = 0, uint64_t tail = 0) {
  std::ostringstream out;
  if (head == 0) {
    dump_memory_region(out, begin, end);
  } else {
    dump_memory_range(out, begin, end, head, tail);
  }
  return out.str();
}

std::string label(uint64_t address) {
  char text[24];
  std::snprintf(text, sizeof(text),
                "%016llx:", static_cast<unsigned long long>(address & 0xffffffff));
  return text;
}

TEST(MemoryDump, RegionsAreRowsOfFourWordsUnderTheirLabel) {
  alignas(32) static uint64_t words[32];
  for (uint64_t i = 0; i < 32; ++i) words[i] = 0x1111111111111111ull * (i % 16);
  auto const base = reinterpret_cast<uint64_t>(words);
  EXPECT_EQ(dumped(base + 16, base + 24),
            label(base) + std::string(34, ' ') + " 2222222222222222\n");
  EXPECT_EQ(dumped(base + 8, base + 40),
            label(base) + std::string(17, ' ') + " 1111111111111111 2222222222222222 " +
                "3333333333333333\n" + label(base + 32) + " 4444444444444444\n");
  EXPECT_EQ(dumped(base + 4, base + 8), "<bad address>");
  EXPECT_EQ(dumped(base + 16, base + 8), "<bad address>");
  EXPECT_EQ(dumped(base + 16, base + 16), label(base) + std::string(34, ' ') + "\n");
  EXPECT_EQ(dumped(base, base), "\n");
}

TEST(MemoryDump, RangesElideTheMiddleOnlyPastHeadAndTail) {
  alignas(32) static uint64_t words[64];
  auto const base = reinterpret_cast<uint64_t>(words);
  EXPECT_EQ(dumped(base, base + 160, 64, 64).find("omitted"), std::string::npos);
  std::string const elided = dumped(base, base + 168, 64, 64);
  EXPECT_NE(elided.find("\n  ...0 bytes omitted...\n" + label(base + 96)), std::string::npos)
      << elided;
  EXPECT_EQ(dumped(base + 4, base + 400, 64, 64).rfind("<bad address>  ...", 0), 0u);
}

TEST(MemoryDump, UnreadableWordsShowAsQuestionMarks) {
  long const page = sysconf(_SC_PAGESIZE);
  auto* pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  auto const boundary = reinterpret_cast<uint64_t>(pages + page);
  EXPECT_EQ(dumped(boundary - 16, boundary + 16),
            label(boundary - 32) + std::string(34, ' ') + " 0000000000000000 0000000000000000\n" +
                label(boundary) + " ???????????????? ????????????????\n");
  munmap(pages, 2 * page);
}

TEST(Registers, FormatGroupsAndMarksBadPointers) {
  ucontext_t context{};
  for (int i = 0; i < NGREG; ++i) context.uc_mcontext.gregs[i] = i + 1;
  uint64_t local = 0;
  context.uc_mcontext.gregs[REG_RSP] = reinterpret_cast<greg_t>(&local);
  context.uc_mcontext.gregs[REG_RIP] = reinterpret_cast<greg_t>(&get_stack_backtrace);
  context.uc_mcontext.gregs[REG_EFL] = 0x246;
  context.uc_mcontext.gregs[REG_CSGSFS] = 0x002b000000000033;  // SS 2b, CS 33
  std::string text = format_registers(context);
  EXPECT_EQ(text.rfind("RAX=000000000000000e, RBX=000000000000000c, RCX=000000000000000f", 0), 0u);
  EXPECT_NE(text.find("EFLAGS=00000246, CS=0033, SS=0000, DS=0000, ES=0000, FS=0000, GS=0000"),
            std::string::npos);
  EXPECT_EQ(text.find('<'), std::string::npos) << text;
  EXPECT_EQ(text.find("XMM"), std::string::npos);

  _libc_fpstate fp{};
  fp._xmm[15].element[3] = 0xfedcba98;
  fp._xmm[15].element[0] = 1;
  context.uc_mcontext.fpregs = &fp;
  context.uc_flags |= 0x2;  // the kernel saved SS
  context.uc_mcontext.gregs[REG_RSP] = 0x10;
  context.uc_mcontext.gregs[REG_RIP] = 0x20;
  text = format_registers(context);
  EXPECT_NE(text.find("RSP=0000000000000010<bad stack ptr>, RBP="), std::string::npos);
  EXPECT_NE(text.find("RIP=0000000000000020<bad code ptr>, EFLAGS"), std::string::npos);
  EXPECT_NE(text.find("SS=002b"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 40), ", XMM15=fedcba98000000000000000000000001");
}

std::vector<std::string> lines_of(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The index of the first line at or after `from` that holds `part`, or -1.
int find_line(std::vector<std::string> const& lines, std::string const& part, int from = 0) {
  for (size_t i = static_cast<size_t>(from); i < lines.size(); ++i) {
    if (lines[i].find(part) != std::string::npos) return static_cast<int>(i);
  }
  return -1;
}

std::string backtrace_here() { return get_stack_backtrace(); }

TEST(Backtrace, PlainChainShowsNamesValuesFilesAndLinesInOrder) {
  std::vector<std::string> const lines = lines_of(stack_chain::plain_chain(backtrace_here));
  ASSERT_GE(lines.size(), 6u);
  EXPECT_NE(lines[0].find("backtrace_here() - diagnostics_test.cpp("), std::string::npos);
  int const nine = find_line(lines, "!stack_chain::nine(probe=0x");
  int const by_value = find_line(lines, "!stack_chain::by_value(probe=0x", nine);
  int const records = find_line(lines, "!stack_chain::records(probe=0x", by_value);
  int const scalars = find_line(lines, "!stack_chain::scalars(probe=0x", records);
  ASSERT_EQ(nine, 1) << lines[1];
  ASSERT_TRUE(by_value == 2 && records == 3 && scalars == 4) << lines[2] << lines[3] << lines[4];
  EXPECT_NE(lines[nine].find(", a=1, b=2, c=3, d=4, e=5, f=6, g=7, <1 omitted>) - "
                             "stack_chain_plain.cpp(10)+0x"),
            std::string::npos)
      << lines[nine];
  // AddressSanitizer moves locals whose address is taken into a frame of its own, reached
  // through a register the walk does not recover.
  if (!kAddressSanitizer) {
    EXPECT_NE(lines[by_value].find(", wide=[0x"), std::string::npos) << lines[by_value];
    EXPECT_NE(lines[by_value].find(",0x18], mood=0x"), std::string::npos) << lines[by_value];
  }
  EXPECT_NE(lines[records].find(", record=->0x"), std::string::npos) << lines[records];
  EXPECT_NE(lines[records].find(kAddressSanitizer ? ") - stack_chain_plain.cpp(21)"
                                                  : ", mood=-2) - stack_chain_plain.cpp(21)"),
            std::string::npos)
      << lines[records];
  EXPECT_NE(lines[scalars].find(", n=-7, c=\\xffffffc8, w='\\x00c8', flag=true, ratio=0.25)"),
            std::string::npos)
      << lines[scalars];
}

TEST(Backtrace, OptimisedChainShowsInlinedFramesAndLostValues) {
  std::string const text = stack_chain::optimised_chain(backtrace_here, 4);
  std::vector<std::string> const lines = lines_of(text.substr(0, text.size() - 2));
  int const leaf = find_line(lines, "!stack_chain::leaf(probe=");
  int const folded = find_line(lines, "folded(", leaf);
  ASSERT_TRUE(leaf == 1 && folded == 2) << text;
  ASSERT_LT(folded + 1, static_cast<int>(lines.size()));
  EXPECT_NE(lines[folded + 1].find("!stack_chain::outer("), std::string::npos) << text;
  // An inlined function and the one it sits in share the frame's ip.
  EXPECT_EQ(lines[folded].substr(0, 20), lines[folded + 1].substr(0, 20));
  EXPECT_NE(text.find("=<unavail>"), std::string::npos) << text;
}

TEST(Backtrace, SkipsAndLimits) {
  EXPECT_EQ(get_stack_backtrace(200, 0), "");
  EXPECT_EQ(lines_of(get_stack_backtrace(0, 2)).size(), 2u);
  EXPECT_NE(get_stack_backtrace(0, 1).find("Backtrace_SkipsAndLimits_Test::TestBody("),
            std::string::npos);
}

__attribute__((noinline)) size_t deep_walk(int depth, StackFrameRecord* frames) {
  if (depth > 0) {
    size_t n = deep_walk(depth - 1, frames);
    asm volatile("" : "+r"(n));  // keeps the recursion from becoming a loop
    return n + 1;
  }
  return capture_stack_frames(nullptr, frames, frames + STACK_FRAME_CAPACITY) - frames;
}

TEST(StackWalk, AWalkThatDoesNotEndFillsEverySlot) {
  StackFrameRecord frames[STACK_FRAME_CAPACITY];
  EXPECT_EQ(deep_walk(200, frames), STACK_FRAME_CAPACITY + 200);
}

// Learnt shapes against libunwind's own walk, cold and warm: the same frames either way.
__attribute__((noinline)) void walk_both(StackFrameRecord* frames, size_t* count, void** ips,
                                         int* ip_count) {
  *count = capture_stack_frames(nullptr, frames, frames + 64) - frames;
  *ip_count = unw_backtrace(ips, 64);
}

TEST(StackWalk, MatchesLibunwindColdAndWarm) {
  for (int round = 0; round < 3; ++round) {
    StackFrameRecord frames[64];
    void* ips[64];
    size_t count = 0;
    int ip_count = 0;
    walk_both(frames, &count, ips, &ip_count);
    ASSERT_GT(count, 4u);
    // Ours begins in the walker and leaves out the outermost frame; libunwind's list begins
    // in walk_both and keeps the outermost.
    ASSERT_EQ(count, static_cast<size_t>(ip_count)) << round;
    for (size_t i = 2; i < count; ++i) {
      EXPECT_EQ(frames[i].ip, reinterpret_cast<uint64_t>(ips[i - 1]));
    }
    for (size_t i = 1; i < count; ++i) EXPECT_EQ(frames[i].sp, frames[i - 1].unwound_sp);
  }
}

StackFrameRecord g_signalFrames[16];
size_t g_signalCount = 0;
uint64_t g_interrupted = 0;

void on_signal(int, siginfo_t*, void* context) {
  auto const* uc = static_cast<ucontext_t const*>(context);
  g_interrupted = static_cast<uint64_t>(uc->uc_mcontext.gregs[REG_RIP]);
  g_signalCount = capture_stack_frames(uc, g_signalFrames, g_signalFrames + 16) - g_signalFrames;
}

TEST(StackWalk, FromASignalContextStartsAtTheInterruptedInstruction) {
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_sigaction = on_signal;
  action.sa_flags = SA_SIGINFO;
  ASSERT_EQ(sigaction(SIGUSR2, &action, &previous), 0);
  raise(SIGUSR2);
  sigaction(SIGUSR2, &previous, nullptr);
  ASSERT_GT(g_signalCount, 2u);
  EXPECT_EQ(g_signalFrames[0].ip, g_interrupted);
  std::ostringstream text;
  SymbolEngineSession session;
  render_stack_frames(session, text, g_signalFrames, g_signalFrames + g_signalCount);
  EXPECT_NE(text.str().find("FromASignalContextStartsAtTheInterruptedInstruction_Test::TestBody"),
            std::string::npos)
      << text.str();
}

TEST(StackDump, StretchesBetweenFramesEndAtTheStackTop) {
  StackFrameRecord frames[STACK_FRAME_CAPACITY];
  StackFrameRecord* end = capture_stack_frames(nullptr, frames, frames + STACK_FRAME_CAPACITY);
  std::ostringstream out;
  dump_stack(out, nullptr, frames, end, 2);
  std::string const text = out.str();
  EXPECT_NE(text.find("> Frame 1 -- ip="), std::string::npos);
  EXPECT_NE(text.find("> Frame 2 -- ip="), std::string::npos);
  EXPECT_NE(text.find(" (subsequent frames omitted)\n"), std::string::npos);
  EXPECT_EQ(text.find("> Frame 3"), std::string::npos);
  EXPECT_EQ(text.find('?'), std::string::npos);
}

TEST(SymbolEngine, SessionsNestAndBadFramesSaySo) {
  SymbolEngineSession outer;
  ASSERT_TRUE(outer.acquire());
  SymbolEngineSession inner;
  ASSERT_TRUE(inner.acquire());
  StackFrameRecord const bad[] = {{0x10, 0x10, 0x40, 0}, {0x10, 0x10, 0, 0}};
  StackFrameRecord good{0x10, 0x10, reinterpret_cast<uint64_t>(&get_stack_backtrace) + 4, 0};
  std::ostringstream text;
  render_stack_frames(inner, text, bad, bad + 2);
  EXPECT_EQ(text.str(),
            "[0x0000000000000040]<unknown module>!<bad code ptr>\n"
            "[0x0000000000000000]<unknown module>!<bad code ptr>\n");
  text.str("");
  render_stack_frames(outer, text, &good, &good + 1);
  EXPECT_EQ(text.str().rfind("]libtqcore.so"), 19u) << text.str();
  EXPECT_EQ(text.str().substr(text.str().size() - 13), "!<bad frame>\n");
}

}  // namespace
}  // namespace tqcore
