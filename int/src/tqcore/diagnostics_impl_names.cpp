// Function and type names for frame lines: cleaning a demangled name, reducing it to its
// qualified name, and telling smart-pointer class names.
#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "diagnostics_impl_internal.h"

namespace tqcore {
namespace {

constexpr char const* kSmartPointerTypeNames[] = {
    "tqcore::RefCountPtr",   "tqcore::InterfacePtr", "tqcore::ScopedPtr",    "tqcore::MovePtr",
    "tqcore::StrongPtr",     "tqcore::WeakPtr",      "stlp_std::auto_ptr",   "stlpd_std::auto_ptr",
    "std::auto_ptr",         "boost::scoped_ptr",    "boost::scoped_array",  "boost::shared_ptr",
    "boost::shared_array",   "boost::intrusive_ptr", "TqUtil::ObjectPtr",    "TqUtil::CScopedPtr",
    "TqUtil::CScopedArray",  "TqUtil::CSharedPtr",   "TqUtil::CSharedArray", "TqUtil::InterfacePtr",
    "TqUtil::CStrongRefPtr", "TqUtil::CWeakRefPtr"};

bool is_identifier_char(char c) {
  auto const u = static_cast<unsigned char>(c);
  return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || c == '_' ||
         c == ':' || u >= 0x80;
}

// A space stays only between two identifier characters: the one written last and the next.
size_t drop_spaces(char* name, size_t length) {
  size_t out = 0;
  for (size_t i = 0; i < length; ++i) {
    if (name[i] == ' ' && !(out > 0 && is_identifier_char(name[out - 1]) && i + 1 < length &&
                            is_identifier_char(name[i + 1]))) {
      continue;
    }
    name[out++] = name[i];
  }
  return out;
}

// Copies one token to `out`, with a leading "stlp_std" or "stlpd_std" component renamed and
// "__ptr64" or "__ptr32" dropped; returns the new write position.
size_t copy_token(char* name, size_t out, size_t begin, size_t end) {
  size_t head = begin;
  while (head < end && name[head] == ':') name[out++] = name[head++];
  char const* colon = static_cast<char const*>(std::memchr(name + head, ':', end - head));
  if (colon != nullptr) {
    size_t const head_length = static_cast<size_t>(colon - name) - head;
    if ((head_length == 8 && std::memcmp(name + head, "stlp_std", 8) == 0) ||
        (head_length == 9 && std::memcmp(name + head, "stlpd_std", 9) == 0)) {
      std::memcpy(name + out, "std", 3);
      out += 3;
      head += head_length;
    }
  } else if (end - begin == 7 && (std::memcmp(name + begin, "__ptr64", 7) == 0 ||
                                  std::memcmp(name + begin, "__ptr32", 7) == 0)) {
    return out;
  }
  std::memmove(name + out, name + head, end - head);
  return out + (end - head);
}

size_t rewrite_tokens(char* name, size_t length) {
  size_t out = 0;
  for (size_t i = 0; i < length;) {
    size_t const begin = i;
    if (!is_identifier_char(name[i])) {
      name[out++] = name[i++];
      continue;
    }
    while (i < length && is_identifier_char(name[i])) ++i;
    out = copy_token(name, out, begin, i);
  }
  return out;
}

// Replaces each top-level template argument list by one "~" an argument: `a<b,c<d>>` ->
// `a<~,~>`. An empty argument gets no mark, so the text never grows.
size_t elide_template_arguments(char* name, size_t length) {
  size_t out = 0;
  for (size_t i = 0; i < length;) {
    char const c = name[i++];
    name[out++] = c;
    if (c != '<' || i == length) continue;
    int depth = 1;
    bool argument = false;
    for (; i < length && depth > 0; ++i) {
      char const d = name[i];
      if ((d == ',' && depth == 1) || (d == '>' && depth == 1)) {
        if (argument) name[out++] = '~';
        argument = false;
        if (d == ',') name[out++] = ',';
      } else {
        argument = true;
      }
      depth += d == '<' ? 1 : d == '>' ? -1 : 0;
    }
    if (depth == 0) {
      name[out++] = '>';
      continue;
    }
    // A list the name leaves open: its marks go only where its own text was, so that
    // `f<x` becomes `f<~`, never a byte longer than the buffer.
    if (argument && out < i) name[out++] = '~';
    if (out < i) name[out++] = '>';
  }
  return out;
}

// Index of the bracket that closes the one at `open`, scanning in `step` direction; npos when
// it is not closed.
size_t matching_bracket(std::string const& text, size_t open, int step) {
  int depth = 0;
  for (size_t i = open; i < text.size(); i += static_cast<size_t>(step)) {
    char const c = text[i];
    if (c == '(' || c == '<' || c == '[' || c == '{') depth += step;
    if (c == ')' || c == '>' || c == ']' || c == '}') depth -= step;
    if (depth == 0) return i;
  }
  return std::string::npos;
}

bool ends_with_operator_word(std::string const& text, size_t end) {
  return end >= 8 && text.compare(end - 8, 8, "operator") == 0 &&
         (end == 8 || !is_identifier_char(text[end - 9]) || text[end - 9] == ':');
}

}  // namespace

size_t clean_decorated_name(char* name, size_t length, size_t limit) noexcept {
  if (name == nullptr) return 0;
  length = rewrite_tokens(name, drop_spaces(name, length));
  return length <= limit ? length : elide_template_arguments(name, length);
}

bool is_smart_pointer_type_name(std::string_view name) noexcept {
  size_t const open = name.find('<');
  if (open != std::string_view::npos) {
    int depth = 0;
    for (size_t i = open; i < name.size(); ++i) {
      depth += name[i] == '<' ? 1 : name[i] == '>' ? -1 : 0;
      if (depth == 0) {
        if (i + 1 < name.size()) return false;  // `X<Y>::iterator` is no pointer
        break;
      }
    }
  }
  std::string_view const prefix = name.substr(0, open);
  // Column by column against all names at once: a lax test, and meant to be.
  for (size_t i = 0; i < prefix.size(); ++i) {
    bool matched = false;
    for (char const* known : kSmartPointerTypeNames) {
      matched = matched || (i < std::strlen(known) && known[i] == prefix[i]);
    }
    if (!matched) return false;
  }
  return true;
}

namespace impl {

std::string demangle(char const* linkage_name) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(linkage_name, nullptr, nullptr, &status), &std::free);
  if (status == -1) throw std::bad_alloc();
  return text != nullptr ? std::string(text.get()) : std::string(linkage_name);
}

