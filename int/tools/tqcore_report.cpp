// A command's output as named fields: lines for people, or one JSON object with --json.
#include <cstdio>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "tool_commands.h"

namespace tool {
namespace {

void write_json_string(std::ostream& out, std::string const& text) {
  out << '"';
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out << '\\' << c;
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out << escaped;
    } else {
      out << c;
    }
  }
  out << '"';
}

}  // namespace

bool take_json_flag(std::vector<std::string>* args) {
  for (auto it = args->begin(); it != args->end(); ++it) {
    if (*it != "--json") continue;
    args->erase(it);
    return true;
  }
  return false;
}

void Report::add(char const* key, char const* label, std::string value, bool number) {
  m_fields.push_back(Field{key, label, std::move(value), number, nullptr});
}

void Report::print(std::ostream& out) const {
  if (!m_json) {
    for (Field const& field : m_fields) m_line(out, field.label, field.value);
    return;
  }
  out << '{';
  char const* separator = "";
  for (Field const& field : m_fields) {
    out << separator << '"' << field.key << "\": ";
    if (field.json != nullptr) {
      out << field.json;
    } else if (field.number) {
      out << field.value;
    } else {
      write_json_string(out, field.value);
    }
    separator = ", ";
  }
  out << "}\n";
}

}  // namespace tool
