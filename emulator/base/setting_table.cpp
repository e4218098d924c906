// All settings: name, place, choices and meaning.
#include "base/setting_row.h"

namespace tarvex::emulator {
namespace {

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
    {"commit_pending_above", &settings::commit_pending_above, "", "only files of more bytes than this get a 202", 0},
    {"content_pending_ms", &settings::content_pending_ms, "",
     "how long after its store the content of a version answers 202 with Retry-After", 0},
    {"listing_lag_ms", &settings::listing_lag_ms, "",
     "how long a listing shows new files, folders and web links not yet, and files with a new version as they were", 0},
    {"name_reserved_ms", &settings::name_reserved_ms, "",
     "how long after its deletion an item's name answers 409 name_temporarily_reserved in its folder", 0},
    {"latency_ms", &settings::latency_ms, "", "before the answer to each request, milliseconds", 0},
    {"latency_jitter_ms", &settings::latency_jitter_ms, "", "how much longer or shorter that is at most", 0},
    {"upload_latency_ms", &settings::upload_latency_ms, "",
     "the same for direct uploads and new upload sessions; below 0: latency_ms", -1},
    {"part_latency_ms", &settings::part_latency_ms, "", "the same for parts; below 0: latency_ms", -1},
    {"download_latency_ms", &settings::download_latency_ms, "",
     "the same for the download address; below 0: latency_ms", -1},
    {"sign_in_latency_ms", &settings::sign_in_latency_ms, "", "the same for tokens; below 0: latency_ms", -1},
    {"connection_rate", &settings::connection_rate, "",
     "bytes a second that one connection takes in and gives out; 0: all that it can", 0},
    {"upload_connection_rate", &settings::upload_connection_rate, "",
     "the same for uploads and parts; below 0: connection_rate", -1},
    {"download_connection_rate", &settings::download_connection_rate, "",
     "the same for the download address; below 0: connection_rate", -1},
    {"account_requests_per_minute", &settings::account_requests_per_minute, "",
     "requests of one user in a minute, above it 429 with Retry-After; 0: no limit (Box: 1000)", 0},
    {"account_uploads_per_minute", &settings::account_uploads_per_minute, "",
     "uploads and new upload sessions of one user in a minute; 0: no limit (Box: 240)", 0},
    {"account_parts_are_uploads", &settings::account_parts_are_uploads, "", "whether parts count as uploads there"},
    {"trouble_on", &settings::trouble_on, "api,upload,part,download,sign_in",
     "where the probabilities below count, with commas between"},
    {"throttle_probability", &settings::throttle_probability, "", "share of requests that get 429 with Retry-After"},
    {"failure_probability", &settings::failure_probability, "",
     "share that get 500, every other one of them after it was carried out"},
    {"unavailable_probability", &settings::unavailable_probability, "", "share that get 503 with Retry-After"},
    {"cut_probability", &settings::cut_probability, "",
     "share whose connection is cut: in the body, before the answer or in it"},
    {"part_answer_lost_probability", &settings::part_answer_lost_probability, "",
     "share of parts that are stored and whose answer is lost"},
    {"seed", &settings::seed, "",
     "fixes jitter and all probabilities: the same requests meet the same; 0: another one at each start", 0},
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

}  // namespace

std::span<const setting_row> setting_rows() {
  return SETTING_ROWS;
}

}  // namespace tarvex::emulator
