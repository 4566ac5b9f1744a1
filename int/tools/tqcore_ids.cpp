// The tool's identifier commands: uuid and hash.
#include <tqcore/abs_rel_time.h>
#include <tqcore/murmur_hash.h>
#include <tqcore/uuid.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "tool_commands.h"

namespace tool {
namespace {

using tqcore::Uuid;

struct UuidRequest {
  enum Kind { Random, Sequential, Legacy } kind = Random;
  unsigned int legacy_id = 0;
  Uuid::EFormat format = Uuid::Hyphenated;
  unsigned long long count = 1;
};

bool parse_format(std::string const& name, Uuid::EFormat* format) {
  static char const* const kNames[] = {"hyphenated", "compact", "braced"};
  for (int i = 0; i < 3; ++i) {
    if (name == kNames[i]) {
      *format = static_cast<Uuid::EFormat>(i);
      return true;
    }
  }
  return false;
}

// The decimal number in `text`, or false: digits only, within 64 bits.
bool parse_count(std::string const& text, unsigned long long* value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  *value = std::strtoull(text.c_str(), nullptr, 10);
  return errno == 0;
}

char const kUuidUsage[] =
    "usage: tqcore uuid [--random|--sequential|--legacy N] [--format F] [-n COUNT] | "
    "tqcore uuid inspect [--json] TEXT";

bool parse_uuid_request(std::vector<std::string> const& args, UuidRequest* request) {
  for (size_t i = 0; i < args.size(); ++i) {
    std::string const& arg = args[i];
    bool const has_value = i + 1 < args.size();
    unsigned long long number = 0;
    if (arg == "--random") {
      request->kind = UuidRequest::Random;
    } else if (arg == "--sequential") {
      request->kind = UuidRequest::Sequential;
    } else if (arg == "--legacy" && has_value && parse_count(args[++i], &number) &&
               number <= 0xFFFFFFFFull) {
      request->kind = UuidRequest::Legacy;
      request->legacy_id = static_cast<unsigned int>(number);
    } else if (arg == "--format" && has_value && parse_format(args[++i], &request->format)) {
    } else if (arg == "-n" && has_value && parse_count(args[++i], &request->count)) {
    } else {
      return false;
    }
  }
  return true;
}

Uuid make(UuidRequest const& request) {
  switch (request.kind) {
    case UuidRequest::Sequential:
      return Uuid::create_sequential();
    case UuidRequest::Legacy:
      return Uuid::create_legacy_interaction_id(request.legacy_id);
    case UuidRequest::Random:
      break;
  }
  return Uuid::create_random();
}

char const* version_name(Uuid::EVersion version) {
  switch (version) {
    case Uuid::Random:
      return " (random)";
    case Uuid::LegacyInteractionId:
      return " (legacy interaction id)";
    case Uuid::Sequential:
      return " (sequential)";
  }
  return "";
}

void colon_line(std::ostream& out, char const* label, std::string const& value) {
  out << label << ": " << value << '\n';
}

int inspect(std::vector<std::string> args) {
  bool const json = tool::take_json_flag(&args);
  if (args.size() != 2) return usage_error(kUuidUsage);
  Uuid uuid;
  if (!Uuid::from_string_nothrow(args[1].c_str(), args[1].size(), &uuid)) {
    std::cerr << "tqcore: not a UUID: '" << args[1] << "'\n";
    return 1;
  }
  Uuid::NodeAddress node;
  uuid.get_node_address(node);
  char node_text[13];
  for (int i = 0; i < 6; ++i) std::snprintf(node_text + 2 * i, 3, "%02x", node.bytes[i]);
  tool::Report report(json, colon_line);
  report.text("uuid", "uuid", uuid.as_string());
  if (json) {
    report.number("version", "version", std::to_string(uuid.version()));
  } else {
    report.text("version", "version",
                std::to_string(uuid.version()) + version_name(uuid.version()));
  }
  report.number("timestamp", "timestamp", std::to_string(uuid.timestamp()));
  if (uuid.version() == Uuid::Sequential) {
    // Bytes 0 to 6 are the clock's high bytes, big-endian; its low byte is not kept.
    unsigned long long clock = 0;
    for (int i = 0; i < 7; ++i) clock = (clock | uuid.bytes()[i]) << 8;
    report.text("time", "time",
                tqcore::AbsoluteTime::from_nsec(static_cast<long long>(clock)).as_iso8601_string());
  }
  report.number("sequence", "sequence", std::to_string(uuid.sequence()));
  report.text("node", "node", node_text);
  if (uuid.version() == Uuid::LegacyInteractionId) {
    report.number("legacy_id", "legacy id", std::to_string(uuid.legacy_interaction_id()));
    report.number("legacy_flags", "legacy flags",
                  std::to_string(uuid.legacy_interaction_id_flags()));
    report.flag("unresolved", "unresolved", uuid.is_unresolved_legacy_interaction_id());
  }
  report.print(std::cout);
  return 0;
}

}  // namespace

int run_uuid(std::vector<std::string> const& args) {
  if (!args.empty() && args[0] == "inspect") return inspect(args);
  UuidRequest request;
  if (!parse_uuid_request(args, &request)) return usage_error(kUuidUsage);
  char text[Uuid::kMaxTextSize];
  for (unsigned long long i = 0; i < request.count; ++i) {
    make(request).as_string(request.format, text);
    std::cout << text << '\n';
  }
  return 0;
}

int run_hash(std::vector<std::string> const& args) {
  std::vector<std::string> files;
  bool seeded = false;
  unsigned long long seed = 0;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--seed") {
      if (i + 1 == args.size() || !parse_count(args[++i], &seed)) {
        return usage_error("usage: tqcore hash [--seed S] [FILE...]");
      }
      seeded = true;
    } else {
      files.push_back(args[i]);
    }
  }
  if (files.empty()) files.push_back("-");
  int status = 0;
  for (std::string const& file : files) {
    std::string content;
    if (!read_all(file, &content)) {
      std::cerr << "tqcore: cannot read '" << file << "'\n";
      status = 1;
      continue;
    }
    tqcore::MurmurHashContext context =
        seeded ? tqcore::MurmurHashContext(seed) : tqcore::MurmurHashContext();
    char digest[17];
    std::snprintf(digest, sizeof(digest), "%016llx",
                  static_cast<unsigned long long>(
                      context.update(content.data(), content.size()).calculate_digest()));
    std::cout << digest << "  " << file << '\n';
  }
  return status;
}

}  // namespace tool
