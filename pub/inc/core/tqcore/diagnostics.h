// Diagnostics: the three process-wide trace handlers through which critical errors and
// assertion reports leave the library, and the plain writer used when none is installed.
//
//   bool to_my_log(tqcore::SourceLocation const& at, tqcore::SourceString const& text,
//                  char const* packed, size_t size);
//   tqcore::set_diagnostic_trace_handlers(nullptr, to_my_log, nullptr);
//   tqcore::trace_critical_error(location, "Lost {} of {} records", "3\0" "10", 5);
#pragma once

#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>

namespace tqcore {

using DumpCreditPeriodHandler = unsigned int (*)();
// A trace handler gets the message template with `{}` holes and the packed values: each value
// as text followed by one NUL (the last may lack it), counted by `packed_size`.
using DiagnosticTraceHandler = bool (*)(SourceLocation const& location,
                                        SourceString const& message_template, char const* packed,
                                        size_t packed_size);

// Replaces the three handlers, each by an atomic exchange, in this order; a null pointer gives
// that handler's default behaviour back. Safe from any thread.
TQCORE_EXPORT void set_diagnostic_trace_handlers(DumpCreditPeriodHandler dump_credit_period,
                                                 DiagnosticTraceHandler critical_error,
                                                 DiagnosticTraceHandler assert_trace);

// To the critical-error handler, or to standard error under the tag "CRITICAL-ERROR".
// Never raises: an exception of the handler or the default writer is swallowed.
TQCORE_EXPORT void trace_critical_error(SourceLocation const& location,
                                        char const* message_template, char const* packed,
                                        size_t packed_size);
// To the assertion handler, or to standard error under the tag "ASSERT". Never raises.
TQCORE_EXPORT void trace_assert(SourceLocation const& location, char const* message_template,
                                char const* packed, size_t packed_size);
// True without an assertion handler; else the handler's answer to a probe with an empty
// location, an empty template and no values.
TQCORE_EXPORT bool is_assert_trace_wanted();
// The current period of the dump credits: the installed handler's answer, else 0.
TQCORE_EXPORT unsigned int dump_credit_period();

// Writes "\n*** <tag> - <function>@<depot path>(<line>)\n", then the template with each `{}`
// replaced by the next packed value, then what is left of the block verbatim, a newline, and
// flushes standard error. Allocates; not for a signal handler.
TQCORE_EXPORT void write_default_trace(char const* tag, SourceLocation const& location,
                                       char const* message_template, char const* packed,
                                       size_t packed_size);

}  // namespace tqcore
