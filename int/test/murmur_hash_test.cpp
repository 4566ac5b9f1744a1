// Murmur hashing against MurmurHash3_x64_128 as published, written out here from its
// description: with a seed below 2^32 the library's value is the sum of the two halves.
#include <tqcore/murmur_hash.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace tqcore {
namespace {

// ---- The published function, independent of the library ------------------------------------

uint64_t rotl(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

uint64_t fmix(uint64_t k) {
  k ^= k >> 33;
  k *= 0xff51afd7ed558ccdULL;
  k ^= k >> 33;
  k *= 0xc4ceb9fe1a85ec53ULL;
  k ^= k >> 33;
  return k;
}

void reference_x64_128(void const* key, int len, uint32_t seed, uint64_t out[2]) {
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
uint64_t reference_folded(std::string const& bytes, uint32_t seed) {
  uint64_t out[2];
  reference_x64_128(bytes.data(), static_cast<int>(bytes.size()), seed, out);
  return out[0];
}

std::string random_bytes(std::mt19937_64& rng, size_t size) {
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(rng());
  return bytes;
}

TEST(MurmurHash, MatchesThePublishedFunctionForEveryLengthUpTo300) {
  std::mt19937_64 rng(20261121);
  for (size_t size = 0; size <= 300; ++size) {
    std::string const bytes = random_bytes(rng, size);
    for (int k = 0; k < 4; ++k) {
      auto const seed = static_cast<uint32_t>(rng());
      MurmurHashContext context(seed);
      EXPECT_EQ(context.update(bytes.data(), bytes.size()).calculate_digest(),
                reference_folded(bytes, seed))
          << "size " << size << " seed " << seed;
    }
  }
}

TEST(MurmurHash, SeedZeroOfNothingIsZero) {
  EXPECT_EQ(MurmurHashContext(0).calculate_digest(), 0u);
}

TEST(MurmurHash, AWideSeedUsesAllSixtyFourBits) {
  std::string const bytes = "seeded";
  uint64_t const low_only = MurmurHashContext(0x12345678).update("seeded", 6).calculate_digest();
  EXPECT_NE(MurmurHashContext(0xABCD00000000 | 0x12345678).update("seeded", 6).calculate_digest(),
            low_only);
  EXPECT_EQ(low_only, reference_folded(bytes, 0x12345678));
}

TEST(MurmurHash, EverySplitGivesTheOneShotDigest) {
  std::mt19937_64 rng(7);
  std::string const bytes = random_bytes(rng, 77);
  uint64_t const whole = murmur_hash(bytes.data(), bytes.size());
  for (size_t first = 0; first <= bytes.size(); ++first) {
    for (size_t second = first; second <= bytes.size(); second += 5) {
      MurmurHashContext context;
      context.update(bytes.data(), first)
          .update(bytes.data() + first, second - first)
          .update(bytes.data() + second, bytes.size() - second);
      ASSERT_EQ(context.calculate_digest(), whole) << first << "/" << second;
    }
  }
  MurmurHashContext bytewise;
  for (char c : bytes) bytewise.update(&c, 1);
  EXPECT_EQ(bytewise.calculate_digest(), whole);
}

TEST(MurmurHashContext, DigestLeavesTheStateAndResetStartsOver) {
  MurmurHashContext context(99);
  context.update("ab", 2);
  uint64_t const partial = context.calculate_digest();
  EXPECT_EQ(context.calculate_digest(), partial);
  MurmurHashContext const copy(context);
  context.update("c", 1);
  EXPECT_EQ(context.calculate_digest(), MurmurHashContext(99).update("abc", 3).calculate_digest());
  EXPECT_EQ(copy.calculate_digest(), partial);  // the copy has its own state
  context.reset();
  EXPECT_EQ(context.update("ab", 2).calculate_digest(), partial);
  MurmurHashContext assigned(1);
  assigned = copy;
  EXPECT_EQ(assigned.calculate_digest(), partial);
}

TEST(MurmurHash, WideTextHashesItsUtf16Form) {
  struct Row {
    std::wstring text;
    std::u16string utf16;
  } const rows[] = {
      {L"ab", u"ab"},
      {L"", u""},
      {L"\u00e9\u4e2d", u"\u00e9\u4e2d"},
      {std::wstring(1, wchar_t(0x1F600)), u"\U0001F600"},  // a surrogate pair
      {std::wstring(1, wchar_t(0x110000)), u"\uFFFD"},     // no character
      {std::wstring(300, L'x') + L"\U0001F600", std::u16string(300, u'x') + u"\U0001F600"},
  };
  for (Row const& row : rows) {
    uint64_t const bytes = murmur_hash(row.utf16.data(), row.utf16.size() * 2);
    EXPECT_EQ(murmur_hash(row.text.data(), row.text.size()), bytes);
    MurmurHashContext context;
    context.update(row.text.data(), row.text.size());
    EXPECT_EQ(context.calculate_digest(), bytes);
  }
  EXPECT_EQ(MurmurHashFunct()(std::wstring_view(L"ab")),
            MurmurHashFunct()(std::string_view("a\0b\0", 4)));
}

}  // namespace
}  // namespace tqcore
