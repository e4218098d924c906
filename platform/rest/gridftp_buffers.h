#pragma once

#include "tarvex_dsi_rest.h"

#include <cstddef>

namespace tarvex::rest {

// Between the HTTP connection and the client's data channel stands a ring of buffers, so that both sides move at the
// same time. Together they fit a core's share of a usual last-level cache.
inline constexpr std::size_t GRIDFTP_BUFFER_BYTES = std::size_t{512} << 10;
inline constexpr std::size_t GRIDFTP_BUFFER_COUNT = 4;

/// Refuses a range that no file can have.
[[nodiscard]] tarvex_result_t check_gridftp_range(const tarvex_dsi_rest_gridftp_op_arg_t& argument);

}  // namespace tarvex::rest
