// Internal interfaces of the error model.
#pragma once

#include <tqcore/source_string.h>

#include <cstddef>
#include <sstream>
#include <string>
#include <typeinfo>

namespace tqcore {
namespace impl {

// The machine's name, found once; every record made on this machine shares it.
SourceString const& error_info_hostname() noexcept;

// The C library's text for an errno value, or empty where it only has "Unknown error N".
SourceString system_error_text(int value);

// The name of a type as a reader writes it.
std::string demangled_type_name(std::type_info const& type);

// The text a string stream holds. A stream swallows a failed allocation into its bad bit and
// keeps what it had: that raises std::bad_alloc here instead of passing on a cut text.
std::string stream_text(std::ostringstream const& stream);

// Writes the machine's name, NUL-terminated, into `buffer`, or "<unknown>".
void query_host_name(char* buffer, size_t capacity) noexcept;

}  // namespace impl
}  // namespace tqcore
