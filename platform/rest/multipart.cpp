#include "body.h"
#include "error.h"
#include "key_array.h"
#include "request_headers.h"

#include <utility>

// A multipart body (RFC 2046 section 5.1.1), with B for the boundary:
//
//   --B CRLF  Name: value CRLF ...  CRLF  content  CRLF      once for each part
//   --B-- CRLF

namespace tarvex::rest {
namespace {

tarvex_result_t make_part_head(const tarvex_dsi_rest_write_part_t& part, const std::string& boundary,
                               std::string& head) {
  head.append("--").append(boundary).append("\r\n");
  for (const auto& pair : pairs_of(&part.header)) {
    if (const tarvex_result_t result = check_header(pair); result != TARVEX_SUCCESS) return result;
    if (pair.value == nullptr || *pair.value == '\0') continue;
    head.append(pair.key).append(": ").append(pair.value).append("\r\n");
  }
  head.append("\r\n");
  return TARVEX_SUCCESS;
}

}  // namespace

tarvex_result_t make_multipart_source(const tarvex_dsi_rest_write_multipart_arg_t& multipart,
                                      const tarvex_dsi_rest_key_array_t* headers, body_source& source) {
  const std::string boundary = multipart_boundary(find_header(headers, "Content-Type"));
  if (boundary.empty()) {
    return fail(attempt::useless, "A multipart body needs a multipart Content-Type header with a valid boundary.");
  }
  if (multipart.num_parts != 0 && multipart.parts == nullptr) {
    return fail(attempt::useless, "A multipart body has a number of parts but no parts.");
  }
  std::vector<body_source> sources;
  std::string head;  // what stands before the next part's content
  for (const auto& part : std::span(multipart.parts, multipart.num_parts)) {
    tarvex_result_t result = make_part_head(part, boundary, head);
    if (result != TARVEX_SUCCESS) return result;
    sources.push_back(text_source(std::exchange(head, "\r\n")));
    result = make_source(part.data_write_callback, part.data_write_callback_arg, &part.header, sources.emplace_back());
    if (result != TARVEX_SUCCESS) return result;
  }
  head.append("--").append(boundary).append("--\r\n");
  sources.push_back(text_source(std::move(head)));
  source = joined_source(std::move(sources));
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::rest
