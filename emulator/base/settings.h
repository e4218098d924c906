#pragma once

#include "base/json.h"

#include <jansson.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// How this Box behaves where Box accounts, plans and versions differ. Every member has a name for the command line,
/// for the settings of a fault and for the control address; `settings_help` lists them.
struct settings {
  std::int64_t max_upload_size = 5368709120;
  std::int64_t space_amount = 1000000000000000;
  std::int64_t direct_upload_maximum = 0;
  std::int64_t chunked_minimum = 20000000;
  std::int64_t part_size = 0;
  std::int64_t session_lifetime_s = 7L * 86400;
  bool session_conflict = false;
  std::int64_t commit_pending_count = 0;
  std::int64_t commit_pending_ms = 0;
  std::int64_t commit_retry_after_s = 1;
  std::int64_t commit_pending_above = 0;
  std::int64_t content_pending_ms = 0;
  std::int64_t listing_lag_ms = 0;
  std::int64_t name_reserved_ms = 0;
  std::int64_t latency_ms = 0;
  std::int64_t latency_jitter_ms = 0;
  std::int64_t upload_latency_ms = -1;
  std::int64_t part_latency_ms = -1;
  std::int64_t download_latency_ms = 0;
  std::int64_t sign_in_latency_ms = -1;
  std::int64_t connection_rate = 0;
  std::int64_t upload_connection_rate = -1;
  std::int64_t download_connection_rate = -1;
  std::int64_t account_requests_per_minute = 0;
  std::int64_t account_uploads_per_minute = 0;
  bool account_parts_are_uploads = true;
  std::string trouble_on = "api,upload,part,download";
  double throttle_probability = 0;
  double failure_probability = 0;
  double unavailable_probability = 0;
  double cut_probability = 0;
  double part_answer_lost_probability = 0;
  std::int64_t seed = 0;
  std::int64_t zone_offset_minutes = -480;
  std::string next_marker = "null";
  std::string conflict_on_upload = "object";
  std::string conflict_on_create = "array";
  std::string conflict_on_update = "missing";
  std::string metadata_conflict = "conflict";
  bool trash = true;
  bool length_required = false;
  std::string unread_body = "drain";
  bool chunked_answers = false;
  std::int64_t download_lifetime_s = 900;
  std::string download_host;
  std::string upload_host;
  std::int64_t float_size_from = 10000000000000;
  std::int64_t access_token_lifetime_s = 3600;
  std::int64_t refresh_token_lifetime_s = 60L * 86400;
  std::string refresh = "grace";
  std::string consent = "page";
  std::string assertion_audience = "https://api.box.com/oauth2/token";
  std::int64_t clock_offset_s = 0;
  std::int64_t idle_timeout_s = 300;
};

/// Sets one member from text. Returns an empty text, or what is wrong with the name or the value.
[[nodiscard]] std::string settings_set(settings& values, std::string_view name, std::string_view text);

/// All members by name, as they are.
[[nodiscard]] json_ptr settings_json(const settings& values);

/// Sets the members that a JSON object names (strings, numbers, booleans). Returns as above.
[[nodiscard]] std::string settings_apply(settings& values, const json_t* object);

/// One line for each member: name, kind, default and meaning.
[[nodiscard]] std::string settings_help();

}  // namespace tarvex::emulator
