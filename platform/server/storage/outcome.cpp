#include "storage/outcome.h"

#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

#include <charconv>

namespace tarvex::server {

namespace {

constexpr std::string_view UNKNOWN_FAILURE = "Operation failed.";

void append_lines(std::vector<std::string>& lines, const char* text) {
  std::string_view rest = text == nullptr ? std::string_view() : std::string_view(text);
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    if (end != 0) lines.emplace_back(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
}

/// The first error of the chain that a client is meant to read.
tarvex_object_t* first_response(tarvex_object_t* error) {
  while (error != nullptr && !tarvex_object_type_match(error, &TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION))
    error = tarvex_error_get_cause(error);
  return error;
}

}  // namespace

std::string outcome::text() const {
  std::string joined;
  for (const std::string& line : lines) joined.append(joined.empty() ? "" : "; ").append(line);
  return joined;
}

outcome outcome_of(tarvex_result_t result, int default_code) {
  if (result == TARVEX_SUCCESS) return {};
  tarvex_object_t* const outermost = tarvex_error_peek(result);
  tarvex_object_t* const response = first_response(outermost);
  tarvex_object_t* const start = response == nullptr ? outermost : response;

  outcome failure;
  const int code = tarvex_gfs_ftp_response_error_code(outermost);
  // A syntax error to clients, which then give up what may pass; whether it may is known by what Box said.
  const bool internal = code == 500 && result_class(result) != "NOT_IMPLEMETED";
  failure.code = code == 0 || internal ? default_code : code;
  failure.class_word = result_class(result);
  append_lines(failure.lines, c_string(tarvex_error_print_chain(start)).get());
  for (tarvex_object_t* error = outermost; error != start; error = tarvex_error_get_cause(error))
    append_lines(failure.lines, c_string(tarvex_error_print(error)).get());
  if (failure.lines.empty()) failure.lines.emplace_back(UNKNOWN_FAILURE);
  return failure;
}

outcome outcome_failure(int code, std::string_view line) {
  return {code, {std::string(line)}, {}};
}

std::string_view result_class(tarvex_result_t result) {
  const char* const word = tarvex_gfs_ftp_response_error_class(tarvex_error_peek(result));
  return word == nullptr ? std::string_view() : std::string_view(word);
}

bool result_missing(tarvex_result_t result) {
  const std::string_view word = result_class(result);
  return word == "PATH_NOT_FOUND" || word == "NOT_A_DIRECTORY";
}

std::optional<std::uint64_t> result_upload_offset(tarvex_result_t result) {
  static constexpr std::string_view KEY = "Box-Upload-Offset: \"";
  const c_string chain(tarvex_error_print_chain(tarvex_error_peek(result)));
  const std::string_view text = chain ? chain.get() : "";
  const std::size_t at = text.find(KEY);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view digits = text.substr(at + KEY.size());
  std::uint64_t offset = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), offset);
  return error == std::errc() ? std::optional(offset) : std::nullopt;
}

}  // namespace tarvex::server
