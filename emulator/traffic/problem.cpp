#include "traffic/problem.h"

#include "base/text.h"

namespace tarvex::emulator {
namespace {

struct problem_row {
  std::string_view code;
  unsigned status;
  std::string_view message;
};

// The first row stands for codes that are not here.
constexpr problem_row PROBLEM_ROWS[] = {
    {"bad_request", 400, "Bad Request"},
    {"bad_digest", 400, "The specified content-md5 did not match what we received"},
    {"folder_not_empty", 400, "Cannot delete \xe2\x80\x93 folder not empty"},
    {"item_name_invalid", 400, "Item name invalid"},
    {"item_name_too_long", 400, "Item name too long"},
    {"metadata_after_file_contents", 400, "Metadata must be provided before the file contents"},
    {"cyclical_folder_structure", 400, "Folder move creates cyclical folder structure"},
    {"invalid_limit", 400, "Limit is not a valid number"},
    {"invalid_offset", 400, "Offset is not a valid number"},
    {"invalid_parameter", 400, "Invalid parameter"},
    {"invalid_upload_session_id", 400, "The upload session ID provided in the URL is not valid"},
    {"user_already_collaborator", 400, "User is already a collaborator"},
    {"missing_destination", 400, "Destination parameter missing"},
    {"invalid_folder_id", 400, "Destination folder parameter is invalid"},
    {"missing_file_size", 400, "File size is missing"},
    {"invalid_file_size", 400, "File size is invalid"},
    {"missing_file_name", 400, "File name is missing"},
    {"file_size_too_small", 400, "File size too small for this API"},
    {"parts_mismatch", 400, "No matching part found on server"},
    {"digest_mismatch", 400, "File digest was incorrect"},
    {"access_denied_item_locked", 403, "Access denied - item locked"},
    {"access_denied_insufficient_permissions", 403, "Access denied - insufficient permission"},
    {"insufficient_scope", 403, "The request requires higher privileges than provided by the access token."},
    {"forbidden", 403, "Forbidden"},
    {"file_size_limit_exceeded", 403, "File size exceeds the folder owner's file size limit"},
    {"storage_limit_exceeded", 403, "Account storage limit reached"},
    {"not_found", 404, "Not Found"},
    {"trashed", 404, "Item is trashed"},
    {"not_trashed", 404, "Item is not trashed"},
    {"method_not_allowed", 405, "Method Not Allowed"},
    {"item_name_in_use", 409, "Item with the same name already exists"},
    {"name_temporarily_reserved", 409, "The item name is reserved by another processing item"},
    {"operation_blocked_temporary", 409, "The operation is blocked by another on-going operation"},
    {"session_conflict", 409, "There is already an upload session for this file"},
    {"conflict", 409, "Conflict"},
    {"session_expired", 410, "The upload session has expired"},
    {"upload_failed", 410, "The upload session failed"},
    {"length_required", 411, "Your request must contain a 'Content-Length' header"},
    {"precondition_failed", 412, "The resource has been modified. Please retrieve the resource again and retry"},
    {"request_entity_too_large", 413, "Request Entity Too Large"},
    {"range_overlaps_existing_part", 416, "Part overlaps with previously uploaded part"},
    {"range_not_satisfiable", 416, "The range does not fit the upload session"},
    {"rate_limit_exceeded", 429, "Request rate limit exceeded, please try again later"},
    {"internal_server_error", 500, "Internal Server Error"},
    {"bad_gateway", 502, "Bad Gateway"},
    {"unavailable", 503, "Unavailable"},
};

const problem_row& row_of(std::string_view code) {
  for (const problem_row& candidate : PROBLEM_ROWS) {
    if (candidate.code == code) return candidate;
  }
  return PROBLEM_ROWS[0];
}

}  // namespace

response response_json(unsigned status, const json_t* body) {
  return response_text(status, "application/json", json_text(body));
}

problem box_problem(std::string_view code, std::string_view message, json_ptr context) {
  const problem_row& known = row_of(code);
  const json_ptr body(json_object());
  json_put(body.get(), "type", "error");
  json_put(body.get(), "status", known.status);
  json_put(body.get(), "code", code);
  if (context) json_put(body.get(), "context_info", std::move(context));
  json_put(body.get(), "help_url", "http://developers.box.com/docs/#errors");
  json_put(body.get(), "message", message.empty() ? known.message : message);
  // Not the text of the BOX-REQUEST-ID header: Box's own answers differ in the two.
  json_put(body.get(), "request_id", random_hex(11));
  return {response_json(known.status, body.get())};
}

// The metadata service and parts of the upload service leave out `type` and `status`; clients can only rely on `code`.
problem short_problem(unsigned status, std::string_view code, std::string_view message) {
  const json_ptr body(json_object());
  json_put(body.get(), "message", message);
  json_put(body.get(), "code", code);
  json_put(body.get(), "request_id", random_hex(8));
  return {response_json(status, body.get())};
}

problem not_found_problem(std::string_view name, std::string_view value) {
  json_ptr error(json_object());
  // `name` is a kind of thing ("item"), `value` a typed id: neither is the name of a file.
  json_put(error.get(), "reason", "invalid_parameter");
  json_put(error.get(), "name", name);
  const std::string text = "Invalid value '" + std::string(value) + "'. '" + std::string(name) + "' with value '" +
                           std::string(value) + "' not found";
  json_put(error.get(), "message", text);
  json_ptr errors(json_array());
  json_add(errors.get(), std::move(error));
  json_ptr context(json_object());
  json_put(context.get(), "errors", std::move(errors));
  return box_problem("not_found", {}, std::move(context));
}

problem unauthorised_problem(bool had_token) {
  // Box's 401 has no body: clients have to read the header.
  response answer = response_empty(401);
  answer.headers.emplace_back("WWW-Authenticate", had_token
                                                      ? "Bearer realm=\"Service\", error=\"invalid_token\", "
                                                        "error_description=\"The access token provided is invalid.\""
                                                      : "Bearer realm=\"Service\"");
  return {std::move(answer)};
}

void require(bool condition, std::string_view message) {
  if (!condition) throw box_problem("bad_request", message);
}

}  // namespace tarvex::emulator
