// The trace handler table and the default trace writer.
#include <tqcore/diagnostics.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

namespace tqcore {
namespace {

// Written by exchange, read once per use: a handler swapped meanwhile is either the old or
// the new one, never a torn pointer.
std::atomic<DumpCreditPeriodHandler> g_dumpCreditPeriod{nullptr};
std::atomic<DiagnosticTraceHandler> g_criticalError{nullptr};
std::atomic<DiagnosticTraceHandler> g_assertTrace{nullptr};

// Copies the template, putting the next packed value into each `{}`; a `{` before anything
// else stays a literal.
void expand_holes(std::ostream& out, char const* text, char const*& packed, char const* end) {
  while (*text != '\0') {
    char const* brace = std::strchr(text, '{');
    if (brace == nullptr) {
      out << text;
      return;
    }
    out.write(text, brace - text);
    if (brace[1] != '}') {
      out << '{';
      text = brace + 1;
      continue;
    }
    if (packed < end) {
      auto const* stop = static_cast<char const*>(std::memchr(packed, '\0', end - packed));
      char const* value_end = stop != nullptr ? stop : end;
      out.write(packed, value_end - packed);
      packed = stop != nullptr ? stop + 1 : end;
    }
    text = brace + 2;
  }
}

void trace_to(std::atomic<DiagnosticTraceHandler> const& slot, char const* tag,
              SourceLocation const& location, char const* message_template, char const* packed,
              size_t packed_size) {
  try {
    if (DiagnosticTraceHandler handler = slot.load(std::memory_order_acquire)) {
      handler(location, SourceString::create_reference(message_template), packed, packed_size);
    } else {
      write_default_trace(tag, location, message_template, packed, packed_size);
    }
  } catch (...) {
    // A trace must never make matters worse for the failing code that asked for it.
  }
}

}  // namespace

void set_diagnostic_trace_handlers(DumpCreditPeriodHandler dump_credit_period,
                                   DiagnosticTraceHandler critical_error,
                                   DiagnosticTraceHandler assert_trace) {
  g_dumpCreditPeriod.exchange(dump_credit_period, std::memory_order_acq_rel);
  g_criticalError.exchange(critical_error, std::memory_order_acq_rel);
  g_assertTrace.exchange(assert_trace, std::memory_order_acq_rel);
}

void trace_critical_error(SourceLocation const& location, char const* message_template,
                          char const* packed, size_t packed_size) {
  trace_to(g_criticalError, "CRITICAL-ERROR", location, message_template, packed, packed_size);
}

void trace_assert(SourceLocation const& location, char const* message_template, char const* packed,
                  size_t packed_size) {
  trace_to(g_assertTrace, "ASSERT", location, message_template, packed, packed_size);
}

bool is_assert_trace_wanted() {
  DiagnosticTraceHandler handler = g_assertTrace.load(std::memory_order_acquire);
  if (handler == nullptr) return true;
  return handler(SourceLocation(), SourceString(), nullptr, 0);
}

unsigned int dump_credit_period() {
  DumpCreditPeriodHandler handler = g_dumpCreditPeriod.load(std::memory_order_acquire);
  return handler != nullptr ? handler() : 0;
}

void write_default_trace(char const* tag, SourceLocation const& location,
                         char const* message_template, char const* packed, size_t packed_size) {
  std::ostringstream text;
  text << "\n*** " << tag << " - " << location.function().as_string() << '@'
       << location.file_depot_path() << '(' << location.line() << ")\n";
  if (packed == nullptr) packed_size = 0;
  char const* const end = packed + packed_size;
  expand_holes(text, message_template != nullptr ? message_template : "", packed, end);
  text.write(packed, end - packed);   // values the template had no hole for, NULs and all
  if (!text) throw std::bad_alloc();  // a stream swallows the failure; the text would be cut
  std::cerr << text.str() << std::endl;
}

}  // namespace tqcore
