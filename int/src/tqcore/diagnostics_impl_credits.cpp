// Dump credits, and the one call a `catch (...)` block makes to dump and trace what it caught.
#include "diagnostics_impl_fault.h"
#include "error_exception_internal.h"
#include "testing_seams.h"

#include <tqcore/streamers.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <sstream>
#include <string>

namespace tqcore {
namespace impl {
namespace {

// The period in the high 32 bits, the credits left in it in the low 16.
constexpr uint64_t kInitialCredits = 16;
std::atomic<uint64_t> g_dumpCredits{kInitialCredits};

constexpr char kNoCredit[] =
    "Unknown exception occurred on thread {} (no dump created as dump credits exhausted).  "
    "Error: {}";
constexpr char kWritten[] =
    "Unknown exception occurred on thread {}.  Created memory dump: {}.  Error: {}";
constexpr char kFailed[] =
    "Unknown exception occurred on thread {} (unable to create dump).  Error: {}";

// The dump this catch is about: the one the fault handler already decided on, else one
// written now (the earlier, the less the moment is spoiled).
DumpOutcome dump_for_catch(char* path, size_t capacity) noexcept {
  FaultState const* state = thread_fault_state();
  if (state != nullptr && state->pending && state->dump != DumpOutcome::none) {
    size_t const length =
        strnlen(state->dump_path, std::min(capacity, sizeof(state->dump_path)) - 1);
    std::memcpy(path, state->dump_path, length);
    path[length] = '\0';
    return state->dump;
  }
  if (!acquire_dump_credit()) return DumpOutcome::no_credit;
  return write_memory_dump(nullptr, dump_full, nullptr, path, capacity) ? DumpOutcome::written
                                                                        : DumpOutcome::failed;
}

std::string packed_report(DumpOutcome outcome, char const* path, SourceLocation const& where) {
  std::ostringstream packed;
  packed << streamers::Hex(current_thread_id(), false) << '\0';
  if (outcome == DumpOutcome::written) packed << path << '\0';
  packed << *ErrorInfo::from_anonymous_exception(where);
  return stream_text(packed);
}

}  // namespace

bool acquire_dump_credit() noexcept {
  uint64_t word = g_dumpCredits.load(std::memory_order_acquire);
  for (;;) {
    uint64_t const period = dump_credit_period();
    uint64_t next = word - 1;
    if ((word >> 32) != period) {
      next = (period << 32) | (kInitialCredits - 1);  // a new period; this call takes one
    } else if ((word & 0xFFFF) == 0) {
      return false;
    }
    if (g_dumpCredits.compare_exchange_weak(word, next, std::memory_order_acq_rel)) return true;
  }
}

namespace testing {
uint64_t dump_credit_word() noexcept { return g_dumpCredits.load(); }
void set_dump_credit_word(uint64_t word) noexcept { g_dumpCredits.store(word); }
bool take_dump_credit() noexcept { return acquire_dump_credit(); }
}  // namespace testing

}  // namespace impl

bool create_diagnostic_memory_dump(EDiagnosticMemoryDumpType type, char const* path, char* path_out,
                                   size_t path_out_size) noexcept {
  return write_memory_dump(nullptr, type, path, path_out, path_out_size);
}

namespace {

void dump_and_trace(SourceLocation const& where, bool remember) noexcept {
  char path[512] = {};
  impl::DumpOutcome const outcome = impl::dump_for_catch(path, sizeof(path));
  if (remember && outcome == impl::DumpOutcome::written) impl::remember_crash_dump(path);
  char const* message = outcome == impl::DumpOutcome::written     ? impl::kWritten
                        : outcome == impl::DumpOutcome::no_credit ? impl::kNoCredit
                                                                  : impl::kFailed;
  try {
    std::string const packed = impl::packed_report(outcome, path, where);
    trace_critical_error(where, message, packed.data(), packed.size());
  } catch (...) {
    // Out of memory for the report: the thread and the dump's path still fill their holes.
    impl::SafeText packed;
    packed.hex(impl::current_thread_id(), 0).text("\0", 1);
    if (outcome == impl::DumpOutcome::written) packed.text(path).text("\0", 1);
    packed.text("<the error could not be rendered>");
    trace_critical_error(where, message, packed.data(), packed.size());
  }
  if (outcome == impl::DumpOutcome::written && impl::dump_root_fell_back()) {
    trace_critical_error(where,
                         "TQTQ_TRACE_ROOT could not be used for the memory dump; it was "
                         "written to the temporary directory.",
                         nullptr, 0);
  }
}

}  // namespace

void create_dump_and_trace_anonymous_exception(SourceLocation const& where) noexcept {
  dump_and_trace(where, false);
}

void impl::dump_and_trace_before_exit(SourceLocation const& where) noexcept {
  dump_and_trace(where, true);
}

}  // namespace tqcore
