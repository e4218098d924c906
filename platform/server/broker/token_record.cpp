#include "broker/token_record.h"

#include "base/json.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tarvex::server {

namespace {

struct grant_row {
  std::string_view word;
  grant_kind grant;
};
constexpr auto GRANTS =
    std::to_array<grant_row>({{"box", grant_kind::box}, {"ccg", grant_kind::ccg}, {"jwt", grant_kind::jwt}});

json_int_t seconds_of(std::chrono::sys_seconds time) {
  return time.time_since_epoch().count();
}
std::chrono::sys_seconds time_of(const json_t* object, const char* key) {
  return std::chrono::sys_seconds(std::chrono::seconds(json_integer_of(object, key).value_or(0)));
}

json_document write_pair(const token_pair& pair) {
  json_document object = json_made(json_object());
  json_set_text(object.get(), "access", pair.access.text());
  json_set_text(object.get(), "refresh", pair.refresh.text());
  json_set_integer(object.get(), "expires_at", seconds_of(pair.expires_at));
  return object;
}

std::optional<token_pair> read_pair(const json_t* object) {
  auto access = json_text_of(object, "access");
  auto refresh = json_text_of(object, "refresh");
  if (!access || !refresh) return std::nullopt;
  return token_pair{secret(std::move(*access)), secret(std::move(*refresh)), time_of(object, "expires_at")};
}

json_document write_app(const jwt_app& app) {
  json_document object = json_made(json_object());
  json_set_text(object.get(), "client_id", app.app.client_id);
  json_set_text(object.get(), "client_secret", app.app.client_secret.text());
  json_set_text(object.get(), "key_id", app.key_id);
  json_set_text(object.get(), "private_key", app.private_key.text());
  json_set_text(object.get(), "algorithm", app.algorithm);
  return object;
}

std::optional<jwt_app> read_app(const json_t* object) {
  auto id = json_text_of(object, "client_id");
  auto client_secret = json_text_of(object, "client_secret");
  auto key_id = json_text_of(object, "key_id");
  auto key = json_text_of(object, "private_key");
  auto algorithm = json_text_of(object, "algorithm");
  if (!id || !client_secret || !key_id || !key || !algorithm) return std::nullopt;
  return jwt_app{.app = {std::move(*id), secret(std::move(*client_secret))},
                 .key_id = std::move(*key_id),
                 .private_key = secret(std::move(*key)),
                 .algorithm = std::move(*algorithm)};
}

}  // namespace

std::string_view grant_word(grant_kind grant) {
  return std::find_if(GRANTS.begin(), GRANTS.end(), [grant](const grant_row& row) { return row.grant == grant; })->word;
}

secret record_write(const token_record& record) {
  const json_document object = json_made(json_object());
  json_t* const into = object.get();
  json_set_integer(into, "generation", static_cast<json_int_t>(record.generation));
  json_set_text(into, "grant", grant_word(record.grant));
  json_set_document(into, "current", write_pair(record.current));
  if (record.previous) json_set_document(into, "previous", write_pair(*record.previous));
  json_set_integer(into, "attempt_open", record.attempt_open ? 1 : 0);
  json_set_integer(into, "renewed_at", seconds_of(record.renewed_at));
  json_set_integer(into, "sign_in_needed", record.sign_in_needed ? 1 : 0);
  json_set_text(into, "last_error", record.last_error);
  json_set_text(into, "box_user", record.box_user);
  json_set_text(into, "box_login", record.box_login);
  json_set_integer(into, "max_upload", static_cast<json_int_t>(record.max_upload));
  if (record.app) json_set_document(into, "app", write_app(*record.app));
  return secret(json_text(into));
}

std::optional<token_record> record_read(std::string_view text) {
  const json_document object = json_object_parse(text);
  const json_t* const from = object.get();
  const auto word = json_text_of(from, "grant");
  const auto grant = std::find_if(GRANTS.begin(), GRANTS.end(), [&](const grant_row& row) { return row.word == word; });
  auto current = read_pair(json_object_get(from, "current"));
  const auto generation = json_integer_of(from, "generation");
  if (grant == GRANTS.end() || !current || !generation || *generation < 0) return std::nullopt;
  token_record record;
  record.generation = static_cast<std::uint64_t>(*generation);
  record.grant = grant->grant;
  record.current = std::move(*current);
  record.previous = read_pair(json_object_get(from, "previous"));
  record.attempt_open = json_integer_of(from, "attempt_open").value_or(0) != 0;
  record.renewed_at = time_of(from, "renewed_at");
  record.sign_in_needed = json_integer_of(from, "sign_in_needed").value_or(0) != 0;
  record.last_error = json_text_of(from, "last_error").value_or("");
  record.box_user = json_text_of(from, "box_user").value_or("");
  record.box_login = json_text_of(from, "box_login").value_or("");
  record.max_upload =
      static_cast<std::uint64_t>(std::max<json_int_t>(0, json_integer_of(from, "max_upload").value_or(0)));
  record.app = read_app(json_object_get(from, "app"));
  if (record.grant == grant_kind::jwt && !record.app) return std::nullopt;
  return record;
}

bool token_lives(const token_pair& pair, std::chrono::sys_seconds now, std::chrono::seconds least) {
  return !pair.access.text().empty() && pair.expires_at - now >= least;
}

}  // namespace tarvex::server
