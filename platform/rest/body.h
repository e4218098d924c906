/// \file
/// What a request sends and what it does with the answer's body, as records of functions. A source or sink lives for
/// one request and is used by the requesting thread alone; what its functions throw becomes the request's failure.
#pragma once

#include "response_head.h"
#include "tarvex_dsi_rest.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tarvex::rest {

/// Yields a request's body.
struct body_source {
  /// Writes the next bytes into `room`; `amount` takes their number, 0 at the end. May block for data to come.
  std::function<tarvex_result_t(std::span<char> room, std::size_t& amount)> pull;
  std::optional<std::uint64_t> length_bytes;  ///< nothing: known only at the end
  std::function<void()> rewind;               ///< starts over; empty: it cannot
};

/// Takes an answer's body. The calls come in the order of the fields.
struct body_sink {
  /// The final answer's status and headers are in.
  std::function<tarvex_result_t(const response_head& head)> start = [](const auto&) { return TARVEX_SUCCESS; };
  /// The next bytes; setting `full` ends the request with success. May block.
  std::function<tarvex_result_t(std::span<const char> piece, bool& full)> push = [](auto, bool&) {
    return TARVEX_SUCCESS;
  };
  /// Nothing more has arrived for now.
  std::function<tarvex_result_t()> idle = [] { return TARVEX_SUCCESS; };
  /// The request is over; `complete`: with the whole body. What was handed on is settled when this returns.
  std::function<tarvex_result_t(bool complete)> finish = [](bool) { return TARVEX_SUCCESS; };
};

/// The source behind a data write callback, stock or the caller's own. Null: an empty body.
/// \param headers  of the request or part that has the body; a multipart body takes its boundary from there
[[nodiscard]] tarvex_result_t make_source(tarvex_dsi_rest_write_t writer, void* argument,
                                          const tarvex_dsi_rest_key_array_t* headers, body_source& source);

/// The sink behind a data read callback, stock or the caller's own. Null: the body is dropped.
/// \param headers  of the request
[[nodiscard]] tarvex_result_t make_sink(tarvex_dsi_rest_read_t reader, void* argument,
                                        const tarvex_dsi_rest_key_array_t* headers, body_sink& sink);

/// A source of the given bytes, borrowed.
[[nodiscard]] body_source memory_source(std::span<const char> bytes);

/// A source of a text of its own.
[[nodiscard]] body_source text_source(std::string text);

/// One source after the other.
[[nodiscard]] body_source joined_source(std::vector<body_source> sources);

[[nodiscard]] tarvex_result_t make_multipart_source(const tarvex_dsi_rest_write_multipart_arg_t& multipart,
                                                    const tarvex_dsi_rest_key_array_t* headers, body_source& source);

[[nodiscard]] tarvex_result_t make_gridftp_source(tarvex_dsi_rest_gridftp_op_arg_t& argument, body_source& source);

/// \param asked_start  first byte that the request's Range header asks for; nothing: it asks for no range
[[nodiscard]] tarvex_result_t make_gridftp_sink(tarvex_dsi_rest_gridftp_op_arg_t& argument,
                                                std::optional<std::int64_t> asked_start, body_sink& sink);

}  // namespace tarvex::rest
