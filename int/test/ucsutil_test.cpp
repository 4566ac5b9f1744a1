#include <tqcore/error_exception.h>
#include <tqcore/ucsutil.h>

#include <gtest/gtest.h>

#include "ucs_reference.h"

#include <cerrno>
#include <random>
#include <string>
#include <vector>

namespace tqcore {
namespace {

using namespace ucs_reference;  // NOLINT(google-build-using-namespace)

Bytes generated_utf8(std::mt19937& random) {
  // clang-format off
  static char const* const kPieces[] = {
      "a", "Hello, world. ", "0123456789abcdefghijklmnopqrstuvwxyz",
      "\xC3\xA9", "\xD0\x96", "\xE2\x82\xAC", "\xE4\xB8\xAD", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF",
      "\xF4\x90\x80\x80",                                                              // beyond U+10FFFF
      "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80", "\xFD\xBF\xBF\xBF\xBF\xBF",  // five and six bytes
      "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xE0\x80\x20", "\xF0\x80\x80\x80",      // overlong
      "\xF0\x80\x20\x20", "\xF8\x80\x80\x80\x80", "\xFC\x80\x80\x80\x80\x80",
      "\xED\xA0\x80", "\xED\xBF\xBF",                                                    // surrogates
      "\xEF\xBB\xBF", "\xEF\xBF\xBE", "\xEF\xBF\xBF",                                  // U+FEFF, U+FFFE, U+FFFF
      "\x80", "\xBF", "\xFE", "\xFF",                                                      // not lead bytes
      "\xC3", "\xE2\x82", "\xF0\x9F\x98",                                                // truncated (mid-text)
      "\xC3\x28", "\xE2\x28\xAC", "\xF0\x9F\x28\x80",                                  // bad continuation
      std::string(1, '\0').c_str()};
  // clang-format on
  Bytes text;
  size_t pieces = random() % 12;
  for (size_t k = 0; k < pieces; ++k) {
    size_t pick = random() % (sizeof(kPieces) / sizeof(kPieces[0]));
    text +=
        pick == sizeof(kPieces) / sizeof(kPieces[0]) - 1 ? Bytes(1, '\0') : Bytes(kPieces[pick]);
  }
  if (random() % 4 == 0 && !text.empty()) text.resize(random() % text.size());  // cut anywhere
  return text;
}

U16 generated_utf16(std::mt19937& random) {
  static unsigned short const kUnits[] = {'a',    'Z',    0x7F,   0x80,   0xE9,   0x416,
                                          0x20AC, 0xD7FF, 0xD83D, 0xDE00, 0xDBFF, 0xDC00,
                                          0xE000, 0xFEFF, 0xFFFD, 0xFFFE, 0xFFFF, 0};
  U16 text(random() % 40);
  for (unsigned short& u : text) u = kUnits[random() % (sizeof(kUnits) / sizeof(kUnits[0]))];
  return text;
}

constexpr int kRounds = 20000;

TEST(UnicodeDifferential, Utf8ToUtf16AndWideMatchTheRules) {
  std::mt19937 random(11);
  for (int round = 0; round < kRounds; ++round) {
    Bytes const text = generated_utf8(random);
    for (unsigned short repl : {static_cast<unsigned short>(0), static_cast<unsigned short>('?')}) {
      SCOPED_TRACE(::testing::PrintToString(text) + " repl " + std::to_string(repl));
      Outcome measured = run_library(
          [&](int* fi) { return utf8_to_utf16(text.data(), text.size(), nullptr, 0, repl, fi); });
      ASSERT_EQ(measured, ref_utf8_to_utf16(text, repl, nullptr));
      U16 expected;
      Outcome reference = ref_utf8_to_utf16(text, repl, &expected);
      if (!reference.raised.empty()) {  // no measure to size by: a buffer that cannot run out
        U16 big(text.size() + 1);
        Outcome wrote = run_library([&](int* fi) {
          return utf8_to_utf16(text.data(), text.size(), big.data(), big.size(), repl, fi);
        });
        ASSERT_EQ(wrote, reference);
        continue;
      }
      U16 written(measured.result + 1, 0xAAAA);
      Outcome wrote = run_library([&](int* fi) {
        return utf8_to_utf16(text.data(), text.size(), written.data(), measured.result, repl, fi);
      });
      ASSERT_EQ(wrote, reference);
      ASSERT_EQ(U16(written.begin(), written.begin() + wrote.result), expected);
      ASSERT_EQ(written[measured.result], 0xAAAA);  // nothing beyond the measured size
      // The wide form gives the same characters: one wchar_t per scalar.
      std::vector<wchar_t> wide(text.size() + 1);
      size_t wide_size =
          utf8_to_wstr(text.data(), text.size(), wide.data(), wide.size(), repl, nullptr);
      U16 round_trip(wide_size * 2 + 1);
      std::vector<unsigned int> scalars(wide.begin(), wide.begin() + wide_size);
      size_t n = 0;
      for (unsigned s : scalars)
        n += ucs4_char_to_utf16(s, round_trip.data() + n, round_trip.data() + round_trip.size());
      round_trip.resize(n);
      ASSERT_EQ(round_trip, expected);
    }
  }
}

TEST(UnicodeDifferential, Utf8ToUcs4MatchesTheRules) {
  std::mt19937 random(12);
  for (int round = 0; round < kRounds; ++round) {
    Bytes const text = generated_utf8(random);
    for (unsigned repl : {0u, 0xFFFDu}) {
      SCOPED_TRACE(::testing::PrintToString(text));
      Outcome measured = run_library(
          [&](int* fi) { return utf8_to_ucs4(text.data(), text.size(), nullptr, 0, repl, fi); });
      ASSERT_EQ(measured, ref_utf8_to_ucs4(text, repl, nullptr));
      if (!measured.raised.empty()) continue;
      U32 expected;
      ref_utf8_to_ucs4(text, repl, &expected);
      U32 written(measured.result + 1, 0xAAAA);
      Outcome wrote = run_library([&](int* fi) {
        return utf8_to_ucs4(text.data(), text.size(), written.data(), measured.result, repl, fi);
      });
      ASSERT_EQ(wrote, measured);
      ASSERT_EQ(U32(written.begin(), written.begin() + wrote.result), expected);
      // Back to UTF-8: each scalar is one character again, and the measure predicts the write.
      Outcome back = run_library([&](int* fi) {
        return ucs4_to_utf8(expected.data(), expected.size(), nullptr, 0, '?', fi);
      });
      Bytes utf8(back.result, '\0');
      ASSERT_EQ(
          ucs4_to_utf8(expected.data(), expected.size(), utf8.data(), utf8.size(), '?', nullptr),
          back.result);
    }
  }
}

TEST(UnicodeDifferential, Utf16AndWideToUtf8MatchTheRules) {
  std::mt19937 random(13);
  for (int round = 0; round < kRounds; ++round) {
    U16 const text = generated_utf16(random);
    for (char repl : {'\0', '?'}) {
      SCOPED_TRACE(::testing::PrintToString(text));
      Outcome measured = run_library(
          [&](int* fi) { return utf16_to_utf8(text.data(), text.size(), nullptr, 0, repl, fi); });
      ASSERT_EQ(measured, ref_utf16_to_utf8(text, repl, nullptr, true));
      if (!measured.raised.empty()) {
        Bytes big(200, '\0');
        Outcome wrote = run_library([&](int* fi) {
          return utf16_to_utf8(text.data(), text.size(), big.data(), big.size(), repl, fi);
        });
        ASSERT_EQ(wrote, ref_utf16_to_utf8(text, repl, nullptr, false));
        continue;
      }
      Bytes expected;
      ref_utf16_to_utf8(text, repl, &expected, false);
      Bytes written(measured.result, '\0');
      ASSERT_EQ(
          utf16_to_utf8(text.data(), text.size(), written.data(), written.size(), repl, nullptr),
          measured.result);
      ASSERT_EQ(written, expected);
      // Wide text without surrogates converts alike.
      std::vector<wchar_t> wide;
      for (unsigned short u : text) {
        if (u < 0xD800 || u > 0xDFFF) wide.push_back(u);
      }
      Bytes from_wide(wide.size() * 3, '\0');
      size_t n =
          wstr_to_utf8(wide.data(), wide.size(), from_wide.data(), from_wide.size(), '?', nullptr);
      U16 narrow(wide.begin(), wide.end());
      Bytes from_narrow;
      ref_utf16_to_utf8(narrow, '?', &from_narrow, false);
      ASSERT_EQ(from_wide.substr(0, n), from_narrow);
    }
  }
}

TEST(UnicodeDifferential, ValidatorAndRepairMatchTheRules) {
  std::mt19937 random(14);
  for (int round = 0; round < kRounds; ++round) {
    Bytes text = generated_utf8(random);
    size_t expected_at = 0;
    int expected = ref_status(text, &expected_at);
    size_t at = 0;
    ASSERT_EQ(utf8_validate(text.data(), text.size(), &at), expected)
        << ::testing::PrintToString(text);
    if (expected != 0) {
      ASSERT_EQ(at, expected_at);
    }
    ASSERT_EQ(is_valid_utf8(text.data(), text.size()), expected == 0);
    // The repair leaves a valid text of the same length, and starts at the first fault.
    Bytes repaired = text;
    int first_invalid = 0;
    make_valid_utf8(repaired.data(), repaired.size(), '?', &first_invalid);
    ASSERT_EQ(repaired.size(), text.size());
    ASSERT_TRUE(is_valid_utf8(repaired.data(), repaired.size()));
    ASSERT_EQ(first_invalid, expected == 0 ? -1 : static_cast<int>(expected_at));
  }
}

// The vector walk takes 32 bytes at a time: every form at every offset across the first blocks,
// in ASCII and in multi-byte surroundings, must give the status and offset of the rules.
TEST(UnicodeDifferential, ValidatorAgreesAtEveryBlockOffset) {
  char const* const forms[] = {"\xC3\xA9",
                               "\xE2\x82\xAC",
                               "\xF0\x9F\x98\x80",
                               "\xF4\x90\x80\x80",
                               "\xF8\x88\x80\x80\x80",
                               "\xFC\x84\x80\x80\x80\x80",
                               "\xC0\x80",
                               "\xE0\x80\x80",
                               "\xE0\x80\x20",
                               "\xF0\x80\x80\x80",
                               "\xED\xA0\x80",
                               "\xEF\xBB\xBF",
                               "\xEF\xBF\xBE",
                               "\xEF\xBF\xBF",
                               "\x80",
                               "\xFE",
                               "\xC3",
                               "\xE2\x82",
                               "\xF0\x9F\x98",
                               "\xC3\x28",
                               "\xF0\x9F\x28\x80",
                               "\xF4\x8F\xBF\xBF",
                               "\xF5\x80\x80\x80"};
  Bytes const fillers[] = {Bytes(140, 'a'), [] {
                             Bytes text;
                             while (text.size() < 140)
                               text +=
                                   "\xD0\x96\xE4\xB8\xAD"
                                   "b";
                             return text;
                           }()};
  for (Bytes const& filler : fillers) {
    for (char const* form : forms) {
      for (size_t offset = 0; offset < 80; ++offset) {
        size_t const tail = offset % 3 == 0 ? 60 : offset % 3 == 1 ? 0 : 5;  // short texts too
        Bytes text = filler.substr(0, offset) + form + filler.substr(offset, tail);
        size_t expected_at = 0;
        int expected = ref_status(text, &expected_at);
        size_t at = 0;
        int status = utf8_validate(text.data(), text.size(), &at);
        ASSERT_EQ(status, expected) << ::testing::PrintToString(text);
        if (expected != 0) {
          ASSERT_EQ(at, expected_at) << ::testing::PrintToString(text);
        }
      }
    }
  }
}

// Long text in runs of one script, so that the vector blocks see each mix of lengths, a
// four-byte form on every block edge, and now and then one malformed or refused form: every
// conversion matches the rules, and UTF-16 goes back to the same UTF-8.
Bytes generated_long_utf8(std::mt19937& random) {
  static char const* const kScripts[][4] = {
      {"a", " ", "xyz", "."},
      {"\xC3\xA9", "e", " ", "\xC3\x9F"},
      {"\xD0\x96", "\xCE\xB1", " ", "\xDF\xBF"},
      {"\xE4\xB8\xAD", "\xE3\x80\x82", "\xEF\xBF\xBD", " "},
      {"\xF0\x9F\x98\x80", "\xE6\x97\xA5", "\xF4\x8F\xBF\xBF", "z"}};
  static char const* const kFaults[] = {"\xED\xA0\x80", "\xEF\xBB\xBF", "\xEF\xBF\xBF",    "\xC3",
                                        "\xF0\x9F\x98", "\x80",         "\xF4\x90\x80\x80"};
  Bytes text;
  // Short texts for the one-register path, long ones past the validation piece now and then.
  size_t const length = random() % 4 == 0 ? random() % 70 : random() % 9000;
  while (text.size() < length) {
    auto const& script = kScripts[random() % 5];
    for (size_t run = random() % 40; run > 0; --run) text += script[random() % 4];
  }
  if (random() % 3 == 0) {
    size_t const at = utf8_limit_length(text.data(), text.size(), random() % (text.size() + 1));
    text.insert(at, kFaults[random() % 7]);
  }
  return text;
}

TEST(UnicodeDifferential, LongTextMatchesTheRulesAcrossBlocks) {
  std::mt19937 random(17);
  for (int round = 0; round < 600; ++round) {
    Bytes const text = generated_long_utf8(random);
    SCOPED_TRACE(round);
    U16 expected16;
    Outcome const reference16 = ref_utf8_to_utf16(text, 0xFFFD, &expected16);
    U16 out16(expected16.size());
    int first_invalid = 0;
    ASSERT_EQ(
        utf8_to_utf16(text.data(), text.size(), out16.data(), out16.size(), 0xFFFD, &first_invalid),
        reference16.result);
    ASSERT_EQ(first_invalid, reference16.first_invalid);
    ASSERT_EQ(out16, expected16);
    ASSERT_EQ(utf8_to_utf16(text.data(), text.size(), nullptr, 0, 0xFFFD, nullptr),
              expected16.size());
    U32 expected32;
    ref_utf8_to_ucs4(text, 0xFFFD, &expected32);
    U32 out32(expected32.size());
    ASSERT_EQ(utf8_to_ucs4(text.data(), text.size(), out32.data(), out32.size(), 0xFFFD, nullptr),
              expected32.size());
    ASSERT_EQ(out32, expected32);
    if (reference16.first_invalid != -1) continue;
    std::wstring wide(expected32.size(), L'\0');
    ASSERT_EQ(utf8_to_wstr(text.data(), text.size(), wide.data(), wide.size(), L'?', nullptr),
              expected32.size());
    ASSERT_TRUE(std::equal(wide.begin(), wide.end(), expected32.begin()));
    Bytes back(text.size(), '\0');
    ASSERT_EQ(utf16_to_utf8(out16.data(), out16.size(), back.data(), back.size(), '?', nullptr),
              text.size());
    ASSERT_EQ(back, text);
  }
}

// 32-bit text has no surrogate pairs: each surrogate is refused alone, as is anything above
// what the target holds, at every place in and across the vector blocks.
TEST(UnicodeDifferential, Ucs4AndWideToUtf8RefuseEachSurrogate) {
  std::mt19937 random(18);
  unsigned int const units[] = {'a',     ' ',      0xE9,     0x416,      0x4E2D,
                                0xFFFD,  0xD83D,   0xDE00,   0xFEFF,     0xFFFF,
                                0x1F600, 0x10FFFF, 0x110000, 0x7FFFFFFF, 0xFFFFFFFF};
  for (int round = 0; round < 2000; ++round) {
    U32 text(random() % 300);
    for (unsigned int& u : text) u = random() % 4 ? units[random() % 6] : units[random() % 15];
    Bytes ucs4_expected;
    Bytes wide_expected;
    for (unsigned int u : text) {
      char one[6];
      size_t const n = ucs4_char_to_utf8(u, one, one + sizeof(one));
      ucs4_expected += n == 0 ? Bytes("?") : Bytes(one, n);
      wide_expected += n == 0 || u >= 0x110000 ? Bytes("?") : Bytes(one, n);
    }
    Bytes out(text.size() * 6, '\0');
    out.resize(ucs4_to_utf8(text.data(), text.size(), out.data(), out.size(), '?', nullptr));
    ASSERT_EQ(out, ucs4_expected) << round;
    std::vector<wchar_t> const wide(text.begin(), text.end());
    out.assign(text.size() * 6, '\0');
    out.resize(wstr_to_utf8(wide.data(), wide.size(), out.data(), out.size(), '?', nullptr));
    ASSERT_EQ(out, wide_expected) << round;
  }
}

// Long valid text of every character length, converted into every destination size: a short
// destination gets exactly the leading units and the call fails with ENOMEM.
TEST(UnicodeDifferential, ShortDestinationsGetExactlyTheLeadingUnits) {
  std::mt19937 random(15);
  char const* const characters[] = {
      "a", " ", "\xC3\xA9", "\xD0\x96", "\xE4\xB8\xAD", "\xEF\xBF\xBD", "\xF0\x9F\x98\x80"};
  for (int round = 0; round < 300; ++round) {
    Bytes text;
    size_t const length = random() % 200;
    bool const ascii_runs = round % 3 == 0;
    while (text.size() < length) {
      text += ascii_runs && random() % 2 ? Bytes(40, 'x') : characters[random() % 7];
    }
    U16 expected;
    ref_utf8_to_utf16(text, '?', &expected);
    ASSERT_EQ(utf8_to_utf16(text.data(), text.size(), nullptr, 0, '?', nullptr), expected.size());
    for (size_t capacity = 0; capacity <= expected.size(); ++capacity) {
      U16 out(capacity + 16, 0xAAAA);
      errno = 0;
      size_t result = utf8_to_utf16(text.data(), text.size(), out.data(), capacity, '?', nullptr);
      if (capacity == expected.size()) {
        ASSERT_EQ(result, expected.size());
      } else {
        ASSERT_EQ(result, 0u) << capacity;
        ASSERT_EQ(errno, ENOMEM);
      }
      ASSERT_EQ(U16(out.begin(), out.begin() + capacity),
                U16(expected.begin(), expected.begin() + capacity));
      ASSERT_EQ(out[capacity], 0xAAAA) << "wrote beyond the capacity " << capacity;
    }
  }
}

// The rules' writer for UTF-16 into `capacity` bytes: a two-byte form leaves its lead byte in
// a destination one byte short; longer forms write nothing unless they fit.
Outcome ref_utf16_to_utf8_into(U16 const& t, char repl, size_t capacity, Bytes* out) {
  Bytes all;
  Outcome full = ref_utf16_to_utf8(t, repl, &all, false);
  if (all.size() <= capacity) return *out = all, full;
  // Replay character by character to find what a short destination holds.
  Outcome o;
  o.first_invalid = full.first_invalid;
  for (size_t i = 0; i < t.size();) {
    U16 one(t.begin() + static_cast<long>(i),
            t.begin() + static_cast<long>(std::min(t.size(), i + 2)));
    Bytes piece;
    ref_utf16_to_utf8(U16(one.begin(), one.begin() + 1), repl, &piece, false);
    size_t used = 1;
    unsigned u = t[i];
    if (u >= 0xD800 && u <= 0xDBFF && one.size() == 2) {
      Bytes pair;
      ref_utf16_to_utf8(one, repl, &pair, false);
      if (pair.size() == 4 || pair.size() == 1) piece = pair, used = 2;  // a pair, or a broken pair
    }
    size_t room = capacity - out->size();
    if (piece.size() > room) {
      if (piece.size() == 2 && room == 1) out->push_back(piece[0]);
      o.result = 0;
      return o;
    }
    *out += piece;
    i += used;
  }
  return o;
}

TEST(UnicodeDifferential, Utf16ToUtf8InEveryDestinationSize) {
  std::mt19937 random(16);
  unsigned short const common[] = {'a',    ' ',    0xE9,   0x416, 0x3B1,
                                   0x4E2D, 0x65E5, 0xFFFD, 0x7FF, 0x800};
  for (int round = 0; round < 300; ++round) {
    U16 text(random() % 120);
    for (unsigned short& u : text) u = common[random() % 10];
    for (int k = 0; k < 3 && !text.empty(); ++k) {  // a few pairs and a few bad units
      size_t at = random() % text.size();
      unsigned short const odd[] = {0xD83D, 0xDE00, 0xFEFF, 0xFFFF};
      if (random() % 2 && at + 1 < text.size()) {
        text[at] = 0xD83D, text[at + 1] = 0xDE00;
      } else if (round % 4 == 0) {
        text[at] = odd[random() % 4];
      }
    }
    for (char repl : {'?', '\0'}) {
      Outcome measured = run_library(
          [&](int* fi) { return utf16_to_utf8(text.data(), text.size(), nullptr, 0, repl, fi); });
      ASSERT_EQ(measured, ref_utf16_to_utf8(text, repl, nullptr, true));
      if (repl == 0) continue;
      for (size_t capacity = 0; capacity <= measured.result; ++capacity) {
        Bytes out(capacity + 40, '#');
        Bytes expected;
        Outcome reference = ref_utf16_to_utf8_into(text, repl, capacity, &expected);
        size_t result =
            utf16_to_utf8(text.data(), text.size(), out.data(), capacity, repl, nullptr);
        ASSERT_EQ(result, reference.result) << capacity;
        ASSERT_EQ(out.substr(0, expected.size()), expected) << capacity;
        ASSERT_EQ(out[capacity], '#') << "wrote beyond the capacity " << capacity;
      }
    }
  }
}

}  // namespace
}  // namespace tqcore
