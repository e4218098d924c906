#include "gridftp_buffers.h"

#include "error.h"

#include <cstdint>

namespace tarvex::rest {

tarvex_result_t check_gridftp_range(const tarvex_dsi_rest_gridftp_op_arg_t& argument) {
  if (argument.offset >= 0 && argument.length >= -1 && argument.length <= INT64_MAX - argument.offset) {
    return TARVEX_SUCCESS;
  }
  return fail(attempt::useless, "The operation's range is not one of a file.");
}

}  // namespace tarvex::rest
