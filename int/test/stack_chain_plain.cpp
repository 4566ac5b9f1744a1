// Built with -O0 -g: every parameter lives in the frame, so each shows its value.
#include <tqcore/error_info.h>

#include "stack_chain_helper.h"

namespace stack_chain {

__attribute__((noinline)) std::string nine(Probe probe, int a, int b, int c, int d, int e, int f,
                                           int g, int h) {
  return probe() + std::to_string(a + b + c + d + e + f + g + h);
}

__attribute__((noinline)) std::string by_value(Probe probe, Wide wide, Mood* mood) {
  return nine(probe, 1, 2, 3, 4, 5, 6, 7, static_cast<int>(wide.a + static_cast<int>(*mood)));
}

__attribute__((noinline)) std::string records(Probe probe,
                                              tqcore::RefCountPtr<tqcore::ErrorInfo const> record,
                                              Mood mood) {
  Wide wide{record ? 1 : 0, 2, 3};
  return by_value(probe, wide, &mood);
}

__attribute__((noinline)) std::string scalars(Probe probe, int n, char c, wchar_t w, bool flag,
                                              double ratio) {
  auto record = tqcore::ErrorInfo::create(tqcore::ErrorCode("error.test.chain"), "chain",
                                          tqcore::SourceLocation("chain", "chain", 1));
  return records(probe, record, n + c + w + flag + ratio > 0 ? Mood::cross : Mood::calm);
}

std::string plain_chain(Probe probe) {
  return scalars(probe, -7, static_cast<char>(200), static_cast<wchar_t>(200), true, 0.25);
}

}  // namespace stack_chain