void strip_function_signature(std::string& name) {
  // The optimiser's copies of a function: "f(int) [clone .constprop.0]".
  for (size_t clone; !name.empty() && name.back() == ']' &&
                     (clone = name.rfind(" [clone ")) != std::string::npos;) {
    name.erase(clone);
  }
  // Trailing qualifiers of a member function, then its parameter list.
  size_t end = name.size();
  for (bool again = true; again;) {
    again = false;
    while (end > 0 && (name[end - 1] == ' ' || name[end - 1] == '&')) {
      --end;
      again = true;
    }
    for (char const* word : {"const", "volatile"}) {
      size_t const n = std::strlen(word);
      if (end > n && name.compare(end - n, n, word) == 0 &&
          (name[end - n - 1] == ' ' || name[end - n - 1] == ')')) {
        end -= n;
        again = true;
      }
    }
  }
  if (end > 0 && name[end - 1] == ')') {
    size_t const open = matching_bracket(name, end - 1, -1);
    if (open != std::string::npos && open > 0) name.erase(open);
  }
  // A return type (function templates carry one) stands before the last top-level space.
  int depth = 0;
  for (size_t i = name.size(); i-- > 0;) {
    char const c = name[i];
    depth += (c == ')' || c == '>' || c == ']' || c == '}') ? 1 : 0;
    depth -= (c == '(' || c == '<' || c == '[' || c == '{') ? 1 : 0;
    if (depth == 0 && c == ' ' && !ends_with_operator_word(name, i)) {
      name.erase(0, i + 1);
      return;
    }
  }
}

}  // namespace impl
}  // namespace tqcore
