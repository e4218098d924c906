#include "tarvex_box_common.h"

#include <climits>

/// A setting with its default and its range. The constants have the setting's name, so that whoever finds the one by
/// name finds the others; constants cannot be taken for settings, which are writable.
#define TARVEX_L_BOX_SETTING(name, value, least, most) \
  int tarvex_i_box_##name = value;                     \
  const int tarvex_i_box_##name##_min = least;         \
  const int tarvex_i_box_##name##_max = most;          \
  static_assert(least <= (value) && (value) <= (most))

TARVEX_L_BOX_SETTING(api_per_second, 16, 1, 1000000);  // the spacing is counted in microseconds
TARVEX_L_BOX_SETTING(upload_per_second, 4, 1, 1000000);
TARVEX_L_BOX_SETTING(max_delay, 25, 0, 3600);
TARVEX_L_BOX_SETTING(max_retries, 3, 0, 100);
TARVEX_L_BOX_SETTING(progress_timeout_ms, 30000, 1, 3600000);
TARVEX_L_BOX_SETTING(chunked_minimum, 52428800, 0, INT_MAX);
TARVEX_L_BOX_SETTING(commit_attempts, 5, 1, 1000);
TARVEX_L_BOX_SETTING(cksm_restart, 0, 0, 1);
TARVEX_L_BOX_SETTING(abort_sessions, 0, 0, 1);
TARVEX_L_BOX_SETTING(abort_uploads, 0, 0, 1);
TARVEX_L_BOX_SETTING(replace_as_version, 0, 0, 1);
TARVEX_L_BOX_SETTING(part_concurrency, 1, 1, 8);
TARVEX_L_BOX_SETTING(part_memory, 134217728, 1048576, INT_MAX);
TARVEX_L_BOX_SETTING(part_paced, 0, 0, 1);
TARVEX_L_BOX_SETTING(download_streams, 1, 1, 8);
TARVEX_L_BOX_SETTING(download_stream_minimum, 268435456, 0, INT_MAX);
TARVEX_L_BOX_SETTING(download_range, 16777216, 1048576, 268435456);
TARVEX_L_BOX_SETTING(page_limit, 300, 1, 1000);  // Box gives no more than 1000
TARVEX_L_BOX_SETTING(empty_marker_ends, 0, 0, 1);
TARVEX_L_BOX_SETTING(web_links, 1, 0, 1);

const char* tarvex_i_box_retry_path = "$HOME/.tarvex/box-r";
const char* tarvex_i_box_upload_path = "$HOME/.tarvex/box-u";
