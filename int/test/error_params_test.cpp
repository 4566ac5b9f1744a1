#include <tqcore/error_params.h>

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace tqcore {
namespace {

ErrorParams params_of(std::initializer_list<std::pair<char const*, char const*>> entries) {
  ErrorParams params;
  for (auto const& entry : entries) {
    params.add(entry.first, SourceString::npos, entry.second, SourceString::npos);
  }
  return params;
}

// ---- The map ---------------------------------------------------------------------------------

TEST(ErrorParams, AbsentNamesAreEmptyAndNotFound) {
  ErrorParams params = params_of({{"name", "value"}});
  EXPECT_EQ(params.get_value("other"), "");
  std::string out = "untouched";
  EXPECT_FALSE(params.query_value("other", 5, &out));
  EXPECT_EQ(out, "untouched");
  EXPECT_TRUE(params.query_value("name", 4, &out));
  EXPECT_EQ(out, "value");
  EXPECT_TRUE(params.query_value("name", 4, nullptr));
  EXPECT_EQ(params.count("name"), 1u);
  EXPECT_EQ(params.count("nam"), 0u);
  EXPECT_EQ(params.find("namex", 4), params.begin());  // an explicit length cuts the name
}

TEST(ErrorParams, OrderingWalksKeysThenValues) {
  EXPECT_EQ(params_of({}).compare(params_of({})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"b", "0"}})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"a", "2"}})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"a", "1"}, {"b", "1"}})), 0);
  EXPECT_GT(params_of({{"b", "1"}}).compare(params_of({{"a", "1"}, {"c", "1"}})), 0);
  EXPECT_TRUE(params_of({{"a", "1"}}) < params_of({{"a", "2"}}));
  EXPECT_TRUE(params_of({{"a", "1"}}) != params_of({{"a", "1"}, {"b", "1"}}));
}

// ---- Expansion -------------------------------------------------------------------------------

struct ExpansionCase {
  char const* message;
  size_t limit;
  char const* expected;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(ExpansionCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.message);
}

class Expansion : public ::testing::TestWithParam<ExpansionCase> {
 protected:
  ErrorParams params = params_of({{"name", "value"},
                                  {"", "empty-key"},
                                  {"ten", "0123456789"},
                                  {"utf8", "ab\xC3\xA9z"},
                                  {"brace", "{@name}"}});
};

TEST_P(Expansion, ReplacesKnownPlaceholders) {
  ExpansionCase const& c = GetParam();
  SourceString message(c.message, true);
  EXPECT_EQ(params.expanded_message_with_limit(message, c.limit).as_string(), c.expected);
  EXPECT_EQ(
      params.expanded_message_with_limit(c.message, std::strlen(c.message), c.limit).as_string(),
      c.expected);
}

constexpr size_t kNone = SourceString::npos;

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, Expansion,
    ::testing::Values(
        ExpansionCase{"plain text", kNone, "plain text"},
        ExpansionCase{"a {@name} b", kNone, "a value b"},
        ExpansionCase{"{@name}{@name}", kNone, "valuevalue"},
        ExpansionCase{"a {@unknown} b", kNone, "a {@unknown} b"},
        ExpansionCase{"open {@name", kNone, "open {@name"},
        ExpansionCase{"end {@", kNone, "end {@"},
        ExpansionCase{"{@}", kNone, "empty-key"},
        ExpansionCase{"{@{@name}", kNone, "{@{@name}"},
        // the name is "{@name"
        ExpansionCase{"{@brace}", kNone, "{@name}"},
        // values are not scanned again
        ExpansionCase{"{@name} then {@ open", kNone, "value then {@ open"},
        ExpansionCase{"{@ten}", 4, "0123..."},
        ExpansionCase{"{@ten}", 10, "0123456789"},
        // exactly the limit: not cut
        ExpansionCase{"{@ten}", 0, "..."},
        ExpansionCase{"{@utf8}", 3, "ab..."},
        // byte 3 continues the character at 2
        ExpansionCase{"{@utf8}", 4, "ab\xC3\xA9..."},
        ExpansionCase{"long message text {@ten}", 2, "long message text 01..."}));
// clang-format on

TEST(ExpansionWithoutPlaceholder, SourceStringFormReturnsTheArgumentItself) {
  static char const literal[] = "nothing to expand";
  ErrorParams params;
  SourceString reference(literal, true);
  EXPECT_EQ(params.expanded_message(reference).data(), literal);
  SourceString dynamic("dynamic");
  EXPECT_EQ(params.expanded_message(dynamic).data(), dynamic.data());
  SourceString single("{", true);
  EXPECT_EQ(params.expanded_message(single).data(), single.data());
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {}  // namespace
}  // namespace tqcore
