#include "link/messages.h"

#include "base/number.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <utility>

namespace tarvex::server {

namespace {

template <typename Value>
struct word_row {
  std::string_view word;
  Value value;
};

constexpr auto SESSION_KINDS = std::to_array<word_row<session_says::kind>>({
    {"login", session_says::kind::login},
    {"creds", session_says::kind::creds},
    {"renew-creds", session_says::kind::renew_creds},
    {"used", session_says::kind::used},
    {"leave", session_says::kind::leave},
});
constexpr auto BROKER_KINDS = std::to_array<word_row<broker_says::kind>>({
    {"ready", broker_says::kind::ready},
    {"login", broker_says::kind::login},
    {"credential", broker_says::kind::credential},
    {"end", broker_says::kind::end},
});
constexpr auto RESULTS = std::to_array<word_row<login_result>>({
    {"accepted", login_result::accepted},
    {"refused", login_result::refused},
    {"closed", login_result::closed},
    {"unavailable", login_result::unavailable},
});
template <typename Table, typename Value>
std::string_view word_of(const Table& table, Value value) {
  return std::find_if(table.begin(), table.end(), [value](const auto& row) { return row.value == value; })->word;
}

/// \return false when the member is missing, or no word of the table.
template <typename Table, typename Value>
bool read_word(const Table& table, const json_t* object, const char* key, Value& value) {
  const auto word = json_text_of(object, key);
  const auto row = std::find_if(table.begin(), table.end(), [&](const auto& known) { return known.word == word; });
  if (row == table.end()) return false;
  value = row->value;
  return true;
}

/// Numbers that count; never negative.
bool read_count(const json_t* object, const char* key, std::uint64_t& number) {
  const auto found = json_integer_of(object, key);
  if (found && *found >= 0) number = static_cast<std::uint64_t>(*found);
  return found && *found >= 0;
}

void set_count(json_t* object, const char* key, std::uint64_t number) {
  constexpr std::uint64_t MOST = std::numeric_limits<json_int_t>::max();
  json_set_integer(object, key, static_cast<json_int_t>(std::min(number, MOST)));
}

bool read_texts(const json_t* list, std::vector<std::string>& texts) {
  if (list == nullptr) return true;
  if (!json_is_array(list)) return false;
  for (std::size_t i = 0; i < json_array_size(list); ++i) {
    const json_t* const item = json_array_get(list, i);
    if (!json_is_string(item)) return false;
    texts.emplace_back(json_string_value(item), json_string_length(item));
  }
  return true;
}

/// Names and passwords are bytes of a client's, and need not be UTF-8, which JSON texts are.
secret to_hex(std::string_view bytes) {
  std::string digits;
  digits.reserve(2 * bytes.size());
  append_hex(digits, {reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
  return secret(std::move(digits));
}

std::optional<std::string> from_hex(const std::optional<std::string>& digits) {
  if (!digits || digits->size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(digits->size() / 2);
  for (std::size_t i = 0; i < digits->size(); i += 2) {
    const auto byte = parse_number<std::uint8_t>(std::string_view(*digits).substr(i, 2), 16);
    if (!byte) return std::nullopt;
    bytes.push_back(static_cast<char>(*byte));
  }
  return bytes;
}

secret as_frame(const json_document& object) {
  return secret(frame_encode(object.get()));
}

void set_login(json_t* object, const session_says& message) {
  json_set_text(object, "name", to_hex(message.name).text());
  json_set_text(object, "password", to_hex(message.password.text()).text());
  json_document names = json_made(json_array());
  for (const std::string& name : message.certificates) json_add_text(names.get(), name);
  json_set_document(object, "certificates", std::move(names));
}

void set_login(json_t* object, const broker_says& message) {
  json_set_text(object, "result", word_of(RESULTS, message.result));
  json_set_text(object, "name", message.name);
  json_set_text(object, "root", message.root);
  json_set_text(object, "permissions", account_permissions_text(message.permissions));
}

bool read_login(const json_t* object, broker_says& out) {
  out.name = json_text_of(object, "name").value_or("");
  out.root = json_text_of(object, "root").value_or("");
  const auto permissions = account_permissions_parse(json_text_of(object, "permissions").value_or(""));
  if (permissions) out.permissions = *permissions;
  return permissions && out.root.starts_with('/') && read_word(RESULTS, object, "result", out.result);
}

}  // namespace

secret message_encode(const session_says& message) try {
  const json_document object = json_made(json_object());
  json_set_text(object.get(), "says", word_of(SESSION_KINDS, message.what));
  set_count(object.get(), "id", message.id);
  set_count(object.get(), "generation", message.generation);
  if (message.what == session_says::kind::login) set_login(object.get(), message);
  return as_frame(object);
} catch (const std::bad_alloc&) {
  return {};
}

secret message_encode(const broker_says& message) try {
  const json_document object = json_made(json_object());
  json_set_text(object.get(), "says", word_of(BROKER_KINDS, message.what));
  set_count(object.get(), "id", message.id);
  set_count(object.get(), "generation", message.generation);
  json_set_integer(object.get(), "code", message.code);
  json_set_text(object.get(), "text", message.text);
  if (message.what == broker_says::kind::login) set_login(object.get(), message);
  if (message.credential) json_set_text(object.get(), "credential", *message.credential);
  return as_frame(object);
} catch (const std::bad_alloc&) {
  return {};
}

std::optional<session_says> session_message_decode(std::string_view frame) {
  const json_document object = frame_decode(frame);
  session_says out;
  if (!object || !read_word(SESSION_KINDS, object.get(), "says", out.what)) return std::nullopt;
  if (!read_count(object.get(), "id", out.id) || !read_count(object.get(), "generation", out.generation))
    return std::nullopt;
  if (out.what != session_says::kind::login) return out;
  auto name = from_hex(json_text_of(object.get(), "name"));
  auto password = from_hex(json_text_of(object.get(), "password"));
  if (!name || !password || !read_texts(json_object_get(object.get(), "certificates"), out.certificates))
    return std::nullopt;
  out.name = std::move(*name);
  out.password = secret(std::move(*password));
  return out;
}

std::optional<broker_says> broker_message_decode(std::string_view frame) {
  const json_document object = frame_decode(frame);
  broker_says out;
  if (!object || !read_word(BROKER_KINDS, object.get(), "says", out.what)) return std::nullopt;
  if (!read_count(object.get(), "id", out.id) || !read_count(object.get(), "generation", out.generation))
    return std::nullopt;
  const auto code = json_integer_of(object.get(), "code");
  if (!code || (*code != 0 && *code != 421 && *code != 530)) return std::nullopt;
  out.code = static_cast<int>(*code);
  out.text = json_text_of(object.get(), "text").value_or("");
  out.credential = json_text_of(object.get(), "credential");
  if (out.what == broker_says::kind::login && !read_login(object.get(), out)) return std::nullopt;
  return out;
}

}  // namespace tarvex::server
