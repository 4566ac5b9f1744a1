// MurmurHash3_x64_128 as published, written out from its description: the independent
// reference that the tests and benchmarks compare the library's hash with.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace murmur_reference {

inline uint64_t rotl(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

inline uint64_t fmix(uint64_t k) {
  k ^= k >> 33;
  k *= 0xff51afd7ed558ccdULL;
  k ^= k >> 33;
  k *= 0xc4ceb9fe1a85ec53ULL;
  k ^= k >> 33;
  return k;
}

inline void x64_128(void const* key, int len, uint32_t seed, uint64_t out[2]) {
  auto const* data = static_cast<uint8_t const*>(key);
  int const nblocks = len / 16;
  uint64_t h1 = seed, h2 = seed;
  uint64_t const c1 = 0x87c37b91114253d5ULL, c2 = 0x4cf5ad432745937fULL;
  for (int i = 0; i < nblocks; i++) {
    uint64_t k1, k2;
    std::memcpy(&k1, data + i * 16, 8);
    std::memcpy(&k2, data + i * 16 + 8, 8);
    k1 *= c1;
    k1 = rotl(k1, 31);
    k1 *= c2;
    h1 ^= k1;
    h1 = rotl(h1, 27);
    h1 += h2;
    h1 = h1 * 5 + 0x52dce729;
    k2 *= c2;
    k2 = rotl(k2, 33);
    k2 *= c1;
    h2 ^= k2;
    h2 = rotl(h2, 31);
    h2 += h1;
    h2 = h2 * 5 + 0x38495ab5;
  }
  uint8_t const* tail = data + nblocks * 16;
  uint64_t k1 = 0, k2 = 0;
  switch (len & 15) {  // NOLINT: the published fall-through
    case 15:
      k2 ^= uint64_t(tail[14]) << 48;
      [[fallthrough]];
    case 14:
      k2 ^= uint64_t(tail[13]) << 40;
      [[fallthrough]];
    case 13:
      k2 ^= uint64_t(tail[12]) << 32;
      [[fallthrough]];
    case 12:
      k2 ^= uint64_t(tail[11]) << 24;
      [[fallthrough]];
    case 11:
      k2 ^= uint64_t(tail[10]) << 16;
      [[fallthrough]];
    case 10:
      k2 ^= uint64_t(tail[9]) << 8;
      [[fallthrough]];
    case 9:
      k2 ^= uint64_t(tail[8]);
      k2 *= c2;
      k2 = rotl(k2, 33);
      k2 *= c1;
      h2 ^= k2;
      [[fallthrough]];
    case 8:
      k1 ^= uint64_t(tail[7]) << 56;
      [[fallthrough]];
    case 7:
      k1 ^= uint64_t(tail[6]) << 48;
      [[fallthrough]];
    case 6:
      k1 ^= uint64_t(tail[5]) << 40;
      [[fallthrough]];
    case 5:
      k1 ^= uint64_t(tail[4]) << 32;
      [[fallthrough]];
    case 4:
      k1 ^= uint64_t(tail[3]) << 24;
      [[fallthrough]];
    case 3:
      k1 ^= uint64_t(tail[2]) << 16;
      [[fallthrough]];
    case 2:
      k1 ^= uint64_t(tail[1]) << 8;
      [[fallthrough]];
    case 1:
      k1 ^= uint64_t(tail[0]);
      k1 *= c1;
      k1 = rotl(k1, 31);
      k1 *= c2;
      h1 ^= k1;
  }
  h1 ^= uint64_t(len);
  h2 ^= uint64_t(len);
  h1 += h2;
  h2 += h1;
  h1 = fmix(h1);
  h2 = fmix(h2);
  h1 += h2;
  h2 += h1;
  out[0] = h1;
  out[1] = h2;
}

// The published output is (h1 + h2, h1 + 2 h2) of the finished halves; the library returns
// fmix(h1) + fmix(h2), which is the first word of the published pair.
inline uint64_t folded(void const* data, size_t size, uint32_t seed) {
  uint64_t out[2];
  x64_128(data, static_cast<int>(size), seed, out);
  return out[0];
}

}  // namespace murmur_reference
