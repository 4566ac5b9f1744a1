/// @file
/// One process-wide pseudo-random generator (MT19937) that needs no seeding: the processor's
/// cycle counter is mixed into its state at every regeneration, so no two runs repeat, and a
/// forked child does not repeat its parent. Not a cryptographic source.
///
/// Failures: none; the generator is seeded on first use and never raises.
///
/// @code
/// std::vector<unsigned char> nonce(16);
/// tqcore::random_fill(nonce.data(), nonce.size());
/// double const jitter = tqcore::random_double();  // in [0, 1)
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>

namespace tqcore {

TQCORE_EXPORT void random_fill(void* buffer, size_t size);

/// One tempered 32-bit word. The `long` forms hold the values a 32-bit `long` would: the signed
/// one is sign-extended, the unsigned one zero-extended.
TQCORE_EXPORT uint32_t random_uint32();
inline unsigned random_uint() { return random_uint32(); }
inline unsigned long random_ulong() { return random_uint32(); }
inline int32_t random_int32() { return static_cast<int32_t>(random_uint32()); }
inline int random_int() { return random_int32(); }
inline long random_long() { return random_int32(); }

/// Two words, the first in the low half.
TQCORE_EXPORT uint64_t random_uint64();
inline int64_t random_int64() { return static_cast<int64_t>(random_uint64()); }

/// 53 random bits scaled into [0, 1): never 1.0.
inline double random_double() {
  return static_cast<double>(random_uint64() & 0x1FFFFFFFFFFFFFull) * 0x1p-53;
}

}  // namespace tqcore
