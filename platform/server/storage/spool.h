#pragma once

#include "tarvex_common.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::server {

struct spool_budget;

/// Where a spool keeps its bytes.
struct spool_options {
  std::size_t memory_bytes = 0;    ///< as many stay in memory; more than that go to a file, all of them
  std::uint64_t limit_bytes = 0;   ///< of the whole; 0: as the disk allows
  std::string directory = {};      ///< of the file; empty: $TMPDIR, or /var/tmp
  spool_budget* budget = nullptr;  ///< shared by all spools; null: none
  std::size_t share = 0;           ///< of the budget
};

/// Holds a stored file whose size is not known yet. The file has no name, so it is gone with its owner, however that
/// ends. Movable (what was moved from may only be destroyed or assigned to); one thread at a time.
class spool {
 public:
  explicit spool(spool_options options) : options_(std::move(options)) {}
  ~spool();
  spool(spool&& other) noexcept;
  spool& operator=(spool&& other) noexcept;

  /// Adds bytes at the end.
  /// \return 0; `EFBIG` beyond the limit; `ENOMEM`; what making or writing the file failed with (`ENOSPC`, `EDQUOT`,
  /// `EIO`, ...); `EDQUOT` also where all sessions' spools hold as much as they may. After a failure the size and the
  /// bytes before are as they were.
  [[nodiscard]] int append(std::span<const std::byte> bytes);

  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] bool in_memory() const { return file_.get() < 0; }

  /// Copies from `offset` on into `out`, as far as the spool reaches.
  /// \param got  how many bytes were copied; less than asked for only at the end
  /// \return 0, or the errno of reading the file.
  [[nodiscard]] int read(std::uint64_t offset, std::span<std::byte> out, std::size_t& got) const;

 private:
  /// Blocks, so that growing moves no bytes.
  static constexpr std::size_t BLOCK_BYTES = 1 << 20;

  [[nodiscard]] bool take_memory();
  [[nodiscard]] bool take_disk(std::uint64_t bytes);
  void give_memory_back();
  void give_disk_back(std::uint64_t bytes);
  [[nodiscard]] int append_to_file(std::span<const std::byte> bytes);
  [[nodiscard]] int append_to_memory(std::span<const std::byte> bytes);
  [[nodiscard]] int move_to_file();
  /// What is held in memory from `offset` on, up to the end of a block.
  std::span<std::byte> memory_at(std::uint64_t offset) const;

  spool_options options_;
  std::vector<std::unique_ptr<std::byte[]>> blocks_;
  descriptor file_;
  std::uint64_t size_ = 0;
  std::uint64_t disk_taken_ = 0;  ///< of the budget
};

}  // namespace tarvex::server
