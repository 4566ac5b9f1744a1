// Uuid and the random generator behind it.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_exception.h>
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/random.h>
#include <tqcore/source_string.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <ace/Object_Manager.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "child_process.h"
#include "murmur_reference.h"
#include "testing_seams.h"

namespace tqcore {
namespace {

// What a child process draws right after fork, against what the parent draws next.
TEST(Random, AForkedChildDoesNotRepeatItsParent) {
  Uuid const before = Uuid::create_sequential();  // the parent's sequence has started
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    std::printf("%016llx %s\n", static_cast<unsigned long long>(random_uint64()),
                Uuid::create_sequential().as_string().c_str());
    return 0;
  });
  ASSERT_TRUE(child.exited(0)) << child.output;
  char parent_word[17];
  std::snprintf(parent_word, sizeof(parent_word), "%016llx",
                static_cast<unsigned long long>(random_uint64()));
  EXPECT_EQ(child.output.size(), 16 + 1 + 36 + 1u);
  EXPECT_NE(child.output.substr(0, 16), parent_word);
  // A sequential identifier keeps its node in bytes 10 to 13: the child drew new ones.
  EXPECT_NE(child.output.substr(17 + 24, 8), before.as_string().substr(24, 8));
}

Uuid parse(char const* text) { return Uuid::from_string(text); }

TEST(UuidText, ThreeFormsRoundTripInLowerCase) {
  char const* const upper = "0A1B2C3D-4E5F-6A7B-8C9D-AEBFC0D1E2F3";
  Uuid const uuid = parse(upper);
  struct Row {
    Uuid::EFormat format;
    char const* text;
  } const rows[] = {
      {Uuid::Hyphenated, "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3"},
      {Uuid::Compact, "0a1b2c3d4e5f6a7b8c9daebfc0d1e2f3"},
      {Uuid::Braced, "{0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3}"},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(uuid.as_string(row.format), row.text);
    EXPECT_EQ(parse(row.text), uuid);
    std::string upper_form = row.text;
    for (char& c : upper_form) c = static_cast<char>(std::toupper(c));
    EXPECT_EQ(parse(upper_form.c_str()), uuid);
    std::ostringstream traced;
    traced << Uuid::Trace(uuid, row.format);
    EXPECT_EQ(traced.str(), row.text);
  }
  std::ostringstream plain;
  plain << uuid;
  EXPECT_EQ(plain.str(), rows[0].text);
  EXPECT_EQ(uuid.as_string(static_cast<Uuid::EFormat>(3)), "");
}

TEST(UuidText, MalformedTextsAreRefusedAndLeaveOutAlone) {
  char const* const bad[] = {
      "",
      "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f",    // 35
      "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3 ",  // 37
      "0a1b2c3d 4e5f-6a7b-8c9d-aebfc0d1e2f3",   // a space for a hyphen
      "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2fg",   // a bad digit in the last group
      "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2-3",
      "{0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2}",  // braces around 34 characters: size 36
      "(0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3)",
      "{0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3]",
      "0a1b2c3d4e5f6a7b8c9daebfc0d1e2f-",
      " 0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3",
      "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3\n",
      "+a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3",
  };
  Uuid const sentinel = Uuid::create_random();
  for (char const* text : bad) {
    Uuid out = sentinel;
    EXPECT_FALSE(Uuid::from_string_nothrow(text, &out)) << text;
    EXPECT_FALSE(Uuid::from_string_nothrow(text, nullptr)) << text;
    EXPECT_EQ(out, sentinel);
  }
  EXPECT_TRUE(Uuid::from_string_nothrow("0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3", nullptr));
  EXPECT_FALSE(Uuid::from_string_nothrow(nullptr, nullptr));
}

uint16_t counter_of(Uuid const& uuid) {
  return static_cast<uint16_t>(uuid.bytes()[14] << 8 | uuid.bytes()[15]);
}

TEST(UuidSequential, CountsWithinOneClockValueAndKeepsTheClock) {
  int64_t const now = (AbsoluteTime::now().as_nsec() & ~int64_t{0xFF}) + (int64_t{1} << 20);
  Uuid const first = impl::testing::create_sequential_at(now);
  Uuid const second = impl::testing::create_sequential_at(now);
  EXPECT_EQ(counter_of(first), 1);
  EXPECT_EQ(counter_of(second), 2);
  EXPECT_LT(first, second);
  EXPECT_EQ(first.version(), Uuid::Sequential);
  EXPECT_EQ(first.bytes()[8] & 0xC0, 0x80);
  EXPECT_EQ(first.timestamp(), (uint64_t(now) & 0x0FFFFFFFFFFFFF00ull) | 0xD0);
  Uuid const later = impl::testing::create_sequential_at(now + 256);
  EXPECT_EQ(counter_of(later), 1);
  EXPECT_LT(second, later);
}

