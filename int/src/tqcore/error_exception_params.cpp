#include <tqcore/error_params.h>

#include <cstring>
#include <string>

namespace tqcore {

namespace {

size_t measured(char const* text, size_t length) {
  if (text == nullptr) return 0;  // a null text is the empty text
  return length == SourceString::npos ? std::strlen(text) : length;
}

// A key for lookups that refers to the caller's text; building it reads nothing.
SourceString lookup_key(char const* name, size_t length) {
  return SourceString(name, measured(name, length), true);
}

std::string const& empty_value() {
  static std::string const empty;
  return empty;
}

}  // namespace

ErrorParams::const_iterator ErrorParams::find(char const* name, size_t length) const {
  return m_entries.find(lookup_key(name, length));
}

std::string& ErrorParams::insert_ref(char const* name, size_t length) {
  SourceString key = lookup_key(name, length);
  auto found = m_entries.lower_bound(key);
  if (found != m_entries.end() && found->first.compare(key) == 0) return found->second;
  // Only a new name is copied; the map then owns its text.
  return m_entries.emplace_hint(found, SourceString(key.data(), key.size()), std::string())->second;
}

std::string& ErrorParams::insert_ref(SourceString const& name) {
  return m_entries.try_emplace(name).first->second;
}

ErrorParams& ErrorParams::add(char const* name, size_t name_length, char const* value,
                              size_t value_length) {
  insert_ref(name, name_length)
      .assign(value != nullptr ? value : "", measured(value, value_length));
  return *this;
}

ErrorParams& ErrorParams::add(ErrorParams const& other) {
  for (value_type const& entry : other.m_entries) insert_ref(entry.first) = entry.second;
  return *this;
}

std::string const& ErrorParams::get_value(char const* name, size_t length) const {
  auto found = find(name, length);
  return found == end() ? empty_value() : found->second;
}

bool ErrorParams::query_value(char const* name, size_t length, std::string* value) const {
  auto found = find(name, length);
  if (found == end()) return false;
  if (value != nullptr) *value = found->second;
  return true;
}

int ErrorParams::compare(ErrorParams const& other) const {
  auto a = m_entries.begin();
  auto b = other.m_entries.begin();
  for (; a != m_entries.end() && b != other.m_entries.end(); ++a, ++b) {
    if (int keys = a->first.compare(b->first)) return keys < 0 ? -1 : 1;
    if (int values = a->second.compare(b->second)) return values < 0 ? -1 : 1;
  }
  if (a != m_entries.end()) return 1;
  return b != other.m_entries.end() ? -1 : 0;
}

bool ErrorParams::operator==(ErrorParams const& other) const {
  if (m_entries.size() != other.m_entries.size()) return false;
  auto b = other.m_entries.begin();
  for (auto a = m_entries.begin(); a != m_entries.end(); ++a, ++b) {
    if (a->first != b->first || a->second != b->second) return false;
  }
  return true;
}

uint64_t ErrorParams::hash() const noexcept {
  uint64_t result = 0;
  for (value_type const& entry : m_entries) {
    result = impl::error_hash_fold(result,
                                   impl::error_text_hash(entry.first.data(), entry.first.size()));
    result = impl::error_hash_fold(result,
                                   impl::error_text_hash(entry.second.data(), entry.second.size()));
  }
  return result;
}

// ---- Expansion -------------------------------------------------------------------------------

namespace {

constexpr size_t kNoLimit = SourceString::npos;

bool is_utf8_continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

void append_value(std::string& out, std::string const& value, size_t limit) {
  if (value.size() <= limit) {
    out += value;
    return;
  }
  size_t cut = limit;  // never split a multi-byte character
  while (cut > 0 && is_utf8_continuation(value[cut])) --cut;
  out.append(value, 0, cut).append("...");
}

bool has_placeholder(char const* text, size_t length) {
  return length >= 2 && std::string_view(text, length).find("{@") != std::string_view::npos;
}

// Expands a text known to hold "{@", starting at `pos`, the first of them.
SourceString expand_placeholders(ErrorParams const& params, std::string_view text, size_t pos,
                                 size_t limit) {
  std::string out(text.substr(0, pos));
  while (true) {
    size_t close = pos + 2 < text.size() ? text.find('}', pos + 2) : std::string_view::npos;
    if (close == std::string_view::npos) {
      out.append(text.substr(pos));
      break;
    }
    std::string_view name = text.substr(pos + 2, close - pos - 2);
    auto found = params.find(name.data(), name.size());
    if (found == params.end()) {
      out.append(text.substr(pos, close + 1 - pos));  // an unknown name stays visible
    } else {
      append_value(out, found->second, limit);
    }
    size_t next = text.find("{@", close + 1);
    if (next == std::string_view::npos) {
      out.append(text.substr(close + 1));
      break;
    }
    out.append(text.substr(close + 1, next - close - 1));
    pos = next;
  }
  return SourceString(out.data(), out.size());
}

}  // namespace

SourceString ErrorParams::expanded_message_with_limit(char const* text, size_t length,
                                                      size_t limit) const {
  char const* source = text;
  if (source == nullptr) {
    source = "";
    if (length != npos) length = 0;
  }
  size_t measured_length = measured(source, length);
  if (!has_placeholder(source, measured_length)) {
    return SourceString(source, length);  // the caller's own length: npos throws here
  }
  std::string_view view(source, measured_length);
  return expand_placeholders(*this, view, view.find("{@"), limit);
}

SourceString ErrorParams::expanded_message_with_limit(SourceString const& text,
                                                      size_t limit) const {
  std::string_view view(text.data(), text.size());
  size_t pos = view.size() < 2 ? std::string_view::npos : view.find("{@");
  if (pos == std::string_view::npos) return text;
  return expand_placeholders(*this, view, pos, limit);
}

SourceString ErrorParams::expanded_message(char const* text, size_t length) const {
  return expanded_message_with_limit(text, length, kNoLimit);
}

SourceString ErrorParams::expanded_message(SourceString const& text) const {
  return expanded_message_with_limit(text, kNoLimit);
}

}  // namespace tqcore
