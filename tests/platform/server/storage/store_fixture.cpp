#include "storage/store_fixture.h"

#include <algorithm>
#include <memory>
#include <thread>

namespace tarvex::server::test {

std::future<read_seen> read_register(tarvex_gfs_operation_t op, std::size_t length) {
  struct pending {
    std::promise<read_seen> promise;
    std::string buffer;
    std::thread::id caller = std::this_thread::get_id();
  };
  auto read = std::make_unique<pending>();
  read->buffer.resize(length);
  std::future<read_seen> seen = read->promise.get_future();
  const auto callback = [](tarvex_gfs_operation_t, tarvex_result_t result, unsigned char* buffer, size_t nbytes,
                           tarvex_off_t offset, bool eof, void* argument) {
    const std::unique_ptr<pending> owned(static_cast<pending*>(argument));
    EXPECT_NE(owned->caller, std::this_thread::get_id());
    EXPECT_EQ(static_cast<void*>(buffer), owned->buffer.data());
    EXPECT_TRUE(nbytes > 0 || eof) << "nothing came, and yet it is not the end";
    const bool failed = result != TARVEX_SUCCESS;
    EXPECT_TRUE(!failed || eof);
    owned->promise.set_value({true, failed, owned->buffer.substr(0, nbytes), offset, eof});
  };
  const tarvex_result_t registered = tarvex_gridftp_server_register_read(
      op, reinterpret_cast<unsigned char*>(read->buffer.data()), length, callback, read.get());
  if (registered == TARVEX_SUCCESS) {
    (void)read.release();  // the callback's now
  } else {
    tarvex_result_release(registered);
    read->promise.set_value({.registered = false, .failed = true, .bytes = {}, .offset = 0, .eof = true});
  }
  return seen;
}

StoreTest::StoreTest() {
  script.recv = [this](auto op, auto* info) {
    note(op, info);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    take_all(op, 100'000);
    tarvex_gridftp_server_finished_transfer(op, seen.good_end ? tarvex_result_t{TARVEX_SUCCESS} : TARVEX_FAILURE);
  };
}

void StoreTest::note(tarvex_gfs_operation_t op, const tarvex_gfs_transfer_info_t* info) {
  ++calls;
  seen = {};
  seen.info = *info;
  tarvex_gridftp_server_get_write_range(op, &seen.offset, &seen.length);
  EXPECT_EQ(tarvex_gridftp_server_get_recv_modification_time(op, &seen.modified), TARVEX_SUCCESS);
}

void StoreTest::take_all(tarvex_gfs_operation_t op, std::size_t piece) {
  while (true) {
    const std::size_t left = seen.info.alloc_size - static_cast<std::size_t>(seen.offset) - seen.bytes.size();
    const read_seen read = read_register(op, std::min(piece, left)).get();
    EXPECT_TRUE(read.failed || read.offset == seen.offset + static_cast<tarvex_off_t>(seen.bytes.size()));
    seen.bytes += read.bytes;
    seen.good_end = read.eof && !read.failed;
    if (read.eof) return;
  }
}

std::string StoreTest::store(const std::string& path, const std::string& bytes) {
  loopback_socket data = passive();
  const std::string answer = command("STOR " + path);
  if (!answer.starts_with("150 ")) return answer;
  data.write(bytes);
  data.close();
  return reply();
}

void StoreTest::expect_store(const std::string& path, const std::string& bytes, const std::string& start) {
  EXPECT_THAT(store(path, bytes), StartsWith(start));
}

}  // namespace tarvex::server::test
