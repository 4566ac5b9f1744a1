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

TEST(Random, FillTouchesExactlyTheBytesAsked) {
  for (size_t size : {0u, 1u, 3u, 4u, 5u, 2496u, 2497u, 10000u}) {
    std::vector<unsigned char> buffer(size + 8, 0xA5);
    random_fill(buffer.data() + 4, size);
    EXPECT_TRUE(std::all_of(buffer.begin(), buffer.begin() + 4, [](int b) { return b == 0xA5; }));
    EXPECT_TRUE(std::all_of(buffer.end() - 4, buffer.end(), [](int b) { return b == 0xA5; }));
    if (size >= 1000) {
      // Crossing regenerations the bytes still look uniform: 2,496 uniform bytes miss more
      // than 16 of the 256 values with a probability far below 1e-30.
      std::set<unsigned char> const values(buffer.begin() + 4, buffer.end() - 4);
      EXPECT_GE(values.size(), 240u) << size;
    }
  }
}

TEST(Random, ThreeBytesComeFromOneWord) {
  int changed = 0;
  for (int attempt = 0; attempt < 16; ++attempt) {
    unsigned char buffer[4] = {0, 0, 0, 0x5A};
    random_fill(buffer, 3);
    changed += buffer[0] | buffer[1] | buffer[2] ? 1 : 0;
    EXPECT_EQ(buffer[3], 0x5A);
  }
  EXPECT_GT(changed, 12);
}

TEST(Random, DoublesStayBelowOne) {
  double sum = 0;
  constexpr int kDraws = 1000000;
  for (int i = 0; i < kDraws; ++i) {
    double const d = random_double();
    ASSERT_GE(d, 0.0);
    ASSERT_LT(d, 1.0);
    sum += d;
  }
  EXPECT_NEAR(sum / kDraws, 0.5, 0.005);
}

TEST(Random, NarrowFormsHoldThirtyTwoBitValues) {
  bool negative = false;
  for (int i = 0; i < 64; ++i) {
    long const l = random_long();
    EXPECT_GE(l, INT32_MIN);
    EXPECT_LE(l, INT32_MAX);
    negative |= l < 0;
    EXPECT_LE(random_ulong(), UINT32_MAX);
  }
  EXPECT_TRUE(negative);
}

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

TEST(Random, TwoProcessesDiffer) {
  auto run = [] { return tqcore_test::run_program(TQCORE_TOOL, {"uuid", "-n", "2"}); };
  tqcore_test::ChildResult const first = run(), second = run();
  ASSERT_TRUE(first.exited(0) && second.exited(0)) << first.output << second.output;
  EXPECT_EQ(first.output.size(), 74u);
  EXPECT_NE(first.output, second.output);
}

// ---- Uuid: construction and queries ----------------------------------------------------------

Uuid parse(char const* text) { return Uuid::from_string(text); }

TEST(Uuid, NullAndBinaryForms) {
  Uuid const null;
  EXPECT_TRUE(null.is_null());
  EXPECT_EQ(null, parse("00000000-0000-0000-0000-000000000000"));
  Uuid value = parse("01234567-89ab-cdef-0123-456789abcdef");
  EXPECT_FALSE(value.is_null());
  unsigned char bytes[16];
  EXPECT_EQ(value.write_binary(bytes), 16u);
  EXPECT_EQ(value.write_binary(nullptr), 16u);
  EXPECT_EQ(bytes[0], 0x67);  // time low is little-endian
  EXPECT_EQ(bytes[8], 0x01);  // the fourth group is big-endian
  Uuid copy;
  EXPECT_EQ(Uuid::read_binary(bytes, copy), 16u);
  EXPECT_EQ(copy, value);
  EXPECT_EQ(Uuid::read_binary(nullptr, copy), 16u);
  EXPECT_EQ(copy, value);
  win32::Guid const guid = value.as_windows_guid();
  EXPECT_EQ(guid.data1, 0x01234567u);
  EXPECT_EQ(guid.data2, 0x89ABu);
  EXPECT_EQ(guid.data4[0], 0x01);
  EXPECT_EQ(Uuid::from_windows_guid(guid), value);
  value.clear();
  EXPECT_TRUE(value.is_null());
}

TEST(Uuid, RandomSetsVersionAndVariantAndKeepsFlags) {
  std::set<Uuid> seen;
  for (int flags = 0; flags < 256; ++flags) {
    Uuid const uuid = Uuid::create_random(static_cast<unsigned char>(flags));
    EXPECT_EQ(uuid.version(), Uuid::Random);
    EXPECT_EQ(uuid.bytes()[8] & 0xC0, 0x80);
    EXPECT_EQ(uuid.custom_flags(), flags);
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 256u);
  EXPECT_EQ(Uuid::create_random().version(), Uuid::Random);
}

TEST(Uuid, FieldConstructors) {
  Uuid::NodeAddress node;
  for (int i = 0; i < 6; ++i) node.bytes[i] = static_cast<unsigned char>(0xA0 + i);
  Uuid const plain(Uuid::Sequential, 0xFFFF, node, 0xF123456789ABCDEFull);
  EXPECT_EQ(plain.as_string(), "89abcdef-4567-d123-bfff-a0a1a2a3a4a5");
  EXPECT_EQ(plain.sequence(), 0x3FFF);
  Uuid const flagged(Uuid::Random, 1, node, 0x0123456789ABCDEFull, 0x5A);
  EXPECT_EQ(flagged.as_string(), "89abcdef-4567-45a3-8001-a0a1a2a3a4a5");
  Uuid::BinaryData data;
  std::fill(data.data(), data.data() + Uuid::BinaryData::size(), 0xFF);
  Uuid const versioned(data, Uuid::LegacyInteractionId);
  EXPECT_EQ(versioned.as_string(), "ffffffff-ffff-cfff-bfff-ffffffffffff");
  Uuid::NodeAddress read;
  plain.get_node_address(read);
  EXPECT_TRUE(std::equal(read.bytes, read.bytes + 6, node.bytes));
}

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

TEST(Uuid, OrdersAndHash) {
  // Byte order reads time low from its low byte; the text order reads it as a number.
  Uuid const a = parse("00000002-0000-0000-0000-000000000000");
  Uuid const b = parse("00000100-0000-0000-0000-000000000000");
  EXPECT_TRUE(b < a);
  EXPECT_TRUE(Uuid::StringLess()(a, b));
  EXPECT_FALSE(Uuid::StringLess()(a, a));
  EXPECT_TRUE(a > b && a >= b && b <= a && a != b);
  Uuid const x = parse("01234567-89ab-cdef-0123-456789abcdef");
  uint64_t const lo = 0xCDEF89AB01234567ull, hi = 0xEFCDAB8967452301ull;
  EXPECT_EQ(x.hash(), static_cast<size_t>(((lo ^ hi) >> 32) ^ lo ^ hi));
  EXPECT_EQ(std::hash<Uuid>()(x), x.hash());
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

TEST(UuidText, FromStringRaisesWithTheCause) {
  try {
    Uuid::from_string("not a uuid");
    FAIL() << "no exception";
  } catch (ErrorException const& e) {
    EXPECT_EQ(e.error()->code().value(), "error.tqcore.uuid.parse");
    EXPECT_EQ(e.error()->message(), "Failed to parse UUID from string");
    EXPECT_EQ(e.error()->location().function(), "tqcore::Uuid::from_string()");
    ASSERT_TRUE(e.error()->nested());
    EXPECT_EQ(e.error()->nested()->code().value(), "error.errno.EINVAL");
  }
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