TEST(UuidSequential, TheCounterWrapsIntoTheNode) {
  int64_t const now = (AbsoluteTime::now().as_nsec() & ~int64_t{0xFF}) + (int64_t{1} << 21);
  Uuid previous = impl::testing::create_sequential_at(now);
  uint32_t node_before = 0;
  for (int i = 2; i <= 65536; ++i) {
    Uuid const next = impl::testing::create_sequential_at(now);
    ASSERT_LT(previous, next) << i;
    if (i == 65535) std::memcpy(&node_before, next.bytes() + 10, 4);
    previous = next;
  }
  EXPECT_EQ(counter_of(previous), 0);
  uint32_t node_after;
  std::memcpy(&node_after, previous.bytes() + 10, 4);
  EXPECT_EQ(__builtin_bswap32(node_after), __builtin_bswap32(node_before) + 1);
}

TEST(UuidSequential, AClockGoingBackStartsANewSequence) {
  int64_t const now = (AbsoluteTime::now().as_nsec() & ~int64_t{0xFF}) + (int64_t{1} << 22);
  Uuid const ahead = impl::testing::create_sequential_at(now);
  Uuid const back = impl::testing::create_sequential_at(now - 256);
  EXPECT_EQ(counter_of(back), 1);
  EXPECT_NE(std::string(reinterpret_cast<char const*>(ahead.bytes()) + 10, 4),
            std::string(reinterpret_cast<char const*>(back.bytes()) + 10, 4));
}

// Murmur hashing against MurmurHash3_x64_128 as published: with a seed below 2^32 the
// library's value is the first word of the published pair.

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

// Object keys: identity, interning, the caches' weak hold, trace texts.

template <class Key>
std::string traced(Key const& key) {
  std::ostringstream stream;
  stream << key;
  return stream.str();
}

TEST(StringKey, SameTextSameIdentityAndOneItem) {
  size_t const before = impl::testing::interned_string_count();
  StringKey const a("object-key-test-abc");
  StringKey const b(std::string("object-key-test-abc").c_str());
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(&a.value(), &b.value());  // the text is stored once
  EXPECT_EQ(a.value(), "object-key-test-abc");
  EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
  StringKey const other("object-key-test-abd");
  EXPECT_NE(a, other);
  EXPECT_TRUE(a < other || other < a);
  EXPECT_EQ(traced(a), "object-key-test-abc");
}

TEST(StringKey, TheLastKeyTakesItsItemAlong) {
  size_t const before = impl::testing::interned_string_count();
  {
    StringKey const key("object-key-test-transient");
    StringKey const copy = key;
    EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
  }
  EXPECT_EQ(impl::testing::interned_string_count(), before);
  StringKey const rebuilt("object-key-test-transient");
  EXPECT_EQ(rebuilt.value(), "object-key-test-transient");
  EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
}

TEST(StringKey, AShardThatGrowsKeepsEveryItemFindable) {
  // More than 13 shards times 2039 buckets times 4: every shard grows at least once.
  constexpr int kCount = 120000;
  size_t const before = impl::testing::interned_string_count();
  std::vector<StringKey> keys;
  keys.reserve(kCount);
  for (int i = 0; i < kCount; ++i) keys.emplace_back(("grow-" + std::to_string(i)).c_str());
  EXPECT_EQ(impl::testing::interned_string_count(), before + kCount);
  for (int i = 0; i < kCount; ++i) {
    StringKey const again(("grow-" + std::to_string(i)).c_str());
    ASSERT_EQ(again, keys[i]) << i;
    ASSERT_EQ(again.value(), "grow-" + std::to_string(i));
  }
  keys.clear();
  EXPECT_EQ(impl::testing::interned_string_count(), before);
}

struct PointerToken final : impl::ObjectKeyTokenForPointerBase {
  explicit PointerToken(void const* p) : ObjectKeyTokenForPointerBase(p) {}
};

// After the process's last cleanup, interning raises, and a key that outlived the cache still
// reads its text.
TEST(ObjectKeyCache, InterningAfterUnloadRaises) {
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    static StringKey* survivor = new StringKey("object-key-test-survivor");
    ACE_Object_Manager::instance()->at_exit(
        nullptr,
        [](void*, void*) {
          std::string report = "survivor=" + survivor->value() + "\n";
          try {
            StringKey late("object-key-test-late");
            report += "no exception\n";
          } catch (std::runtime_error const& e) {
            report += std::string("raised: ") + e.what() + "\n";
          }
          if (write(STDOUT_FILENO, report.data(), report.size()) < 0) std::_Exit(3);
        },
        nullptr, "object key test");
    std::exit(0);
    return 0;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
  EXPECT_NE(child.output.find("survivor=object-key-test-survivor\n"
                              "raised: tqcore::impl::ObjectKeyCache not constructed or already "
                              "destroyed\n"),
            std::string::npos)
      << child.output;
}

}  // namespace
}  // namespace tqcore
