/// \file
/// The one request that stores a small file: a multipart form of its attributes and its content.
#pragma once

#include "request.h"
#include "tarvex_common.hpp"

#include <string>
#include <vector>

namespace tarvex::box {

struct small_upload {
  std::string name = {};
  std::string content_type = {};
  c_string attributes = {};
  std::string url = {};
  std::vector<request_header> headers = {};  ///< sent after Content-Type
  tarvex_dsi_rest_write_t write = nullptr;   ///< of the content
  void* write_arg = nullptr;
  int attempts = 1;  ///< more need content that can be written again
};

/// Content-Type with a boundary of its own.
[[nodiscard]] tarvex_result_t small_upload_content_type(std::string& content_type);

/// The attributes part as text. \param document  null when the name is no UTF-8
/// \param modtime  empty: none
/// \return null for null.
c_string small_upload_attributes(const json_ptr& document, const std::string& modtime);

/// Makes the request. \param source  who asks
[[nodiscard]] tarvex_result_t small_upload_post(tarvex_box_session_t* box, const error_source& source,
                                                const small_upload& upload, answer& out);

}  // namespace tarvex::box
