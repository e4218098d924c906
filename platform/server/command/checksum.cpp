#include "command/checksum.h"

#include "base/checksum.h"
#include "base/number.h"
#include "base/text.h"
#include "command/handlers.h"
#include "command/operation_checksum.h"
#include "command/stat.h"
#include "ftp/path.h"
#include "session/session_state.h"

#include <algorithm>
#include <array>
#include <limits>

namespace tarvex::server {

namespace {

/// The algorithms of HASH, by the names that clients know from other servers.
struct hash_row {
  std::string_view name;
  std::string_view algorithm;
};
constexpr auto HASHES = std::to_array<hash_row>(
    {{"SHA-1", "SHA1"}, {"MD5", "MD5"}, {"SHA-256", "SHA256"}, {"SHA-512", "SHA512"}, {"CRC32", "CRC32"}});

std::string hash_name(std::string_view algorithm) {
  const auto row = std::find_if(HASHES.begin(), HASHES.end(),
                                [&](const hash_row& candidate) { return candidate.algorithm == algorithm; });
  return row == HASHES.end() ? std::string() : std::string(row->name);
}

/// "SHA-1*;MD5;...": the selected one starred.
std::string hashes_starred(std::string_view selected) {
  std::string text;
  for (const hash_row& row : HASHES) {
    if (!text.empty()) text += ';';
    text.append(row.name).append(row.algorithm == selected ? "*" : "");
  }
  return text;
}

/// An algorithm's name as the rest of the server has it; empty: unknown.
std::string algorithm_known(const session& session, std::string_view wanted) {
  const std::string_view known = checksum_name(wanted);
  if (!known.empty()) return std::string(known);
  return checksum_by_storage(session, wanted) ? std::string(wanted) : std::string();
}

std::string algorithms_text() {
  std::string text;
  for (const auto name : checksum_names()) text.append(text.empty() ? "" : ", ").append(name);
  return text;
}

/// Whether offset and length can be a range of a file; a length of -1 reaches to the end.
bool is_range(std::int64_t offset, std::int64_t length) {
  return offset >= 0 && length >= -1 && length <= std::numeric_limits<std::int64_t>::max() - offset;
}

/// What stands behind the path of an X command.
struct file_range {
  std::string path;
  std::int64_t start = 0;
  std::int64_t end = -1;  ///< not included; -1: the file's
};

std::optional<file_range> range_of_quoted(std::string_view argument) {
  auto path = path_take(argument);
  if (!path) return std::nullopt;
  file_range range;
  range.path = std::move(*path);
  if (argument.empty()) return range;
  const auto start = parse_number<std::int64_t>(take_word(argument));
  if (!start || *start < 0) return std::nullopt;
  range.start = *start;
  if (argument.empty()) return range;
  const auto end = parse_number<std::int64_t>(argument);
  if (!end || *end < *start) return std::nullopt;
  range.end = *end;
  return range;
}

/// Cuts the last word off, with the blank before it; nothing when it is no number or nothing stands before it.
std::optional<std::int64_t> take_last_number(std::string_view& text) {
  const std::size_t blank = text.rfind(' ');
  if (blank == std::string_view::npos || blank == 0) return std::nullopt;
  const auto number = parse_number<std::int64_t>(text.substr(blank + 1));
  if (number) text = text.substr(0, blank);
  return number;
}

/// Behind a path without quotes only two numbers are taken for a range: a name may end in one.
std::optional<file_range> range_parse(std::string_view argument) {
  if (argument.starts_with('"')) return range_of_quoted(argument);
  std::string_view path = argument;
  const auto end = take_last_number(path);
  const auto start = end ? take_last_number(path) : std::nullopt;
  if (!start) return file_range{std::string(argument)};
  if (*start < 0 || *end < *start) return std::nullopt;
  return file_range{std::string(path), *start, *end};
}

/// XCRC and its like, which have no standard: 250 and the digest, as clients that know them expect.
void x_command(session& session, std::string_view verb, std::string_view algorithm, std::string_view argument) {
  const auto range = range_parse(argument);
  if (!range) return session_reply(session, 501, std::string(verb) + " takes a path, or \"path\" start end.");
  const auto path = path_argument(session, range->path);
  if (!path) return;
  checksum_request request;
  request.verb = verb;
  request.path = *path;
  request.algorithm = algorithm;
  request.offset = range->start;
  request.length = range->end < 0 ? -1 : range->end - range->start;
  request.answer = [](server::session& of, const std::string& digest, std::int64_t) { session_reply(of, 250, digest); };
  checksum_start(session, std::move(request));
}

}  // namespace

std::vector<std::string> checksum_features(const session& session) {
  std::vector<std::string> lines;
  if (!session.storage.checksums.empty()) lines.push_back("CKSUM " + session.storage.checksums);
  lines.push_back("HASH " + hashes_starred(session.settings.hash_algorithm));
  for (const char* verb : {"XCRC", "XMD5", "XSHA1", "XSHA256"}) lines.emplace_back(verb);
  return lines;
}

void checksum_options(session& session, std::string_view algorithm) {
  if (!algorithm.empty()) {
    const std::string_view known = checksum_name(algorithm);
    if (hash_name(known).empty())
      return session_reply(session, 501, "Unknown algorithm; known are " + hashes_starred({}) + ".");
    session.settings.hash_algorithm = known;
  }
  session_reply(session, 200, hash_name(session.settings.hash_algorithm));
}

void command_cksm(session& session, const std::string& argument) {
  std::string_view rest = argument;
  const std::string_view wanted = take_word(rest);
  const auto offset = parse_number<std::int64_t>(take_word(rest));
  const auto length = parse_number<std::int64_t>(take_word(rest));
  if (!offset || !length || rest.empty() || !is_range(*offset, *length))
    return session_reply(session, 501, "CKSM takes ALGORITHM OFFSET LENGTH PATH; a length of -1 reaches to the end.");
  checksum_request request;
  request.algorithm = algorithm_known(session, wanted);
  if (request.algorithm.empty())
    return session_reply(session, 504,
                         "Unknown algorithm " + std::string(wanted) + "; known are " + algorithms_text() + ".");
  const auto path = path_argument(session, rest);
  if (!path) return;
  request.verb = "CKSM";
  request.path = *path;
  request.offset = *offset;
  request.length = *length;
  request.progress = true;
  request.answer = [](server::session& of, const std::string& digest, std::int64_t) { session_reply(of, 213, digest); };
  checksum_start(session, std::move(request));
}

void command_hash(session& session, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  checksum_request request;
  request.verb = "HASH";
  request.path = *path;
  request.algorithm = session.settings.hash_algorithm;
  request.answer = [name = hash_name(request.algorithm), argument](server::session& of, const std::string& digest,
                                                                   std::int64_t size) {
    session_reply(of, 213, name + " 0-" + std::to_string(size) + " " + digest + " " + argument);
  };
  checksum_start(session, std::move(request));
}

void command_xcrc(session& session, const std::string& argument) {
  x_command(session, "XCRC", "CRC32", argument);
}
void command_xmd5(session& session, const std::string& argument) {
  x_command(session, "XMD5", "MD5", argument);
}
void command_xsha1(session& session, const std::string& argument) {
  x_command(session, "XSHA1", "SHA1", argument);
}
void command_xsha256(session& session, const std::string& argument) {
  x_command(session, "XSHA256", "SHA256", argument);
}

}  // namespace tarvex::server
