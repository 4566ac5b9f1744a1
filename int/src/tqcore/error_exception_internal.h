// Internal interfaces of the error model.
#pragma once

#include <tqcore/source_string.h>

#include <cstddef>
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

// Writes the machine's name, NUL-terminated, into `buffer`, or "<unknown>".
void query_host_name(char* buffer, size_t capacity) noexcept;

}  // namespace impl
}  // namespace tqcore
