#include "session/session_state.h"
#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "storage/transfer.h"
#include "tarvex_gridftp_server.h"

#include <algorithm>
#include <limits>
#include <mutex>

using tarvex::server::data_piece;
using tarvex::server::guard_result;
using tarvex::server::operation_complete;
using tarvex::server::operation_kind;

namespace {

constexpr std::size_t BLOCK_BYTES = 512 * 1024;
constexpr int CONCURRENCY = 4;

tarvex_result_t channel_error() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 426, "CONNECTION_CLOSED",
                                                                  "The data connection is closed."));
}

tarvex_result_t order_error(tarvex_off_t offset, tarvex_off_t expected) {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
      nullptr, nullptr, 451, "INTERNAL_ERROR", "Bytes at %lld were sent where those at %lld were due.",
      static_cast<long long>(offset), static_cast<long long>(expected)));
}

/// Cuts off what was sent already; fails where bytes would be missing.
tarvex_result_t piece_trim(tarvex_gfs_operation_s& op, data_piece& piece, tarvex_off_t offset) {
  const auto length = static_cast<tarvex_off_t>(piece.length);
  if (offset < 0 || offset > op.next_offset || length > std::numeric_limits<tarvex_off_t>::max() - offset)
    return order_error(offset, op.next_offset);
  const tarvex_off_t sent = std::min(op.next_offset - offset, length);
  piece.bytes += sent;
  piece.length -= static_cast<std::size_t>(sent);
  return TARVEX_SUCCESS;
}

/// The callback of a registered write, called once on the I/O thread.
struct registered_write {
  tarvex_gfs_operation_t op;
  unsigned char* buffer;
  std::size_t length;
  tarvex_gridftp_server_write_cb_t callback;
  void* user_arg;

  void operator()(bool sent) const {
    const tarvex::owned_result result(sent ? tarvex_result_t{TARVEX_SUCCESS} : channel_error());
    if (callback) callback(op, result.get(), buffer, length, user_arg);
  }
};

bool takes_bytes(const tarvex_gfs_operation_s& op) {
  return (op.sink || (op.transfer && op.transfer->begun())) && !op.cancelled && !op.finished;
}

/// Hands a piece on. \return false when nobody takes it any more.
bool piece_push(tarvex_gfs_operation_s& op, data_piece piece) {
  if (!op.sink) return op.transfer->stream().push(std::move(piece));
  op.session.loop.post([&op, piece = std::move(piece)] {
    op.sink({reinterpret_cast<const std::byte*>(piece.bytes), piece.length});
    piece.done(true);
  });
  return true;
}

}  // namespace

void tarvex_gridftp_server_begin_transfer(tarvex_gfs_operation_t op, int, void*) {
  (void)guard_result([&]() -> tarvex_result_t {
    if (op->transfer) op->transfer->begin();
    return TARVEX_SUCCESS;
  });
}

void tarvex_gridftp_server_get_read_range(tarvex_gfs_operation_t op, tarvex_off_t* offset, tarvex_off_t* length) {
  const std::lock_guard lock(op->order_mutex);
  tarvex::server::byte_range range{op->next_offset, 0};
  if (!op->ranges.empty()) {
    range = op->ranges.front();
    op->ranges.pop_front();
    op->next_offset = range.offset;
  }
  *offset = range.offset;
  *length = range.length;
}

tarvex_result_t tarvex_gridftp_server_register_write(tarvex_gfs_operation_t op, unsigned char* buffer, size_t length,
                                                     tarvex_off_t offset, int,
                                                     tarvex_gridftp_server_write_cb_t callback, void* user_arg) {
  return guard_result([&]() -> tarvex_result_t {
    if (!takes_bytes(*op)) return channel_error();
    data_piece piece{buffer, length, {}, registered_write{op, buffer, length, callback, user_arg}};
    const std::lock_guard lock(op->order_mutex);
    if (const tarvex_result_t refused = piece_trim(*op, piece, offset); refused != TARVEX_SUCCESS) return refused;
    const auto taken = static_cast<tarvex_off_t>(piece.length);
    if (!piece_push(*op, std::move(piece))) return channel_error();
    op->next_offset += taken;
    return TARVEX_SUCCESS;
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
