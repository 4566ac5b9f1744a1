// Vector shortcuts of the Unicode code. They only accept: whatever they cannot vouch for is
// left to the exact scalar rules.
#pragma once

#include <cstddef>

namespace tqcore {
namespace impl {

// The length of a prefix of `text` that is valid UTF-8 by the library's rules and ends where a
// sequence begins; 0 where the processor has no AVX2.
size_t utf8_valid_prefix(char const* text, size_t size) noexcept;

}  // namespace impl
}  // namespace tqcore
