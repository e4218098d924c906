#include "base/checksum.h"
#include "base/number.h"
#include "base/text.h"
#include "command/answer.h"
#include "command/checksum_answer.h"
#include "command/checksum_names.h"
#include "command/handler.h"
#include "ftp/path.h"
#include "session/session.h"

#include <limits>
#include <optional>
#include <utility>

namespace tarvex::server {

namespace {

/// An algorithm's name as the rest of the server has it; empty: unknown.
std::string algorithm_known(const session& client, std::string_view wanted) {
  const std::string_view known = checksum_name(wanted);
  if (!known.empty()) return std::string(known);
  return client.storage.computes(wanted) ? std::string(wanted) : std::string();
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
handled x_command(session& client, std::string verb, std::string algorithm, std::string argument) {
  const auto range = range_parse(argument);
  if (!range) co_return client.reply(501, verb + " takes a path, or \"path\" start end.");
  const auto path = path_argument(client, range->path);
  if (!path) co_return;
  checksum_request request;
  request.verb = std::move(verb);
  request.path = *path;
  request.algorithm = std::move(algorithm);
  request.offset = range->start;
  request.length = range->end < 0 ? -1 : range->end - range->start;
  request.answer = [](session& of, const std::string& digest, std::int64_t) { of.reply(250, digest); };
  co_await checksum_answer(client, std::move(request));
}

}  // namespace

handled command_cksm(session& client, std::string argument) {
  std::string_view rest = argument;
  const std::string_view wanted = take_word(rest);
  const auto offset = parse_number<std::int64_t>(take_word(rest));
  const auto length = parse_number<std::int64_t>(take_word(rest));
  if (!offset || !length || rest.empty() || !is_range(*offset, *length))
    co_return client.reply(501, "CKSM takes ALGORITHM OFFSET LENGTH PATH; a length of -1 reaches to the end.");
  checksum_request request;
  request.algorithm = algorithm_known(client, wanted);
  if (request.algorithm.empty())
    co_return client.reply(504, "Unknown algorithm " + std::string(wanted) + "; known are " + algorithms_text() + ".");
  const auto path = path_argument(client, rest);
  if (!path) co_return;
  request.verb = "CKSM";
  request.path = *path;
  request.offset = *offset;
  request.length = *length;
  request.progress = true;
  request.answer = [](session& of, const std::string& digest, std::int64_t) { of.reply(213, digest); };
  co_await checksum_answer(client, std::move(request));
}

handled command_hash(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path) co_return;
  checksum_request request;
  request.verb = "HASH";
  request.path = *path;
  request.algorithm = client.settings.hash_algorithm;
  request.answer = [name = hash_name(request.algorithm), argument](session& of, const std::string& digest,
                                                                   std::int64_t size) {
    of.reply(213, name + " 0-" + std::to_string(size) + " " + digest + " " + argument);
  };
  co_await checksum_answer(client, std::move(request));
}

handled command_xcrc(session& client, std::string argument) {
  return x_command(client, "XCRC", "CRC32", std::move(argument));
}
handled command_xmd5(session& client, std::string argument) {
  return x_command(client, "XMD5", "MD5", std::move(argument));
}
handled command_xsha1(session& client, std::string argument) {
  return x_command(client, "XSHA1", "SHA1", std::move(argument));
}
handled command_xsha256(session& client, std::string argument) {
  return x_command(client, "XSHA256", "SHA256", std::move(argument));
}

}  // namespace tarvex::server
