#include <tqcore/error_code.h>

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqcore {
namespace {

// ---- matches ---------------------------------------------------------------------------------

struct MatchCase {
  char const* code;
  char const* pattern;
  bool expected;
};

class ErrorCodeMatches : public ::testing::TestWithParam<MatchCase> {};

TEST_P(ErrorCodeMatches, IsAPrefixAtASegmentBoundary) {
  MatchCase const& c = GetParam();
  ErrorCode code(c.code);
  EXPECT_EQ(code.matches(c.pattern), c.expected);
  if (c.pattern != nullptr) {
    EXPECT_EQ(code.matches(ErrorCode(c.pattern)), c.expected);
    EXPECT_EQ(code.matches(c.pattern, std::string(c.pattern).size()), c.expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ErrorCodeMatches,
    ::testing::Values(
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string.utf8", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string.utf8.invalid", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.str", false},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string.", false},
        MatchCase{"error.tqcore.string.utf8.invalid", "tqcore", false},
        MatchCase{"error.tqcore", "error.tqcore.string", false},
        MatchCase{"error.tqcore", "Error.tqcore", false},  // case counts
        MatchCase{"error.tqcore", "error.tqcorf", false}, MatchCase{"error.tqcore", ".", true},
        MatchCase{"error.tqcore", "", true}, MatchCase{"error.tqcore", nullptr, true},
        MatchCase{"", "", true}, MatchCase{"", nullptr, true}, MatchCase{"", ".", false},
        MatchCase{"", "error", false}));

TEST(ErrorCode, EmptyCodeMatchesOnlyEmptyPatterns) {
  ErrorCode empty;
  EXPECT_TRUE(empty.matches(ErrorCode()));
  EXPECT_TRUE(empty.matches(nullptr, ErrorCode::npos));
  EXPECT_FALSE(empty.matches("."));
}

TEST(ErrorCode, ConstantsMatchThroughTheirPrefixes) {
  EXPECT_TRUE(error::tqcore_string_utf8.matches("."));
  EXPECT_TRUE(error::tqcore_string_utf8.matches("error.tqcore.string.utf8"));
  char const* pattern = "error.tqcore.string.utf8";
  EXPECT_FALSE(error::tqcore_string_utf8.matches(pattern, 10));  // "error.tqco"
  EXPECT_TRUE(error::tqcore_string_utf8_invalid.matches(error::tqcore_string_utf8));
  EXPECT_FALSE(error::tqcore_string_utf8.matches(error::tqcore_string_utf8_invalid));
}

TEST(ErrorCode, CodesOnOneLiteralAreEqualWithoutMeasuring) {
  static char const literal[] = "error.example";
  ErrorCode a(literal, true);
  ErrorCode b(literal, true);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a.empty());  // still unmeasured: a measured empty code would say true
}

// ---- append_segment and assignment -----------------------------------------------------------

TEST(ErrorCode, AppendSegmentAlwaysMakesADynamicCopy) {
  ErrorCode code(error::tqcore_string);
  code.append_segment("custom");
  EXPECT_EQ(code, "error.tqcore.string.custom");
  EXPECT_FALSE(code.value().is_reference());
  EXPECT_EQ(error::tqcore_string, "error.tqcore.string");  // the constant is untouched

  ErrorCode empty;
  empty.append_segment("alone");
  EXPECT_EQ(empty, "alone");
  empty.append_segment(nullptr);
  EXPECT_EQ(empty, "alone");
  empty.append_segment("x.y", 1);
  EXPECT_EQ(empty, "alone.x");
  empty.append_segment("");
  EXPECT_EQ(empty, "alone.x.");
}

TEST(ErrorCode, NegativeLengthOnEmptyCodeThrows) {
  ErrorCode empty;
  EXPECT_THROW(empty.append_segment("x", static_cast<size_t>(-2)), std::runtime_error);
  EXPECT_TRUE(empty.empty());
}

TEST(ErrorCode, CopiesAndMoves) {
  ErrorCode a("error.one");
  ErrorCode b(a);
  EXPECT_EQ(a.value().data(), b.value().data());  // the block is shared
  ErrorCode c(b.transfer());
  EXPECT_TRUE(b.empty());
  EXPECT_EQ(c, a);
  c.assign("error.two", size_t{5});
  EXPECT_EQ(c, "error");
  c.assign(a);
  EXPECT_EQ(c.compare(a), 0);
  c.clear();
  EXPECT_TRUE(c.empty());
  EXPECT_TRUE(c < a);
}

// ---- The catalogue ---------------------------------------------------------------------------

// The standard exception classes keep their own names in codes; the constants spell them in
// camel case. Every other segment is the constant's segment as it stands.
std::string code_segment(std::string const& segment) {
  static std::map<std::string, std::string> const exception_names = {
      {"badAlloc", "bad_alloc"},
      {"badCast", "bad_cast"},
      {"badLexicalCast", "bad_lexical_cast"},
      {"logicError", "logic_error"},
      {"domainError", "domain_error"},
      {"invalidArgument", "invalid_argument"},
      {"lengthError", "length_error"},
      {"outOfRange", "out_of_range"},
      {"runtimeError", "runtime_error"},
      {"rangeError", "range_error"},
      {"overflowError", "overflow_error"},
      {"underflowError", "underflow_error"}};
  auto found = exception_names.find(segment);
  return found == exception_names.end() ? segment : found->second;
}

// The code a constant's name stands for: "error." and its segments joined by '.'. The errno
// family keeps each name whole, since errno names hold no underscores.
std::string expected_code(std::string name) {
  if (name == "errno_") return "error.errno";
  if (name.rfind("errno_", 0) == 0) return "error.errno." + name.substr(6);
  std::string code = "error";
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('_', start);
    if (end == std::string::npos) end = name.size();
    code += "." + code_segment(name.substr(start, end - start));
    start = end + 1;
  }
  return code;
}

struct CatalogueEntry {
  char const* name;
  ErrorCode const* code;
};

#define ENTRY(name) \
  CatalogueEntry { #name, &error::name }

std::vector<CatalogueEntry> const& catalogue() {
  static std::vector<CatalogueEntry> const entries = {ENTRY(tqcore),
                                                      ENTRY(tqcore_string),
                                                      ENTRY(tqcore_string_embeddedNul),
                                                      ENTRY(tqcore_string_utf8),
                                                      ENTRY(tqcore_string_utf8_invalid),
                                                      ENTRY(tqcore_string_utf8_overlong),
                                                      ENTRY(tqcore_string_utf8_partial),
                                                      ENTRY(tqcore_string_conversion),
                                                      ENTRY(tqcore_string_extraction),
                                                      ENTRY(tqcore_uuid),
                                                      ENTRY(tqcore_uuid_parse),
                                                      ENTRY(tqcore_processPrivileges_osError),
                                                      ENTRY(tqcore_hardware),
                                                      ENTRY(tqcore_hardware_timeError),
                                                      ENTRY(tqcore_hardware_priorityClass),
                                                      ENTRY(tqcore_hardware_threadPriority),
                                                      ENTRY(tqcore_hardware_threadAffinity),
                                                      ENTRY(tqcore_hardware_invalidCpuId),
                                                      ENTRY(tqcore_cast),
                                                      ENTRY(tqcore_cast_negativeToUnsigned),
                                                      ENTRY(tqcore_cast_valueTooBig),
                                                      ENTRY(tqcore_cast_valueTooBig_signReversal),
                                                      ENTRY(tqcore_future),
                                                      ENTRY(tqcore_future_nullError),
                                                      ENTRY(tqcore_objectManager),
                                                      ENTRY(tqcore_objectManager_closed),
                                                      ENTRY(tqcore_transforms),
                                                      ENTRY(tqcore_transforms_base64),
                                                      ENTRY(tqcore_transforms_base64_invalid),
                                                      ENTRY(tqcore_transforms_base64_truncated),
                                                      ENTRY(tqcore_transforms_base64_padding),
                                                      ENTRY(tqcore_transforms_base32),
                                                      ENTRY(tqcore_transforms_base32_invalid),
                                                      ENTRY(tqcore_transforms_base32_truncated),
                                                      ENTRY(tqcore_transforms_base32_padding),
                                                      ENTRY(tqcore_transforms_hex),
                                                      ENTRY(tqcore_transforms_hex_invalid),
                                                      ENTRY(tqcore_transforms_hex_truncated),
                                                      ENTRY(tqcore_absoluteTime),
                                                      ENTRY(tqcore_absoluteTime_range),
                                                      ENTRY(tqcore_absoluteTime_invalidUtcString),
                                                      ENTRY(tqcore_relativeTime),
                                                      ENTRY(tqcore_relativeTime_invalidTimeString),
                                                      ENTRY(tqcore_simpleDateTime),
                                                      ENTRY(tqcore_simpleDateTime_invalidString),
                                                      ENTRY(tqcore_simpleDateTime_timezoneOffset),
                                                      ENTRY(tqcore_result),
                                                      ENTRY(tqcore_result_notWaitable),
                                                      ENTRY(tqcore_result_badParameter),
                                                      ENTRY(tqcore_result_notSignaled),
                                                      ENTRY(tqcore_result_redundantSignal),
                                                      ENTRY(tqcore_result_invalidAsyncSignalScope),
                                                      ENTRY(tqcore_result_wrongThread),
                                                      ENTRY(tqcore_result_cancelled),
                                                      ENTRY(tqcore_result_cancelled_innerOperation),
                                                      ENTRY(tqcore_result_invalidAsynchrony),
                                                      ENTRY(tqcore_task),
                                                      ENTRY(tqcore_task_notExecuted),
                                                      ENTRY(tqcore_task_redundantExecution),
                                                      ENTRY(tqcore_task_timeLimitExpired),
                                                      ENTRY(exception),
                                                      ENTRY(exception_badAlloc),
                                                      ENTRY(exception_badCast),
                                                      ENTRY(exception_badCast_badLexicalCast),
                                                      ENTRY(exception_logicError),
                                                      ENTRY(exception_logicError_domainError),
                                                      ENTRY(exception_logicError_invalidArgument),
                                                      ENTRY(exception_logicError_lengthError),
                                                      ENTRY(exception_logicError_outOfRange),
                                                      ENTRY(exception_runtimeError),
                                                      ENTRY(exception_runtimeError_rangeError),
                                                      ENTRY(exception_runtimeError_overflowError),
                                                      ENTRY(exception_runtimeError_underflowError),
                                                      ENTRY(exception_weakRefPromoteException),
                                                      ENTRY(exception_unknown),
                                                      ENTRY(exception_fault),
                                                      ENTRY(exception_fault_accessViolation),
                                                      ENTRY(exception_fault_cppException),
                                                      ENTRY(exception_assert),
                                                      ENTRY(errno_),
                                                      ENTRY(errno_EPERM),
                                                      ENTRY(errno_ENOENT),
                                                      ENTRY(errno_ESRCH),
                                                      ENTRY(errno_EINTR),
                                                      ENTRY(errno_EIO),
                                                      ENTRY(errno_ENXIO),
                                                      ENTRY(errno_E2BIG),
                                                      ENTRY(errno_ENOEXEC),
                                                      ENTRY(errno_EBADF),
                                                      ENTRY(errno_ECHILD),
                                                      ENTRY(errno_EAGAIN),
                                                      ENTRY(errno_ENOMEM),
                                                      ENTRY(errno_EACCES),
                                                      ENTRY(errno_EFAULT),
                                                      ENTRY(errno_EBUSY),
                                                      ENTRY(errno_EEXIST),
                                                      ENTRY(errno_EXDEV),
                                                      ENTRY(errno_ENODEV),
                                                      ENTRY(errno_ENOTDIR),
                                                      ENTRY(errno_EISDIR),
                                                      ENTRY(errno_EINVAL),
                                                      ENTRY(errno_ENFILE),
                                                      ENTRY(errno_EMFILE),
                                                      ENTRY(errno_ENOTTY),
                                                      ENTRY(errno_EFBIG),
                                                      ENTRY(errno_ENOSPC),
                                                      ENTRY(errno_ESPIPE),
                                                      ENTRY(errno_EROFS),
                                                      ENTRY(errno_EMLINK),
                                                      ENTRY(errno_EPIPE),
                                                      ENTRY(errno_EDOM),
                                                      ENTRY(errno_ERANGE),
                                                      ENTRY(errno_EDEADLK),
                                                      ENTRY(errno_ENAMETOOLONG),
                                                      ENTRY(errno_ENOLCK),
                                                      ENTRY(errno_ENOSYS),
                                                      ENTRY(errno_ENOTEMPTY),
                                                      ENTRY(errno_EILSEQ),
                                                      ENTRY(errno_ETIME),
                                                      ENTRY(errno_EINPROGRESS),
                                                      ENTRY(errno_EALREADY),
                                                      ENTRY(errno_ENOTSOCK),
                                                      ENTRY(errno_EDESTADDRREQ),
                                                      ENTRY(errno_EMSGSIZE),
                                                      ENTRY(errno_EPROTOTYPE),
                                                      ENTRY(errno_ENOPROTOOPT),
                                                      ENTRY(errno_EPROTONOSUPPORT),
                                                      ENTRY(errno_ESOCKTNOSUPPORT),
                                                      ENTRY(errno_EOPNOTSUPP),
                                                      ENTRY(errno_EPFNOSUPPORT),
                                                      ENTRY(errno_EAFNOSUPPORT),
                                                      ENTRY(errno_EADDRINUSE),
                                                      ENTRY(errno_EADDRNOTAVAIL),
                                                      ENTRY(errno_ENETDOWN),
                                                      ENTRY(errno_ENETUNREACH),
                                                      ENTRY(errno_ENETRESET),
                                                      ENTRY(errno_ECONNABORTED),
                                                      ENTRY(errno_ECONNRESET),
                                                      ENTRY(errno_ENOBUFS),
                                                      ENTRY(errno_EISCONN),
                                                      ENTRY(errno_ENOTCONN),
                                                      ENTRY(errno_ESHUTDOWN),
                                                      ENTRY(errno_ETOOMANYREFS),
                                                      ENTRY(errno_ETIMEDOUT),
                                                      ENTRY(errno_ECONNREFUSED),
                                                      ENTRY(errno_ELOOP),
                                                      ENTRY(errno_EHOSTDOWN),
                                                      ENTRY(errno_EHOSTUNREACH),
                                                      ENTRY(errno_EUSERS),
                                                      ENTRY(errno_EDQUOT),
                                                      ENTRY(errno_ESTALE),
                                                      ENTRY(errno_EREMOTE),
                                                      ENTRY(errno_EPROCLIM),
                                                      ENTRY(errno_ENOTBLK),
                                                      ENTRY(errno_ETXTBSY),
                                                      ENTRY(errno_EUCLEAN),
                                                      ENTRY(os),
                                                      ENTRY(os_windows)};
  return entries;
}

#undef ENTRY

TEST(ErrorCatalogue, HasAllConstantsEachAnUnmeasuredReference) {
  ASSERT_EQ(catalogue().size(), 158u);
  std::set<std::string> texts;
  for (CatalogueEntry const& entry : catalogue()) {
    SCOPED_TRACE(entry.name);
    EXPECT_TRUE(entry.code->value().is_reference());
    texts.insert(entry.code->value().as_string());
  }
  EXPECT_EQ(texts.size(), 158u);
}

TEST(ErrorCatalogue, EachTextFollowsFromItsName) {
  for (CatalogueEntry const& entry : catalogue()) {
    EXPECT_EQ(entry.code->value().as_string(), expected_code(entry.name)) << entry.name;
  }
}

}  // namespace
}  // namespace tqcore
