// Seams through which the library's own tests look inside it. Not installed: no user reaches
// them.
#pragma once

#include <tqcore/tqcore_export.h>
#include <tqcore/uuid.h>

#include <cstddef>
#include <cstdint>

namespace tqcore {
namespace impl {
namespace testing {

// How many texts the string cache holds now.
TQCORE_EXPORT size_t interned_string_count();

// The sequential identifier for a given clock value (nanoseconds), through the same state as
// Uuid::create_sequential: lets a test drive the counter through a whole clock value.
TQCORE_EXPORT Uuid create_sequential_at(int64_t now);

// The dump credits' word: the period in the high 32 bits, the credits left in the low 16.
TQCORE_EXPORT uint64_t dump_credit_word() noexcept;
TQCORE_EXPORT void set_dump_credit_word(uint64_t word) noexcept;
TQCORE_EXPORT bool take_dump_credit() noexcept;

}  // namespace testing
}  // namespace impl
}  // namespace tqcore
