// The stack walker. libunwind's general step reads unwind tables and validates memory with a
// system call for each word, some microseconds a frame; a walk of a thread that has been walked
// before must cost nanoseconds. So each frame's shape at an instruction (where the caller's
// stack and frame pointers and the return address lie) is learnt once from libunwind, checked
// against what libunwind found, and kept in a lock-free table; later walks follow it and fall
// back to libunwind for anything unknown. Signal frames, and the frame a signal interrupted,
// always go through libunwind.
#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <pthread.h>

#include <atomic>
#include <cstring>

#include "diagnostics_impl_internal.h"
#include "static_instance_internal.h"

namespace tqcore {
namespace {

struct Registers {
  uint64_t sp;
  uint64_t fp;
  uint64_t ip;
};

// How a frame's caller follows from the frame, packed in one word with a tag of its address:
// bit 0 valid, 1 outermost, 2 CFA from fp (else sp), 3 fp saved (else unchanged), then the
// CFA offset and the saved fp's offset from the CFA (18 bits each, signed), then a 24-bit tag.
struct Shape {
  bool outermost = false;
  bool cfa_from_fp = false;
  bool fp_saved = false;
  int32_t cfa_offset = 0;
  int32_t fp_offset = 0;
};

constexpr int kOffsetBits = 18;
constexpr int32_t kOffsetLimit = 1 << (kOffsetBits - 1);
constexpr uint64_t kOffsetMask = (uint64_t{1} << kOffsetBits) - 1;
constexpr unsigned int kSlotBits = 11;

uint64_t tag_of(uint64_t ip) { return (ip ^ (ip >> 24)) & 0xffffff; }

uint64_t pack(Shape const& s, uint64_t ip) {
  return 1 | uint64_t{s.outermost} << 1 | uint64_t{s.cfa_from_fp} << 2 | uint64_t{s.fp_saved} << 3 |
         (static_cast<uint64_t>(s.cfa_offset) & kOffsetMask) << 4 |
         (static_cast<uint64_t>(s.fp_offset) & kOffsetMask) << (4 + kOffsetBits) | tag_of(ip) << 40;
}

int32_t signed_field(uint64_t word, int shift) {
  auto const raw = static_cast<int32_t>((word >> shift) & kOffsetMask);
  return raw >= kOffsetLimit ? raw - 2 * kOffsetLimit : raw;
}

// libunwind's own locks have no fork handlers: all its use goes through this lock, which ours
// have. Recursive, for a fault signal that arrives while its thread walks.
pthread_mutex_t g_unwinderLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

class UnwinderLock {
 public:
  UnwinderLock() noexcept { pthread_mutex_lock(&g_unwinderLock); }
  ~UnwinderLock() { pthread_mutex_unlock(&g_unwinderLock); }
  UnwinderLock(UnwinderLock const&) = delete;
  UnwinderLock& operator=(UnwinderLock const&) = delete;
};

// Two threads storing different addresses into one slot at once can leave one's key with the
// other's shape; the tag catches that, since the shape carries its own address's tag.
struct Slot {
  std::atomic<uint64_t> ip{0};
  std::atomic<uint64_t> shape{0};
};
Slot g_shapes[1u << kSlotBits];

Slot& slot_for(uint64_t ip) { return g_shapes[(ip * 0x9e3779b97f4a7c15ull) >> (64 - kSlotBits)]; }

bool find_shape(uint64_t ip, Shape& out) {
  Slot& slot = slot_for(ip);
  if (slot.ip.load(std::memory_order_acquire) != ip) return false;
  uint64_t const word = slot.shape.load(std::memory_order_acquire);
  if ((word & 1) == 0 || (word >> 40) != tag_of(ip)) return false;
  out.outermost = (word >> 1) & 1;
  out.cfa_from_fp = (word >> 2) & 1;
  out.fp_saved = (word >> 3) & 1;
  out.cfa_offset = signed_field(word, 4);
  out.fp_offset = signed_field(word, 4 + kOffsetBits);
  return true;
}

void store_shape(uint64_t ip, Shape const& shape) {
  Slot& slot = slot_for(ip);
  slot.ip.store(0, std::memory_order_relaxed);
  slot.shape.store(pack(shape, ip), std::memory_order_release);
  slot.ip.store(ip, std::memory_order_release);
}

bool fits(int64_t offset) { return offset >= -kOffsetLimit && offset < kOffsetLimit; }

// Reads one stack word, but only inside the thread's stack: anything else goes to libunwind,
// which validates what it reads.
bool read_stack_word(impl::StackBounds const& stack, uint64_t address, uint64_t& out) {
  if (address < stack.low || address + 8 > stack.high || (address & 7) != 0) return false;
  out = impl::load_word(address);
  return true;
}

class Walker {
 public:
  // From a signal's context, whose instruction was interrupted, not calling: it is looked up
  // as it is, and it must not teach the table a shape.
  Walker(ucontext_t const& context, StackFrameRecord* begin, StackFrameRecord* end)
      : Walker(begin, end) {
    greg_t const* g = context.uc_mcontext.gregs;
    m_regs = Registers{static_cast<uint64_t>(g[REG_RSP]), static_cast<uint64_t>(g[REG_RBP]),
                       static_cast<uint64_t>(g[REG_RIP])};
    m_signal = &context;
    m_exactIp = true;
  }
  // From three registers of a calling frame.
  Walker(Registers const& start, StackFrameRecord* begin, StackFrameRecord* end)
      : Walker(begin, end) {
    m_regs = start;
  }

