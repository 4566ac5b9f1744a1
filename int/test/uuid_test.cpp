// Uuid and the random generator behind it.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_exception.h>
#include <tqcore/random.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "testing_seams.h"

namespace tqcore {
namespace {

// ---- Random numbers --------------------------------------------------------------------------

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

// ---- Uuid: construction and queries ----------------------------------------------------------

Uuid parse(char const* text) { return Uuid::from_string(text); }

TEST(Uuid, LegacyInteractionIds) {
  for (unsigned int id : {0u, 5u, 1234567890u, 4294967295u}) {
    Uuid const uuid = Uuid::create_legacy_interaction_id(id, 0x7E);
    EXPECT_EQ(uuid.version(), Uuid::LegacyInteractionId);
    EXPECT_EQ(uuid.legacy_interaction_id(), id);
    EXPECT_EQ(uuid.legacy_interaction_id_flags(), 0x7E);
    EXPECT_FALSE(uuid.is_unresolved_legacy_interaction_id());
  }
  EXPECT_EQ(parse("00000000-0000-c000-8000-004294967295").legacy_interaction_id(), 4294967295u);
  // Ten nines do not fit 32 bits: the value wraps as computed.
  EXPECT_EQ(parse("00000000-0000-c000-8000-009999999999").legacy_interaction_id(),
            static_cast<unsigned int>(9999999999ull));
  Uuid const unresolved = Uuid::create_unresolved_legacy_interaction_id(5);
  EXPECT_TRUE(unresolved.is_unresolved_legacy_interaction_id());
  EXPECT_EQ(unresolved.as_string(), "00000000-0000-c000-8000-000000000005");
  EXPECT_EQ(Uuid::create_random().legacy_interaction_id(), 0u);
  EXPECT_EQ(Uuid::create_random().legacy_interaction_id_flags(), 0);
}

// ---- Uuid: text ------------------------------------------------------------------------------

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

// ---- Uuid: sequential ------------------------------------------------------------------------

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

TEST(UuidSequential, AMillionInATightLoopStrictlyIncrease) {
  Uuid previous = Uuid::create_sequential();
  for (int i = 0; i < 1000000; ++i) {
    Uuid const next = Uuid::create_sequential();
    ASSERT_LT(previous, next) << i;
    previous = next;
  }
}

TEST(UuidSequential, AClockGoingBackStartsANewSequence) {
  int64_t const now = (AbsoluteTime::now().as_nsec() & ~int64_t{0xFF}) + (int64_t{1} << 22);
  Uuid const ahead = impl::testing::create_sequential_at(now);
  Uuid const back = impl::testing::create_sequential_at(now - 256);
  EXPECT_EQ(counter_of(back), 1);
  EXPECT_NE(std::string(reinterpret_cast<char const*>(ahead.bytes()) + 10, 4),
            std::string(reinterpret_cast<char const*>(back.bytes()) + 10, 4));
}

}  // namespace
}  // namespace tqcore
