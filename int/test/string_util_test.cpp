#include <tqcore/error_exception.h>
#include <tqcore/safe_cast.h>
#include <tqcore/string_util.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>

#include "test_support.h"

namespace tqcore {
namespace {

constexpr size_t kNpos = StringRange::npos;

template <class F>
std::string cast_failure(F&& cast) {
  ErrorInfo::Ptr const error = tqcore_test::raised_by(cast);
  return error ? error->code().value().as_string() + " " + error->expanded_message().as_string()
               : "no failure";
}

TEST(SafeCast, RefusesEveryLossWithItsOwnCode) {
  EXPECT_EQ(cast_failure([] { safe_cast<unsigned>(-5); }),
            "error.tqcore.cast.negativeToUnsigned Attempt to cast negative value into unsigned "
            "type.  SrcValue: -5, DestType: unsigned int");
  EXPECT_EQ(cast_failure([] { safe_cast<uint8_t>(300); }),
            "error.tqcore.cast.valueTooBig Source value of cast does not fit into destination "
            "type.  SrcValue: 300, DestType: unsigned char");
  EXPECT_EQ(cast_failure([] { safe_cast<int8_t>(-200); }).substr(0, 29),
            "error.tqcore.cast.valueTooBig");
  EXPECT_EQ(cast_failure([] { safe_cast<int32_t>(0x80000000u); }).substr(0, 42),
            "error.tqcore.cast.valueTooBig.signReversal");
  EXPECT_EQ(cast_failure([] { safe_cast<int16_t>(0x10000u); }).substr(0, 30),
            "error.tqcore.cast.valueTooBig ");  // too wide, not a sign reversal
  EXPECT_EQ(cast_failure([] { safe_cast<uint16_t>(70000u); }).substr(0, 30),
            "error.tqcore.cast.valueTooBig ");
}

struct Base {
  virtual ~Base() = default;
};
struct Derived : Base {};
struct Other : Base {};

// The word-at-a-time comparison against the rules applied one byte at a time.
TEST(NocaseAscii, AgreesWithTheBytewiseRuleOnGeneratedTexts) {
  std::mt19937 random(7);
  char const alphabet[] = "aAzZ@[`{09 \x80\xC4\xE4\xFF";
  auto fold = [](char c) { return static_cast<signed char>(c >= 'A' && c <= 'Z' ? c + 32 : c); };
  for (int round = 0; round < 20000; ++round) {
    std::string a(random() % 80, ' ');
    for (char& c : a) c = alphabet[random() % (sizeof(alphabet) - 1)];
    std::string b = a;
    if (!b.empty() && random() % 3 != 0) b[random() % b.size()] = alphabet[random() % 15];
    if (random() % 4 == 0) b.resize(random() % 80, 'q');
    int expected = static_cast<int>(a.size() - b.size());
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
      if (fold(a[i]) != fold(b[i])) {
        expected = fold(a[i]) - fold(b[i]);
        break;
      }
    }
    ASSERT_EQ(compare_nocase_ascii(a.data(), a.size(), b.data(), b.size()), expected)
        << a << "|" << b;
    ASSERT_EQ(string_equal_nocase_ascii(a.data(), a.size(), b.data(), b.size()), expected == 0);
  }
}

struct RangeCase {
  StringRange range;
  char op;  // 's' subrange, 'i' intersection, 'k' shrink
  size_t a;
  size_t b;
  StringRange expected;
};

// Rows show by their operation and operands in test names and failure messages.
void PrintTo(RangeCase const& row, std::ostream* out) {
  *out << row.op << '(' << row.range.first() << ',' << row.range.length() << ")," << row.a << ','
       << row.b;
}

class StringRangeArithmetic : public ::testing::TestWithParam<RangeCase> {};

TEST_P(StringRangeArithmetic, Saturates) {
  RangeCase c = GetParam();
  StringRange result = c.op == 's'   ? c.range.subrange(c.a, c.b)
                       : c.op == 'i' ? c.range.intersection(c.a, c.b)
                                     : c.range.shrink(c.a, c.b);
  EXPECT_EQ(result, c.expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, StringRangeArithmetic,
    ::testing::Values(
        RangeCase{{2, 3}, 's', 1, 100, {3, 2}},
        RangeCase{{2, 3}, 's', 100, 1, {5, 0}},
        RangeCase{{kNpos, 3}, 's', 0, 1, {kNpos, 0}},
        RangeCase{{2, kNpos}, 's', 3, 4, {5, 4}},
        RangeCase{{2, kNpos}, 's', kNpos, 4, {kNpos, 0}},
        RangeCase{{0, 5}, 'i', 3, 10, {3, 2}},
        RangeCase{{0, 2}, 'i', 3, 1, {0, 0}},
        RangeCase{{0, kNpos}, 'i', 3, kNpos, {3, kNpos}},
        RangeCase{{kNpos, 1}, 'i', 0, 1, {0, 0}},
        RangeCase{{2, 10}, 'k', 3, 7, {0, 0}},
        RangeCase{{2, 10}, 'k', 3, 6, {5, 1}},
        RangeCase{{2, kNpos}, 'k', 3, 9, {5, kNpos}},
        RangeCase{{2, 10}, 'k', kNpos, 0, {0, 0}}));
// clang-format on

}  // namespace
}  // namespace tqcore
