#include "base/settings.h"

#include "base/json.h"
#include "base/text.h"

#include <algorithm>
#include <sstream>
#include <variant>

namespace tarvex::emulator {
namespace {

using setting_member = std::variant<std::int64_t settings::*, bool settings::*, std::string settings::*>;

struct setting_row {
  std::string_view name;
  setting_member place;
  std::string_view choices;  // "a|b" for texts that take only these; empty: any
  std::string_view help;
};

constexpr std::string_view CONFLICT_FORMS = "object|array|missing";

const setting_row SETTING_ROWS[] = {
    {"max_upload_size", &settings::max_upload_size, "", "largest file that the users may store, bytes"},
    {"space_amount", &settings::space_amount, "", "storage of a user, bytes; used up: 403 storage_limit_exceeded"},
    {"direct_upload_maximum", &settings::direct_upload_maximum, "",
     "largest direct upload, bytes; above it 413 request_entity_too_large; 0: max_upload_size alone counts"},
    {"chunked_minimum", &settings::chunked_minimum, "", "smallest file for an upload session, bytes"},
    {"part_size", &settings::part_size, "", "part size of upload sessions, bytes; 0: 8, 32 or 64 MiB by file size"},
    {"session_lifetime_s", &settings::session_lifetime_s, "", "life of an upload session, seconds"},
    {"session_conflict", &settings::session_conflict, "",
     "a second session for one name answers 409 session_conflict with the first"},
    {"commit_pending_count", &settings::commit_pending_count, "", "how many commits of a session answer 202 first"},
    {"commit_pending_ms", &settings::commit_pending_ms, "", "how long after the first commit a session answers 202"},
    {"commit_retry_after_s", &settings::commit_retry_after_s, "", "Retry-After of these 202; below 0: none"},
    {"latency_ms", &settings::latency_ms, "", "added to each request of the API and upload addresses"},
    {"rate_limit", &settings::rate_limit, "", "whether too many requests in a minute answer 429"},
    {"rate_limit_requests", &settings::rate_limit_requests, "", "requests per minute and user"},
    {"rate_limit_uploads", &settings::rate_limit_uploads, "", "uploads per minute and user"},
    {"rate_limit_parts", &settings::rate_limit_parts, "", "whether the parts of upload sessions count as uploads"},
    {"zone_offset_minutes", &settings::zone_offset_minutes, "", "zone of the times in answers, minutes east of UTC"},
    {"next_marker", &settings::next_marker, "null|empty|missing", "next_marker of the last page"},
    {"conflict_on_upload", &settings::conflict_on_upload, CONFLICT_FORMS, "context_info.conflicts of uploads"},
    {"conflict_on_create", &settings::conflict_on_create, CONFLICT_FORMS, "the same of a new folder"},
    {"conflict_on_update", &settings::conflict_on_update, CONFLICT_FORMS, "the same of a rename or move"},
    {"metadata_conflict", &settings::metadata_conflict, "conflict|tuple_already_exists",
     "code when a metadata instance exists"},
    {"trash", &settings::trash, "", "whether deleted items go to the trash"},
    {"length_required", &settings::length_required, "", "answer bodies without Content-Length with 411"},
    {"unread_body", &settings::unread_body, "drain|close", "what happens to the rest of a body after an early error"},
    {"chunked_answers", &settings::chunked_answers, "", "send JSON answers chunked, without Content-Length"},
    {"download_lifetime_s", &settings::download_lifetime_s, "", "life of a download URL, seconds"},
    {"download_host", &settings::download_host, "", "host name of download URLs; empty: the one of the request"},
    {"upload_host", &settings::upload_host, "", "host name in session_endpoints; empty: the one of the request"},
    {"float_size_from", &settings::float_size_from, "", "sizes from here on are written as floating point, bytes"},
    {"access_token_lifetime_s", &settings::access_token_lifetime_s, "", "life of the tokens of /oauth2/token, seconds"},
    {"refresh_token_lifetime_s", &settings::refresh_token_lifetime_s, "", "life of their refresh tokens, seconds"},
    {"refresh", &settings::refresh, "grace|strict",
     "a refresh token that comes again: grace gives the same new pair until its access token is first used, strict "
     "refuses it"},
    {"consent", &settings::consent, "page|at_once",
     "the authorise address: a page to sign in on, or a code at once for the account named by the query's user (the "
     "first one without it)"},
    {"assertion_audience", &settings::assertion_audience, "",
     "what a JWT may have as aud, beside the token address as the client reached it"},
    {"clock_offset_s", &settings::clock_offset_s, "",
     "how far this Box's clock is ahead, seconds: Date, expiry of tokens and sessions, times of items"},
    {"idle_timeout_s", &settings::idle_timeout_s, "", "a connection that moves nothing for so long is closed, seconds"},
};

/// Puts a text into a member of whatever kind; returns the refusal.
struct assign {
  settings& values;
  const setting_row& to;
  std::string_view text;

  std::string operator()(std::int64_t settings::*place) const {
    const auto number = number_of(text);
    if (!number) return "setting " + std::string(to.name) + " wants a whole number, not '" + std::string(text) + "'";
    values.*place = *number;
    return {};
  }
  std::string operator()(bool settings::*place) const {
    if (text != "true" && text != "false") return "setting " + std::string(to.name) + " wants true or false";
    values.*place = text == "true";
    return {};
  }
  std::string operator()(std::string settings::*place) const {
    const auto choices = split(to.choices, '|');
    if (!to.choices.empty() && std::find(choices.begin(), choices.end(), text) == choices.end()) {
      return "setting " + std::string(to.name) + " wants one of " + std::string(to.choices);
    }
    values.*place = text;
    return {};
  }
};

struct show {
  const settings& values;
  std::string operator()(std::int64_t settings::*place) const { return std::to_string(values.*place); }
  std::string operator()(bool settings::*place) const { return values.*place ? "true" : "false"; }
  std::string operator()(std::string settings::*place) const { return values.*place; }
};

/// A setting in JSON may come as a number, as true, or as the text that the command line would take.
std::string text_of(const json_t* value) {
  if (json_is_string(value)) return json_string_value(value);
  return json_text(value);
}

}  // namespace

std::string settings_set(settings& values, std::string_view name, std::string_view text) {
  for (const setting_row& candidate : SETTING_ROWS) {
    if (candidate.name == name) return std::visit(assign{values, candidate, text}, candidate.place);
  }
  return "unknown setting '" + std::string(name) + "'; --help lists them";
}

std::string settings_apply(settings& values, const json_t* object) {
  if (!json_is_object(object)) return "settings must be an object of names and values";
  const char* name = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(object), name, value) {
    if (std::string refusal = settings_set(values, name, text_of(value)); !refusal.empty()) return refusal;
  }
  return {};
}

std::string settings_help() {
  std::ostringstream text;
  const settings defaults;
  for (const setting_row& line : SETTING_ROWS) {
    const std::string value = std::visit(show{defaults}, line.place);
    text << "  " << line.name << '=' << (value.empty() ? "" : value) << '\n' << "      " << line.help;
    if (!line.choices.empty()) text << " (" << line.choices << ')';
    text << '\n';
  }
  return text.str();
}

}  // namespace tarvex::emulator
