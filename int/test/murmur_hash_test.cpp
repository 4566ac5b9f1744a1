// Murmur hashing against MurmurHash3_x64_128 as published: with a seed below 2^32 the
// library's value is the first word of the published pair.
#include <tqcore/murmur_hash.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "murmur_reference.h"

namespace tqcore {
namespace {

uint64_t reference_folded(std::string const& bytes, uint32_t seed) {
  return murmur_reference::folded(bytes.data(), bytes.size(), seed);
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
