#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "storage/outgoing.h"
#include "storage/transfer.h"
#include "tarvex_gridftp_server.h"

#include <span>

using tarvex::server::guard_result;
using tarvex::server::operation_complete;
using tarvex::server::operation_kind;

namespace {

constexpr std::size_t BLOCK_BYTES = 512 * 1024;
constexpr int CONCURRENCY = 4;

/// The callback of a registered write, called once on the I/O thread.
struct registered_write {
  tarvex_gfs_operation_t op;
  unsigned char* buffer;
  std::size_t length;
  tarvex_gridftp_server_write_cb_t callback;
  void* user_arg;

  void operator()(bool sent) const {
    const tarvex::owned_result result(sent ? tarvex_result_t{TARVEX_SUCCESS}
                                           : tarvex::server::data_channel_closed_error());
    if (callback) callback(op, result.get(), buffer, length, user_arg);
  }
};

bool sends(const tarvex::server::operation& op) {
  const bool begun = !op.transfer || op.transfer->begun();
  return op.sends && begun && !op.cancelled && !op.finished;
}

}  // namespace

void tarvex_gridftp_server_begin_transfer(tarvex_gfs_operation_t op, int, void*) {
  (void)guard_result([&]() -> tarvex_result_t {
    if (op->transfer) op->transfer->begin();
    return TARVEX_SUCCESS;
  });
}

void tarvex_gridftp_server_get_read_range(tarvex_gfs_operation_t op, tarvex_off_t* offset, tarvex_off_t* length) {
  const tarvex::server::byte_range range = op->sends ? op->sends->next_range() : tarvex::server::byte_range{0, 0};
  *offset = range.offset;
  *length = range.length;
}

bool tarvex_gridftp_server_allow_unordered_writes(tarvex_gfs_operation_t op) {
  const bool allowed = op->sends && op->transfer && op->transfer->takes_any_order();
  if (allowed) op->sends->allow_any_order();
  return allowed;
}

tarvex_result_t tarvex_gridftp_server_register_write(tarvex_gfs_operation_t op, unsigned char* buffer, size_t length,
                                                     tarvex_off_t offset, int,
                                                     tarvex_gridftp_server_write_cb_t callback, void* user_arg) {
  return guard_result([&]() -> tarvex_result_t {
    if (!sends(*op)) return tarvex::server::data_channel_closed_error();
    return op->sends->push({buffer, length, {}, registered_write{op, buffer, length, callback, user_arg}}, offset);
  });
}

tarvex_result_t tarvex_gridftp_server_write_now(tarvex_gfs_operation_t op, const unsigned char* buffer, size_t length,
                                                tarvex_off_t offset, size_t* sent) {
  *sent = 0;
  return guard_result([&]() -> tarvex_result_t {
    if (!sends(*op)) return tarvex::server::data_channel_closed_error();
    const auto send = [op](std::span<const unsigned char> bytes) {
      return op->transfer ? op->transfer->write_now(bytes) : 0;
    };
    return op->sends->write_now({buffer, length}, offset, send, *sent);
  });
}

void tarvex_gridftp_server_get_block_size(tarvex_gfs_operation_t, size_t* block_size) {
  *block_size = BLOCK_BYTES;
}
void tarvex_gridftp_server_get_optimal_concurrency(tarvex_gfs_operation_t, int* count) {
  *count = CONCURRENCY;
}

void tarvex_gridftp_server_finished_transfer(tarvex_gfs_operation_t op, tarvex_result_t result) {
  (void)operation_complete(*op, operation_kind::transfer, result);
}
