#include "fake_operation.h"

#include "http_fixture.h"

#include <algorithm>
#include <cstring>
#include <utility>

tarvex_gfs_operation_s::tarvex_gfs_operation_s() : io_thread_([this] { complete_all(); }) {}

tarvex_gfs_operation_s::~tarvex_gfs_operation_s() {
  tarvex_dsi_rest_operation_over(this);
  const std::lock_guard lock(mutex_);
  stopping_ = true;
  changed_.notify_all();
}

tarvex_result_t tarvex_gfs_operation_s::enqueue(std::function<void()> completion) {
  const std::lock_guard lock(mutex_);
  queue_.push(std::move(completion));
  most_in_flight = std::max(most_in_flight, reads + writes - completed);
  changed_.notify_all();
  return TARVEX_SUCCESS;
}

void tarvex_gfs_operation_s::complete_all() {
  for (std::unique_lock lock(mutex_);;) {
    changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;
    const auto completion = std::move(queue_.front());
    queue_.pop();
    ++completed;
    lock.unlock();
    if (before) before();
    completion();
    lock.lock();
  }
}

void tarvex_gfs_operation_s::take(const unsigned char* buffer, std::size_t length, tarvex_off_t offset) {
  const std::lock_guard lock(mutex_);
  if (got.empty()) got_offset = offset;
  if (offset != got_offset + static_cast<tarvex_off_t>(got.size())) got_offset = -1;
  got.append(reinterpret_cast<const char*>(buffer), length);
}

std::size_t tarvex_gfs_operation_s::take_at_once(const unsigned char* buffer, std::size_t length, tarvex_off_t offset) {
  const std::size_t count = std::min(length, taken_at_once);
  if (count == 0) return 0;
  taken_at_once -= count;
  take(buffer, count, offset);
  return count;
}

// These stand in for the server library's functions of the same names.

tarvex_result_t tarvex_gridftp_server_register_read(tarvex_gfs_operation_t op, unsigned char* buffer, size_t length,
                                                    tarvex_gridftp_server_read_cb_t callback, void* user_arg) {
  const std::size_t number = op->reads++;
  if (number == op->refused_read) return failure("read refused");
  return op->enqueue([=] {
    const std::size_t offset = op->sent, left = op->sends.size() - offset;
    const std::size_t amount = std::min({length, left, op->piece_bytes});
    tarvex_result_t result = TARVEX_SUCCESS;
    if (number == op->failing_read) result = failure("read failed");
    if (length == 0 && left > 0) result = failure("too much data");
    std::memcpy(buffer, op->sends.data() + offset, amount);
    op->sent += amount;
    const bool over = amount == left && (op->eof_with_data || amount == 0);
    callback(op, result, buffer, amount, static_cast<tarvex_off_t>(offset), over || result != TARVEX_SUCCESS, user_arg);
    tarvex_result_release(result);
  });
}

tarvex_result_t tarvex_gridftp_server_register_write(tarvex_gfs_operation_t op, unsigned char* buffer, size_t length,
                                                     tarvex_off_t offset, int,
                                                     tarvex_gridftp_server_write_cb_t callback, void* user_arg) {
  if (op->writes == op->refused_write) return failure("write refused");
  return op->enqueue([=, number = op->writes++] {
    const tarvex::owned_result result(number >= op->failing_write ? failure("write failed") : tarvex_result_t{});
    if (result.ok()) op->take(buffer, length, offset);
    callback(op, result.get(), buffer, length, user_arg);
  });
}

tarvex_result_t tarvex_gridftp_server_write_now(tarvex_gfs_operation_t op, const unsigned char* buffer, size_t length,
                                                tarvex_off_t offset, size_t* sent) {
  *sent = op->take_at_once(buffer, length, offset);
  return TARVEX_SUCCESS;
}

void tarvex_gridftp_server_update_bytes_recvd(tarvex_gfs_operation_t op, tarvex_off_t nbytes) {
  op->counted += nbytes;
}