  StackFrameRecord* run() {
    while (m_at < m_end && !m_done) {
      if (m_exactIp || !fast_step()) slow_step();
    }
    return m_at;
  }

 private:
  // Keeps the current frame unless its caller is nothing, and moves to the caller.
  void advance(uint64_t unwound_sp, Registers const& caller) {
    if (caller.ip == 0) {
      m_done = true;
      return;
    }
    *m_at++ = StackFrameRecord{unwound_sp, m_regs.sp, m_regs.ip, m_regs.fp};
    m_regs = caller;
  }

  bool fast_step() {
    Shape shape;
    if (!find_shape(m_regs.ip, shape)) return false;
    if (shape.outermost) {
      m_done = true;
      return true;
    }
    uint64_t const cfa = (shape.cfa_from_fp ? m_regs.fp : m_regs.sp) + shape.cfa_offset;
    Registers caller{cfa, m_regs.fp, 0};
    if (!read_stack_word(m_stack, cfa - 8, caller.ip)) return false;
    if (shape.fp_saved && !read_stack_word(m_stack, cfa + shape.fp_offset, caller.fp)) {
      return false;
    }
    m_inSync = false;
    advance(cfa, caller);
    return true;
  }

  void resync() {
    // The callee-saved registers other than rbp are stale or zero here; no frame shape needs
    // them (libunwind's own fast trace makes the same assumption). The context is built only
    // now, since a warm walk never needs it.
    if (!m_contextReady) {
      if (m_signal != nullptr) {
        std::memcpy(&m_context, m_signal, sizeof(m_context));
      } else {
        std::memset(&m_context, 0, sizeof(m_context));
      }
      m_contextReady = true;
    }
    greg_t* g = m_context.uc_mcontext.gregs;
    g[REG_RSP] = static_cast<greg_t>(m_regs.sp);
    g[REG_RBP] = static_cast<greg_t>(m_regs.fp);
    g[REG_RIP] = static_cast<greg_t>(m_regs.ip);
    unw_init_local2(&m_cursor, &m_context, m_exactIp ? UNW_INIT_SIGNAL_FRAME : 0);
    m_inSync = true;
  }

  void slow_step() {
    UnwinderLock const locked;
    if (!m_inSync) resync();
    bool const signal_frame = unw_is_signal_frame(&m_cursor) > 0;
    bool const learnable = !signal_frame && !m_exactIp;
    unw_save_loc_t fp_before{};
    unw_get_save_loc(&m_cursor, UNW_X86_64_RBP, &fp_before);
    int const stepped = unw_step(&m_cursor);
    if (stepped == 0) {
      if (learnable) store_shape(m_regs.ip, Shape{true, false, false, 0, 0});
      m_done = true;
      return;
    }
    if (stepped < 0) {  // the frame is real; its caller is unknown
      *m_at++ = StackFrameRecord{m_regs.sp, m_regs.sp, m_regs.ip, m_regs.fp};
      m_done = true;
      return;
    }
    Registers caller{};
    unw_word_t value = 0;
    unw_get_reg(&m_cursor, UNW_X86_64_RSP, &value);
    caller.sp = value;
    unw_get_reg(&m_cursor, UNW_X86_64_RBP, &value);
    caller.fp = value;
    unw_get_reg(&m_cursor, UNW_REG_IP, &value);
    caller.ip = value;
    if (learnable) learn(fp_before, caller);
    m_exactIp = signal_frame;  // the frame behind a signal frame was interrupted, not calling
    advance(caller.sp, caller);
  }

