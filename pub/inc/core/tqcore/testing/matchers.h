/// @file
/// GoogleMock matchers for users' own tests of code built on tqcore: error records (as
/// `ErrorInfo::Ptr`, `ErrorInfo const&` or a caught `ErrorException`), and the state of a
/// `Result<T>` or `Future<T>`. A failing match prints the record's whole report.
///
/// Failures: none; the matchers read what they are given and never wait on a result.
///
/// @code
/// EXPECT_THAT(parse_port("x", &port), tqcore::testing::HasCode("error.example.config"));
/// EXPECT_THAT(error, tqcore::testing::HasParam("text", "x"));
/// EXPECT_THAT(save(), tqcore::testing::IsSuccess());
/// EXPECT_THAT(result, tqcore::testing::IsReadyWithValue(42));
/// EXPECT_THAT(future, tqcore::testing::IsReadyWithError("error.tqcore.result.cancelled"));
/// @endcode
#pragma once

#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>
#include <tqcore/future.h>
#include <tqcore/result.h>

#include <gmock/gmock.h>

#include <sstream>
#include <string>

namespace tqcore {
namespace testing {
namespace impl {

inline ErrorInfo const* record_of(ErrorInfo::Ptr const& error) noexcept { return error.get(); }
inline ErrorInfo const* record_of(ErrorInfo const& error) noexcept { return &error; }
inline ErrorInfo const* record_of(ErrorException const& exception) noexcept {
  return exception.error().get();
}

/// Explains a mismatch with the record's report, or says there is no record.
inline void explain(ErrorInfo const* error, ::testing::MatchResultListener* listener) {
  if (error == nullptr) {
    *listener << "which is success (no error record)";
    return;
  }
  std::ostringstream report;
  report << *error;
  *listener << "whose record is:" << report.str();
}

template <class State>
void explain_state(State const& state, ::testing::MatchResultListener* listener) {
  if (!state.is_ready()) {
    *listener << "which is not ready";
  } else if (state.has_error()) {
    ErrorInfo::Ptr const error = state.error_info();
    explain(error.get(), listener);
  } else {
    *listener << "which holds a value";
  }
}

}  // namespace impl

/// The record's own code matches `pattern` at a dot ("error.x" matches "error.x.y").
MATCHER_P(HasCode, pattern,
          std::string(negation ? "has no code matching " : "has a code matching ") + pattern) {
  ErrorInfo const* const error = impl::record_of(arg);
  bool const matched = error != nullptr && error->matches(pattern);
  if (!matched) impl::explain(error, result_listener);
  return matched;
}

/// The record or any record nested under it matches `pattern`.
MATCHER_P(AnyMatches, pattern,
          std::string(negation ? "has no record in its chain matching "
                               : "has a record in its chain matching ") +
              pattern) {
  ErrorInfo const* const error = impl::record_of(arg);
  bool const matched = error != nullptr && error->any_matches(pattern);
  if (!matched) impl::explain(error, result_listener);
  return matched;
}

/// The record has the parameter `name` with exactly the text `value`.
MATCHER_P2(HasParam, name, value,
           std::string(negation ? "lacks the parameter " : "has the parameter ") + name + " = \"" +
               value + "\"") {
  ErrorInfo const* const error = impl::record_of(arg);
  bool matched = false;
  if (error != nullptr) {
    auto const found = error->params().find(name);
    matched = found != error->params().end() && found->second == value;
  }
  if (!matched) impl::explain(error, result_listener);
  return matched;
}

/// The record's message, with its parameters expanded, is exactly `text`.
MATCHER_P(HasMessage, text,
          std::string(negation ? "has a message other than \"" : "has the message \"") + text +
              "\"") {
  ErrorInfo const* const error = impl::record_of(arg);
  bool const matched = error != nullptr && error->expanded_message().as_string() == text;
  if (!matched) impl::explain(error, result_listener);
  return matched;
}

/// No record: a null `ErrorInfo::Ptr`, the success of a shape-1 call.
MATCHER(IsSuccess, negation ? "is an error record" : "is success (a null record)") {
  ErrorInfo const* const error = impl::record_of(arg);
  if (error != nullptr) impl::explain(error, result_listener);
  return error == nullptr;
}

/// A Result or Future that is not ready yet. Never waits.
MATCHER(IsPending, negation ? "is ready" : "is not ready") {
  if (arg.is_ready()) impl::explain_state(arg, result_listener);
  return !arg.is_ready();
}

/// A ready Result or Future holding a value that matches `value` (a value or a matcher).
MATCHER_P(IsReadyWithValue, value,
          std::string(negation ? "is not ready with a value matching "
                               : "is ready with a value matching ") +
              ::testing::PrintToString(value)) {
  if (!arg.is_ready() || arg.has_error()) {
    impl::explain_state(arg, result_listener);
    return false;
  }
  return ::testing::ExplainMatchResult(value, arg.get(), result_listener);
}

/// A ready Result or Future failed with a record whose code matches `pattern`.
MATCHER_P(IsReadyWithError, pattern,
          std::string(negation ? "is not failed with a code matching "
                               : "is failed with a code matching ") +
              pattern) {
  bool matched = false;
  if (arg.is_ready() && arg.has_error()) {
    ErrorInfo::Ptr const error = arg.error_info();
    matched = error && error->matches(pattern);
  }
  if (!matched) impl::explain_state(arg, result_listener);
  return matched;
}

}  // namespace testing
}  // namespace tqcore
