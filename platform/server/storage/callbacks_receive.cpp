#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "storage/store.h"
#include "storage/transfer.h"
#include "tarvex_gridftp_server.h"

using tarvex::server::guard_result;

namespace {

tarvex_result_t data_error() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 426, "CONNECTION_CLOSED",
                                                                  "The client's data did not come to a good end."));
}

tarvex_result_t no_store_error() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 502, "NOT_IMPLEMENTED",
                                                                  "This transfer stores nothing."));
}

/// The callback of a registered read, called once on the I/O thread.
struct registered_read {
  tarvex_gfs_operation_t op;
  unsigned char* buffer;
  tarvex_gridftp_server_read_cb_t callback;
  void* user_arg;

  void operator()(const tarvex::server::read_outcome& outcome) const {
    const tarvex::owned_result result(outcome.failed ? data_error() : tarvex_result_t{TARVEX_SUCCESS});
    if (callback)
      callback(op, result.get(), buffer, outcome.bytes, static_cast<tarvex_off_t>(outcome.offset), outcome.eof,
               user_arg);
  }
};

}  // namespace

void tarvex_gridftp_server_get_write_range(tarvex_gfs_operation_t op, tarvex_off_t* offset, tarvex_off_t* length) {
  const tarvex::server::byte_range range = op->store ? op->store->write_range() : tarvex::server::byte_range{0, 0};
  *offset = range.offset;
  *length = range.length;
}

tarvex_result_t tarvex_gridftp_server_get_recv_modification_time(tarvex_gfs_operation_t op, time_t* modification_time) {
  *modification_time = op->store ? op->store->request().modification_time : -1;
  return op->store ? tarvex_result_t{TARVEX_SUCCESS} : no_store_error();
}

tarvex_result_t tarvex_gridftp_server_register_read(tarvex_gfs_operation_t op, unsigned char* buffer, size_t length,
                                                    tarvex_gridftp_server_read_cb_t callback, void* user_arg) {
  return guard_result([&]() -> tarvex_result_t {
    if (!op->store) return no_store_error();
    if (!op->transfer->begun() || op->cancelled || op->finished) return data_error();
    const bool taken = op->store->read({buffer, length, registered_read{op, buffer, callback, user_arg}});
    return taken ? tarvex_result_t{TARVEX_SUCCESS} : data_error();
  });
}

void tarvex_gridftp_server_update_bytes_recvd(tarvex_gfs_operation_t op, tarvex_off_t nbytes) {
  if (op->store && nbytes > 0) op->store->count_stored(static_cast<std::uint64_t>(nbytes));
}