  // Derives the frame's shape from what libunwind found, and keeps it only if following it
  // gives the same caller.
  void learn(unw_save_loc_t const& fp_before, Registers const& caller) {
    unw_save_loc_t fp_after{};
    unw_get_save_loc(&m_cursor, UNW_X86_64_RBP, &fp_after);
    Shape shape;
    uint64_t const cfa = caller.sp;
    bool const unchanged = fp_after.type == fp_before.type &&
                           (fp_after.type != UNW_SLT_MEMORY || fp_after.u.addr == fp_before.u.addr);
    if (!unchanged) {
      if (fp_after.type != UNW_SLT_MEMORY) return;
      shape.fp_saved = true;
      int64_t const offset = static_cast<int64_t>(fp_after.u.addr - cfa);
      if (!fits(offset)) return;
      shape.fp_offset = static_cast<int32_t>(offset);
    }
    // A frame that keeps its caller's fp at the address in fp is a frame-pointer frame, whose
    // CFA stays fp + 16 wherever the stack pointer moves (alloca, variable arrays).
    shape.cfa_from_fp = shape.fp_saved && fp_after.u.addr == m_regs.fp && cfa == m_regs.fp + 16;
    int64_t const offset = static_cast<int64_t>(cfa - (shape.cfa_from_fp ? m_regs.fp : m_regs.sp));
    if (!fits(offset)) return;
    shape.cfa_offset = static_cast<int32_t>(offset);
    uint64_t ip = 0;
    uint64_t fp = m_regs.fp;
    if (!read_stack_word(m_stack, cfa - 8, ip) || ip != caller.ip) return;
    if (shape.fp_saved && (!read_stack_word(m_stack, cfa + shape.fp_offset, fp))) return;
    if (fp != caller.fp) return;
    store_shape(m_regs.ip, shape);
  }

  Walker(StackFrameRecord* begin, StackFrameRecord* end)
      : m_stack(impl::thread_stack_bounds()), m_at(begin), m_end(end) {}

  impl::StackBounds const m_stack;
  StackFrameRecord* m_at;
  StackFrameRecord* const m_end;
  ucontext_t const* m_signal = nullptr;
  ucontext_t m_context;
  unw_cursor_t m_cursor;
  Registers m_regs{};
  bool m_exactIp = false;
  bool m_contextReady = false;
  bool m_inSync = false;
  bool m_done = false;
};

}  // namespace

namespace impl {
void unwinder_before_fork() noexcept { pthread_mutex_lock(&g_unwinderLock); }
void unwinder_after_fork(bool in_child) noexcept {
  if (in_child) {
    reset_recursive_lock(g_unwinderLock);
  } else {
    pthread_mutex_unlock(&g_unwinderLock);
  }
}
}  // namespace impl

__attribute__((noinline)) StackFrameRecord* capture_stack_frames(ucontext_t const* context,
                                                                 StackFrameRecord* begin,
                                                                 StackFrameRecord* end) noexcept {
  if (begin == nullptr || begin >= end) return begin;
  StackFrameRecord* filled = begin;
  if (context != nullptr) {
    filled = Walker(*context, begin, end).run();
  } else {
    // This frame is the first: its stack and frame pointers, and an address inside it.
    Registers here{};
    asm volatile("lea 0(%%rip), %0\n\tmov %%rsp, %1\n\tmov %%rbp, %2"
                 : "=r"(here.ip), "=r"(here.sp), "=r"(here.fp));
    filled = Walker(here, begin, end).run();
  }
  // Not a tail call: callers count this frame among the ones they skip.
  asm volatile("" ::: "memory");
  return filled;
}

}  // namespace tqcore
