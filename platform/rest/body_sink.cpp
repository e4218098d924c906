#include "body.h"
#include "error.h"
#include "json_reader.h"
#include "request_headers.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

namespace tarvex::rest {
namespace {

constexpr std::size_t JSON_LIMIT_BYTES = std::size_t{64} << 20;
constexpr std::size_t RESERVE_MAX_BYTES = std::size_t{1} << 20;

body_sink make_json_sink(json_t** document) {
  auto text = std::make_shared<std::string>();
  body_sink sink;
  sink.start = [text](const response_head& head) {
    // Announced sizes are not trusted, but spare the moving of what came before.
    const char* const announced = head.find("Content-Length");
    text->reserve(std::min(announced == nullptr ? 0 : std::strtoul(announced, nullptr, 10), RESERVE_MAX_BYTES));
    return tarvex_result_t{TARVEX_SUCCESS};
  };
  sink.push = [text](std::span<const char> piece, bool&) {
    if (piece.size() > JSON_LIMIT_BYTES - text->size()) {
      return fail(attempt::useless, "The server's answer is too long for a JSON document (more than 64 MiB).");
    }
    text->append(piece.data(), piece.size());
    return tarvex_result_t{TARVEX_SUCCESS};
  };
  sink.finish = [text, document](bool complete) {
    // What is no JSON, such as a gateway's HTML page, counts as no document.
    if (complete && *document == nullptr) *document = read_document(*text);
    return TARVEX_SUCCESS;
  };
  return sink;
}

body_sink make_caller_sink(tarvex_dsi_rest_read_t reader, void* argument) {
  body_sink sink;
  sink.push = [reader, argument](std::span<const char> piece, bool&) {
    return reader(argument, const_cast<char*>(piece.data()), piece.size());  // the interface's type lacks the const
  };
  return sink;
}

}  // namespace

tarvex_result_t make_sink(tarvex_dsi_rest_read_t reader, void* argument, const tarvex_dsi_rest_key_array_t* headers,
                          body_sink& sink) {
  sink = {};
  if (reader == nullptr) return TARVEX_SUCCESS;
  const bool stock = reader == tarvex_dsi_rest_read_json || reader == tarvex_dsi_rest_read_gridftp_op;
  if (stock && argument == nullptr) return fail(attempt::useless, "The data read callback has no argument.");
  if (reader == tarvex_dsi_rest_read_gridftp_op) {
    return make_gridftp_sink(*static_cast<tarvex_dsi_rest_gridftp_op_arg_t*>(argument),
                             range_start(find_header(headers, "Range")), sink);
  }
  sink = reader == tarvex_dsi_rest_read_json ? make_json_sink(static_cast<json_t**>(argument))
                                             : make_caller_sink(reader, argument);
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::rest
