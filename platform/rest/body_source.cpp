#include "body.h"
#include "error.h"
#include "tarvex_common.hpp"

#include <jansson.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <utility>

namespace tarvex::rest {
namespace {

/// Sources in a row, and which of them is at work.
struct source_row {
  std::vector<body_source> sources;
  std::size_t current = 0;

  tarvex_result_t pull(std::span<char> room, std::size_t& amount) {
    for (amount = 0; current < sources.size(); ++current) {
      const tarvex_result_t result = sources[current].pull(room, amount);
      if (result != TARVEX_SUCCESS || amount > 0) return result;
    }
    return TARVEX_SUCCESS;
  }

  void rewind() {
    for (auto& source : sources) source.rewind();
    current = 0;
  }
};

std::optional<std::uint64_t> total_length(const std::vector<body_source>& sources) {
  std::uint64_t total = 0;
  for (const auto& source : sources) {
    if (!source.length_bytes || __builtin_add_overflow(total, *source.length_bytes, &total)) return std::nullopt;
  }
  return total;
}

tarvex_result_t make_json_source(const json_t* document, body_source& source) {
  const c_string text(json_dumps(document, JSON_COMPACT | JSON_ENCODE_ANY));
  if (text == nullptr) return fail(attempt::useless, "The request's body is no JSON document.");
  source = text_source(text.get());
  return TARVEX_SUCCESS;
}

tarvex_result_t make_block_source(const tarvex_dsi_rest_write_block_arg_t& block, body_source& source) {
  if (block.block_data == nullptr && block.block_len != 0) {
    return fail(attempt::useless, "The request's body has a length but no data.");
  }
  source = memory_source({static_cast<const char*>(block.block_data), block.block_len});
  return TARVEX_SUCCESS;
}

/// What the caller's own function writes. It cannot be asked for the same bytes twice.
tarvex_result_t make_caller_source(tarvex_dsi_rest_write_t writer, void* argument, body_source& source) {
  source.pull = [writer, argument](std::span<char> room, std::size_t& amount) {
    const tarvex_result_t result = writer(argument, room.data(), room.size(), &amount);
    if (result != TARVEX_SUCCESS || amount <= room.size()) return result;
    return fail(attempt::useless, "A data write callback wrote beyond its buffer.");
  };
  return TARVEX_SUCCESS;
}

}  // namespace

body_source memory_source(std::span<const char> bytes) {
  auto rest = std::make_shared<std::span<const char>>(bytes);
  return {.pull =
              [rest](std::span<char> room, std::size_t& amount) {
                amount = std::min(room.size(), rest->size());
                std::copy_n(rest->data(), amount, room.data());
                *rest = rest->subspan(amount);
                return TARVEX_SUCCESS;
              },
          .length_bytes = bytes.size(),
          .rewind = [rest, bytes] { *rest = bytes; }};
}

body_source text_source(std::string text) {
  auto owned = std::make_shared<const std::string>(std::move(text));
  body_source source = memory_source(*owned);
  source.pull = [owned, pull = std::move(source.pull)](std::span<char> room, std::size_t& amount) {
    return pull(room, amount);
  };
  return source;
}

body_source joined_source(std::vector<body_source> sources) {
  const bool rewindable =
      std::all_of(sources.begin(), sources.end(), [](const auto& source) { return bool(source.rewind); });
  auto row = std::make_shared<source_row>(source_row{std::move(sources)});
  body_source joined;
  joined.pull = [row](std::span<char> room, std::size_t& amount) { return row->pull(room, amount); };
  joined.length_bytes = total_length(row->sources);
  if (rewindable) joined.rewind = [row] { row->rewind(); };
  return joined;
}

tarvex_result_t make_source(tarvex_dsi_rest_write_t writer, void* argument, const tarvex_dsi_rest_key_array_t* headers,
                            body_source& source) {
  source = memory_source({});
  if (writer == nullptr) return TARVEX_SUCCESS;
  if (writer == tarvex_dsi_rest_write_json) return make_json_source(static_cast<const json_t*>(argument), source);
  const bool stock = writer == tarvex_dsi_rest_write_block || writer == tarvex_dsi_rest_write_multipart ||
                     writer == tarvex_dsi_rest_write_gridftp_op;
  if (stock && argument == nullptr) return fail(attempt::useless, "The data write callback has no argument.");
  if (writer == tarvex_dsi_rest_write_block) {
    return make_block_source(*static_cast<tarvex_dsi_rest_write_block_arg_t*>(argument), source);
  }
  if (writer == tarvex_dsi_rest_write_multipart) {
    return make_multipart_source(*static_cast<tarvex_dsi_rest_write_multipart_arg_t*>(argument), headers, source);
  }
  if (writer == tarvex_dsi_rest_write_gridftp_op) {
    return make_gridftp_source(*static_cast<tarvex_dsi_rest_gridftp_op_arg_t*>(argument), source);
  }
  source = {};
  return make_caller_source(writer, argument, source);
}

}  // namespace tarvex::rest
