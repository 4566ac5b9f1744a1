#include <tqcore/source_string.h>

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqcore {
namespace {

// ---- Representations -------------------------------------------------------------------------

TEST(SourceString, CopiesOwnTheirTextAndShareTheBlock) {
  std::string source = "dynamic text";
  SourceString a(source.c_str());
  source.assign(source.size(), 'x');
  EXPECT_EQ(a.as_string(), "dynamic text");
  EXPECT_FALSE(a.is_reference());
  SourceString b(a);
  EXPECT_EQ(b.data(), a.data());
  EXPECT_FALSE(b.is_reference());
  a.clear();
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(b.as_string(), "dynamic text");
  EXPECT_EQ(b.data()[b.size()], '\0');
}

TEST(SourceString, ExcessiveLengthThrowsBeforeAnythingChanges) {
  SourceString target("keep");
  auto const huge = static_cast<size_t>(1) << 63;
  try {
    target.assign("x", huge);
    FAIL();
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "tqcore::SourceString : excessive string length");
  }
  EXPECT_THROW(target.assign("x", huge, true), std::runtime_error);
  EXPECT_THROW(SourceString("x", SourceString::npos), std::runtime_error);
  EXPECT_EQ(target.as_string(), "keep");
}

// ---- Comparison ------------------------------------------------------------------------------

struct CompareCase {
  char const* a;
  char const* b;
  int sign;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(CompareCase const& row, std::ostream* out) { *out << ::testing::PrintToString(row.a); }

class SourceStringCompare : public ::testing::TestWithParam<CompareCase> {};

TEST_P(SourceStringCompare, OrdersAsUnsignedBytesThenByLength) {
  CompareCase const& c = GetParam();
  SourceString a(c.a);
  SourceString b(c.b);
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  EXPECT_EQ(sign(a.compare(b)), c.sign);
  EXPECT_EQ(sign(a.compare(c.b)), c.sign);
  EXPECT_EQ(a == b, c.sign == 0);
  EXPECT_EQ(a < b, c.sign < 0);
  EXPECT_EQ(a >= c.b, c.sign >= 0);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, SourceStringCompare,
                         ::testing::Values(
        CompareCase{"abc", "abc", 0},
        CompareCase{"abc", "abd", -1},
        CompareCase{"ab", "abc", -1},
        CompareCase{"abc", "ab", 1},
        CompareCase{"\xC3\xA9", "z", 1},
        // unsigned bytes
        CompareCase{"", "a", -1}));
// clang-format on

// ---- Stream output and trace handlers --------------------------------------------------------

std::vector<std::string> g_handledTexts;

bool supported(std::ostream&) { return true; }
void write_data(std::ostream& stream, StringTraceData::Ptr const& data) {
  stream << "<data:" << data->trace_text().second << '>';
}
void write_string(std::ostream& stream, SourceString const& text) {
  g_handledTexts.push_back(text.as_string());
  stream << "<ref>";
}

class StringTraceHandlers : public ::testing::Test {
 protected:
  void SetUp() override {
    g_handledTexts.clear();
    set_string_trace_handlers(supported, write_data, write_string);
  }
  void TearDown() override { set_string_trace_handlers(nullptr, nullptr, nullptr); }
};

TEST_F(StringTraceHandlers, OnlyTextsOfEightOrMoreGoToTheHandler) {
  std::ostringstream out;
  out << SourceString("1234567", true) << '|' << SourceString("12345678", true);
  EXPECT_EQ(out.str(), "1234567|<ref>");
  ASSERT_EQ(g_handledTexts.size(), 1u);
  EXPECT_EQ(g_handledTexts[0], "12345678");
}

TEST(StringTraceData, CopyFromTraceDataKeepsItsSource) {
  SourceString original("traced text");
  StringTraceData::Ptr data = original.query_trace_data();
  ASSERT_FALSE(data.is_null());
  data->set_trace_file_offset(0, 3, 99);
  SourceString copy(data);
  EXPECT_EQ(copy.as_string(), "traced text");
  EXPECT_NE(copy.data(), original.data());
  StringTraceData::Ptr copy_data = copy.query_trace_data();
  EXPECT_EQ(copy_data.get(), data.get());  // the copy refers back to the text it came from
  EXPECT_EQ(copy_data->query_trace_file_offset(0, 3), 99u);
}

TEST(StringTraceData, RecordsMoveFromInlineToArray) {
  SourceString text("trace state");
  StringTraceData const& data = *text.query_trace_data();
  EXPECT_EQ(data.query_trace_file_offset(0, 7), 0u);
  data.set_trace_file_offset(0, 7, 100);
  EXPECT_EQ(data.query_trace_file_offset(0, 7), 100u);
  EXPECT_EQ(data.query_trace_file_offset(0, 8), 0u);  // another file
  EXPECT_EQ(data.query_trace_file_offset(1, 7), 0u);  // inline answers only sink 0
  data.set_trace_file_offset(1, 8, 200);
  EXPECT_EQ(data.query_trace_file_offset(0, 7), 100u);  // kept, now in the array
  EXPECT_EQ(data.query_trace_file_offset(1, 8), 200u);
  data.set_trace_file_offset(4, 9, 300);  // ignored
  EXPECT_EQ(data.query_trace_file_offset(4, 9), 0u);
  data.set_trace_file_offset(0, 5, 50);
  EXPECT_EQ(data.query_trace_file_offset(0, 5), 50u);
}

TEST(StringTraceData, InlineRecordLosesTheTopBitOfItsFileId) {
  SourceString text("trace state");
  StringTraceData const& data = *text.query_trace_data();
  data.set_trace_file_offset(0, 0x80000001u, 5);
  EXPECT_EQ(data.query_trace_file_offset(0, 0x80000001u), 0u);
  EXPECT_EQ(data.query_trace_file_offset(0, 1), 5u);
}

// ---- SourceLocation --------------------------------------------------------------------------

struct FileIdCase {
  char const* id;
  char const* depot_path;
  char const* file_path;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(FileIdCase const& row, std::ostream* out) { *out << ::testing::PrintToString(row.id); }

class FileIdPaths : public ::testing::TestWithParam<FileIdCase> {};

TEST_P(FileIdPaths, CutTheKeywordFrame) {
  FileIdCase const& c = GetParam();
  EXPECT_EQ(SourceLocation::depot_path_from_file_id(c.id, SourceString::npos), c.depot_path);
  EXPECT_EQ(SourceLocation::file_path_from_file_id(c.id, SourceString::npos), c.file_path);
  SourceLocation location("f()", c.id, 1);
  EXPECT_EQ(location.file_depot_path(), c.depot_path);
  EXPECT_EQ(location.file_path(), c.file_path);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, FileIdPaths,
    ::testing::Values(
        FileIdCase{"$Id: //depot/a/b.cpp#12 $", "//depot/a/b.cpp#12", "//depot/a/b.cpp"},
        FileIdCase{"$Id: //depot/a/b.cpp#3 $$  ", "//depot/a/b.cpp#3", "//depot/a/b.cpp"},
        FileIdCase{"plain.cpp", "plain.cpp", "plain.cpp"},
        FileIdCase{"$Id: x.cpp#2 $", "$Id: x.cpp#2", "$Id: x.cpp"},
        FileIdCase{"  $$", "  $$", "  $$"},
        // nothing but the frame: the whole text
        FileIdCase{"#1 /late/slash $", "/late/slash", "#1 /late/slash $"},
        FileIdCase{"", "", ""}));
// clang-format on

TEST(SourceLocation, LineOutranksTheNames) {
  SourceLocation a("z()", "z", 1);
  SourceLocation b("a()", "a", 2);
  SourceLocation c("a()", "b", 2);
  EXPECT_LT(a.compare(b), 0);
  EXPECT_LT(b.compare(c), 0);
  EXPECT_TRUE(a < b && b < c && c > a && a <= a && c >= b);
  EXPECT_TRUE(b != c);
  EXPECT_TRUE(SourceLocation("a()", "b", 2) == c);
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {}  // namespace
}  // namespace tqcore
