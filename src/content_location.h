/// \file
/// Where a file's content is, and which part of it is asked for: what downloads and checksums share.
#pragma once

#include "request.h"

namespace tarvex::box {

/// The call that finds out where a file's content is: `out.location` is a URL that the token may go to.
/// \param range           the Range header, or none
/// \param shared_retries  attempts beyond the first, shared with the download that follows
/// \return a generic error when Box names no place, or one that is not https (or http, where the API base is).
[[nodiscard]] tarvex_result_t content_location(tarvex_box_session_t* box, const error_place& place, const char* id,
                                               const std::vector<request_header>& range, int& shared_retries,
                                               answer& out);

/// Range header for `length` bytes (-1: to the end) from `offset`; none for the whole file.
std::vector<request_header> range_headers(tarvex_off_t offset, tarvex_off_t length);

}  // namespace tarvex::box
