// The registers of a signal's context as one line of text, built in a stack buffer.
#include <cstdarg>
#include <cstdio>

#include "diagnostics_impl_internal.h"

namespace tqcore {
namespace {

// The kernel stores SS in the context only when it says so in uc_flags.
constexpr unsigned long kContextHasSs = 0x2;  // UC_SIGCONTEXT_SS
constexpr size_t kRegisterTextSize = 2048;

class Text {
 public:
  void add(char const* format, ...) __attribute__((format(printf, 2, 3))) {
    if (m_used >= sizeof(m_buffer)) return;
    va_list arguments;
    va_start(arguments, format);
    int const n = std::vsnprintf(m_buffer + m_used, sizeof(m_buffer) - m_used, format, arguments);
    va_end(arguments);
    if (n > 0) m_used = std::min(sizeof(m_buffer) - 1, m_used + static_cast<size_t>(n));
  }
  std::string str() const { return std::string(m_buffer, m_used); }

 private:
  char m_buffer[kRegisterTextSize] = {};
  size_t m_used = 0;
};

unsigned long long reg(ucontext_t const& context, int index) {
  return static_cast<unsigned long long>(context.uc_mcontext.gregs[index]);
}

void add_general(Text& text, ucontext_t const& c) {
  text.add(
      "RAX=%016llx, RBX=%016llx, RCX=%016llx, RDX=%016llx, RSI=%016llx, RDI=%016llx, "
      "R8=%016llx, R9=%016llx, R10=%016llx, R11=%016llx, R12=%016llx, R13=%016llx, "
      "R14=%016llx, R15=%016llx",
      reg(c, REG_RAX), reg(c, REG_RBX), reg(c, REG_RCX), reg(c, REG_RDX), reg(c, REG_RSI),
      reg(c, REG_RDI), reg(c, REG_R8), reg(c, REG_R9), reg(c, REG_R10), reg(c, REG_R11),
      reg(c, REG_R12), reg(c, REG_R13), reg(c, REG_R14), reg(c, REG_R15));
}

// CS, GS, FS and SS share one word, 16 bits each from the bottom.
void add_control(Text& text, ucontext_t const& c) {
  unsigned long long const segments = reg(c, REG_CSGSFS);
  unsigned int const ss = (c.uc_flags & kContextHasSs) != 0 ? (segments >> 48) & 0xffff : 0;
  text.add(", RSP=%016llx%s", reg(c, REG_RSP),
           impl::is_readable(reg(c, REG_RSP), 1) ? "" : "<bad stack ptr>");
  text.add(", RBP=%016llx", reg(c, REG_RBP));
  text.add(", RIP=%016llx%s", reg(c, REG_RIP),
           impl::is_code_address(reg(c, REG_RIP)) ? "" : "<bad code ptr>");
  text.add(", EFLAGS=%08llx, CS=%04llx, SS=%04x", reg(c, REG_EFL) & 0xffffffffu, segments & 0xffff,
           ss);
}

// DS and ES are not in the context; in 64-bit user mode they hold 0.
void add_segments(Text& text, ucontext_t const& c) {
  unsigned long long const segments = reg(c, REG_CSGSFS);
  text.add(", DS=%04x, ES=%04x, FS=%04llx, GS=%04llx", 0u, 0u, (segments >> 32) & 0xffff,
           (segments >> 16) & 0xffff);
}

void add_xmm(Text& text, ucontext_t const& c) {
  if (c.uc_mcontext.fpregs == nullptr) return;
  for (int i = 0; i < 16; ++i) {
    auto const& e = c.uc_mcontext.fpregs->_xmm[i].element;
    text.add(", XMM%d=%08x%08x%08x%08x", i, e[3], e[2], e[1], e[0]);
  }
}

}  // namespace

std::string format_registers(ucontext_t const& context) {
  Text text;
  add_general(text, context);
  add_control(text, context);
  add_segments(text, context);
  add_xmm(text, context);
  return text.str();
}

}  // namespace tqcore
