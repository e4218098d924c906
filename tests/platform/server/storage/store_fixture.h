#pragma once

#include "session_fixture.h"

#include <atomic>
#include <future>
#include <string>

namespace tarvex::server::test {

/// What a read brought.
struct read_seen {
  bool registered = false;
  bool failed = false;
  std::string bytes;
  tarvex_off_t offset = 0;
  bool eof = false;
};

/// Registers a read, which `get` waits for. The callback must come after the registration, on another thread.
std::future<read_seen> read_register(tarvex_gfs_operation_t op, std::size_t length);

/// What a storage was told and got.
struct store_seen {
  tarvex_gfs_transfer_info_t info{};
  tarvex_off_t offset = 0, length = 0;
  time_t modified = -1;
  std::string bytes;
  bool good_end = false;
};

/// A session before a storage that stores what comes, and remembers it.
class StoreTest : public SessionTest {
 protected:
  StoreTest();

  /// Sends STOR and the bytes. \return the final reply.
  std::string store(const std::string& path, const std::string& bytes);
  /// The same; the reply starts so.
  void expect_store(const std::string& path, const std::string& bytes, const std::string& start);
  /// Takes what the storage is told, without reading.
  void note(tarvex_gfs_operation_t op, const tarvex_gfs_transfer_info_t* info);
  /// Reads all in pieces, the last of them empty, as an uploader of parts does.
  void take_all(tarvex_gfs_operation_t op, std::size_t piece);

  std::atomic<int> calls{0};  ///< of the storage's receive function
  store_seen seen;
};

}  // namespace tarvex::server::test
