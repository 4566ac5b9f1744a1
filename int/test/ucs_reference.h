// The conversion and validation rules written out plainly, one character at a time: the
// reference the unit tests and the fuzz targets hold the vector and table code to.
#pragma once

#include <tqcore/error_exception.h>

#include <ostream>
#include <string>
#include <vector>

namespace tqcore {
namespace ucs_reference {

using Bytes = std::string;
using U16 = std::vector<unsigned short>;
using U32 = std::vector<unsigned int>;

inline bool cont(unsigned char b) { return (b & 0xC0) == 0x80; }
inline bool refused(unsigned s) {
  return (s >= 0xD800 && s <= 0xDFFF) || s == 0xFEFF || s == 0xFFFE || s == 0xFFFF;
}

// Decodes one UTF-8 character as utf8_to_ucs4_char must; 0 for failure.
inline size_t ref_decode8(Bytes const& t, size_t i, unsigned* out) {
  unsigned char lead = t[i];
  if (lead < 0x80) return *out = lead, 1;
  size_t n = lead < 0xC0   ? 0
             : lead < 0xE0 ? 2
             : lead < 0xF0 ? 3
             : lead < 0xF8 ? 4
             : lead < 0xFC ? 5
             : lead < 0xFE ? 6
                           : 0;
  if (n == 0 || t.size() - i < n) return 0;
  unsigned s = lead & (0x7F >> n);
  for (size_t k = 1; k < n; ++k) {
    if (!cont(t[i + k])) return 0;
    s = (s << 6) | (static_cast<unsigned char>(t[i + k]) & 0x3F);
  }
  unsigned const smallest[] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
  if (s < smallest[n] || (n == 3 && refused(s))) return 0;
  return *out = s, n;
}

inline size_t ref_skip(Bytes const& t, size_t i) {
  size_t j = i + 1;
  while (j < t.size() && cont(t[j])) ++j;
  return j;
}

struct Outcome {
  size_t result = 0;
  int first_invalid = -1;
  std::string raised;  // code and message of the outer record, then the cause's code
  // A raise returns no count: then the raised record and the offset are what must agree.
  bool operator==(Outcome const& o) const {
    return (raised.empty() ? result == o.result : true) && first_invalid == o.first_invalid &&
           raised == o.raised;
  }
};

inline std::ostream& operator<<(std::ostream& out, Outcome const& o) {
  return out << "{" << o.result << ", " << o.first_invalid << ", '" << o.raised << "'}";
}

inline void note(Outcome& o, size_t at) {
  if (o.first_invalid == -1) o.first_invalid = static_cast<int>(at);
}

inline int ref_status(Bytes const& t, size_t* at);

inline std::string raised_invalid_utf8(Bytes const& t, size_t i) {
  size_t unused;
  int status = ref_status(t.substr(i), &unused);
  static char const* const kCauses[] = {"",
                                        "error.tqcore.string.utf8.invalid",
                                        "error.tqcore.string.utf8.partial",
                                        "error.tqcore.string.utf8.overlong",
                                        "error.tqcore.string.utf8.invalid",
                                        "error.tqcore.string.utf8.invalid",
                                        "",
                                        "error.tqcore.string.utf8.invalid"};
  return std::string("error.tqcore.string.conversion Invalid UTF-8 character encountered <- ") +
         kCauses[status];
}

// utf8_to_utf16 by the rules; `out` null measures.
inline Outcome ref_utf8_to_utf16(Bytes const& t, unsigned short repl, U16* out) {
  Outcome o;
  for (size_t i = 0; i < t.size();) {
    unsigned s;
    size_t used = ref_decode8(t, i, &s);
    if (used == 0) {
      note(o, i);
      if (repl == 0) return o.raised = raised_invalid_utf8(t, i), o;
      if (out) out->push_back(repl);
      ++o.result;
      i = ref_skip(t, i);
      continue;
    }
    if (s >= 0x110000) {
      note(o, i);
      if (repl == 0) {
        o.raised =
            "error.tqcore.string.conversion Encountered UTF-8 (UCS-4) character that cannot be "
            "represented in UTF-16 <- ";
        return o;
      }
      if (out) out->push_back(repl);
      ++o.result;
    } else if (s >= 0x10000) {
      if (out)
        out->push_back(static_cast<unsigned short>((s >> 10) + 0xD7C0)),
            out->push_back(static_cast<unsigned short>((s & 0x3FF) | 0xDC00));
      o.result += 2;
    } else {
      if (out) out->push_back(static_cast<unsigned short>(s));
      ++o.result;
    }
    i += used;
  }
  return o;
}

inline Outcome ref_utf8_to_ucs4(Bytes const& t, unsigned repl, U32* out) {
  Outcome o;
  for (size_t i = 0; i < t.size();) {
    unsigned s;
    size_t used = ref_decode8(t, i, &s);
    if (used == 0) {
      note(o, i);
      if (repl == 0) return o.raised = raised_invalid_utf8(t, i), o;
      s = repl;
      used = ref_skip(t, i) - i;
    }
    if (out) out->push_back(s);
    ++o.result;
    i += used;
  }
  return o;
}

inline void ref_encode8(unsigned s, Bytes* out) {
  size_t n = s < 0x80        ? 1
             : s < 0x800     ? 2
             : s < 0x10000   ? 3
             : s < 0x200000  ? 4
             : s < 0x4000000 ? 5
                             : 6;
  unsigned char const marker[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  Bytes bytes(n, '\0');
  for (size_t k = n - 1; k > 0; --k) bytes[k] = static_cast<char>(0x80 | (s & 0x3F)), s >>= 6;
  bytes[0] = static_cast<char>(n == 1 ? s : marker[n] | s);
  *out += bytes;
}

inline Outcome ref_utf16_to_utf8(U16 const& t, char repl, Bytes* out, bool measuring) {
  Outcome o;
  for (size_t i = 0; i < t.size();) {
    unsigned u = t[i];
    unsigned s = 0;
    size_t used = 0;
    if (u < 0xD800 || (u >= 0xE000 && u <= 0xFFFD && u != 0xFEFF)) {
      s = u, used = 1;
    } else if (u <= 0xDBFF && i + 1 < t.size() && t[i + 1] >= 0xDC00 && t[i + 1] <= 0xDFFF) {
      s = ((u - 0xD7C0) << 10) | (t[i + 1] & 0x3FF), used = 2;
    }
    if (used == 0) {
      note(o, i);
      if (repl == 0) {
        o.raised = std::string("error.tqcore.string.conversion Encountered invalid ") +
                   (measuring ? "UTF-16" : "UCS-4") +
                   " character that cannot be converted to UTF-8 <- ";
        return o;
      }
      if (out) out->push_back(repl);
      ++o.result;
      i += (u >= 0xD800 && u <= 0xDBFF && t.size() - i >= 2) ? 2 : 1;
      continue;
    }
    Bytes bytes;
    ref_encode8(s, &bytes);
    if (out) *out += bytes;
    o.result += bytes.size();
    i += used;
  }
  return o;
}

// The validator's status by the rules, with the offset of the fault.
inline int ref_status(Bytes const& t, size_t* at) {
  for (size_t i = 0; i < t.size();) {
    *at = i;
    unsigned char lead = t[i];
    size_t left = t.size() - i;
    auto b = [&](size_t k) { return static_cast<unsigned char>(t[i + k]); };
    if (lead < 0x80) {
      ++i;
      continue;
    }
    if (lead < 0xC0 || lead >= 0xFE) return 1;
    if (lead < 0xE0) {
      if (left < 2) return 2;
      if (lead < 0xC2) return 3;
      if (!cont(b(1))) return 4;
      i += 2;
      continue;
    }
    if (lead < 0xF0) {
      if (left < 3) return 2;
      if (!cont(b(1)) || !cont(b(2))) return 4;
      unsigned s = ((lead & 0xF) << 12) | ((b(1) & 0x3F) << 6) | (b(2) & 0x3F);
      if (s < 0x800) return 3;
      if (s >= 0xD800 && s <= 0xDFFF) return 5;
      if (s == 0xFEFF) return 7;
      i += 3;
      continue;
    }
    size_t n = lead < 0xF8 ? 4 : lead < 0xFC ? 5 : 6;
    if (left < n) return 2;
    if ((n == 4 && lead == 0xF0 && b(1) < 0x90) || (n == 5 && lead == 0xF8 && b(1) < 0x88) ||
        (n == 6 && lead == 0xFC && b(1) < 0x84)) {
      return 3;
    }
    for (size_t k = 1; k < n; ++k) {
      if (!cont(b(k))) return 4;
    }
    i += n;
  }
  return 0;
}

template <class F>
inline Outcome run_library(F&& call) {
  Outcome o;
  try {
    o.result = call(&o.first_invalid);
  } catch (ErrorException const& e) {
    o.result = 0;
    o.raised = e.error()->code().value().as_string() + " " + e.error()->message().as_string() +
               " <- " +
               (e.error()->nested() ? e.error()->nested()->code().value().as_string() : "");
  }
  return o;
}

}  // namespace ucs_reference
}  // namespace tqcore
