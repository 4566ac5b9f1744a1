// A user's own test with tqcore's matchers: error records and results read as expectations.
#include <tqcore/error_info.h>
#include <tqcore/result.h>
#include <tqcore/testing/matchers.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace tqcore::testing;

// The code under test: shape 1, a null record on success.
tqcore::ErrorInfo::Ptr parse_port(std::string const& text, int* port) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    tqcore::ErrorParams params;
    params.add(tqcore::SourceString::create_reference("text"), text);
    return tqcore::ErrorInfo::create(tqcore::ErrorCode("error.example.config.badPort"),
                                     "Not a port number: '{@text}'.", std::move(params),
                                     TQCORE_HERE);
  }
  *port = std::stoi(text);
  return nullptr;
}

TEST(ParsePort, AcceptsDigitsOnly) {
  int port = 0;
  EXPECT_THAT(parse_port("8080", &port), IsSuccess());
  EXPECT_EQ(port, 8080);
  tqcore::ErrorInfo::Ptr const error = parse_port("80x0", &port);
  EXPECT_THAT(error, HasCode("error.example.config"));
  EXPECT_THAT(error, HasParam("text", "80x0"));
  EXPECT_THAT(error, HasMessage("Not a port number: '80x0'."));
}

TEST(ParsePort, ResultsCarryValuesAndErrors) {
  EXPECT_THAT(tqcore::Result<int>::from_value(8080), IsReadyWithValue(::testing::Gt(1023)));
  int port = 0;
  EXPECT_THAT(tqcore::Result<int>::from_error(parse_port("", &port)),
              IsReadyWithError("error.example.config.badPort"));
}

}  // namespace
