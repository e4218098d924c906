// Extended block mode: headers as they come, blocks in any order into a window, and ranges as restarts name them.
#include "ftp/file_ranges.h"
#include "fuzz.h"
#include "net/block_header.h"
#include "net/block_window.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace tarvex::server {
namespace {

using fuzz::must;
using fuzz::take_byte;

constexpr std::uint64_t FILE_SIZE_MAX = INT64_MAX;

void check_header(std::string_view bytes) {
  if (bytes.size() < block_header::BYTES) return;
  const auto* const first = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::span<const unsigned char, block_header::BYTES> raw(first, block_header::BYTES);
  const block_header header = block_header_decode(raw);
  must(std::memcmp(block_header_encode(header).data(), first, block_header::BYTES) == 0);
  if (!block_header_mistake(header).empty()) return;
  must(header.count <= FILE_SIZE_MAX &&
       (header.has(block_header::END_OF_FILE) || header.offset <= FILE_SIZE_MAX - header.count));
}

void check_ranges(std::string_view text) {
  const auto held = file_ranges_parse(text);
  if (!held) return;
  const auto again = file_ranges_parse(file_ranges_format(*held));
  must(held->empty() || (again && file_ranges_bytes(*again) == file_ranges_bytes(*held)));
  const file_range whole{0, FILE_SIZE_MAX};
  must(file_ranges_bytes(*held) + file_ranges_bytes(file_ranges_missing(*held, whole)) == FILE_SIZE_MAX);
}

/// A transfer whose blocks come in the order that the input says, held against what a file is.
class schedule {
 public:
  explicit schedule(std::size_t limit) : limit_(limit), window_(0, limit, {}), known_(FILE_BYTES) {}

  void promise(std::uint64_t offset, std::uint64_t count) {
    const auto first = known_.begin() + static_cast<std::ptrdiff_t>(offset);
    const auto last = first + static_cast<std::ptrdiff_t>(count);
    const auto known = static_cast<std::uint64_t>(std::count(first, last, true));
    const auto fit = window_.promise(offset, count);
    must((fit == block_window::fit::fresh) == (known == 0 && count > 0));
    must((fit == block_window::fit::repeats) == (known == count));
    if (fit != block_window::fit::fresh) return;
    std::fill(first, last, true);
    coming_.push_back({offset, offset + count});
  }

  /// Part of a block comes, as far as there is room.
  void deliver(std::size_t which, std::uint64_t at_most) {
    if (coming_.empty()) return;
    auto& [begin, end] = coming_[which % coming_.size()];
    const bool awaited = begin == window_.missing();
    const auto room = window_.room(begin, std::min(at_most, end - begin));
    must(!room.empty() || !awaited || at_most == 0);  // else the transfer would never go on
    for (unsigned char& byte : room) byte = byte_at(begin++);
    if (!room.empty()) window_.added(begin - room.size(), room.size());
    if (begin == end) coming_.erase(coming_.begin() + static_cast<std::ptrdiff_t>(which % coming_.size()));
    must(window_.memory_bytes() <= std::max(limit_, window_memory::CHUNK_BYTES) + window_memory::CHUNK_BYTES);
  }

  void take(std::size_t bytes) {
    static std::vector<unsigned char> buffer(FILE_BYTES);  // to make it anew takes longer than all the rest
    const std::uint64_t from = window_.next();
    const std::size_t taken = window_.take(std::span(buffer).first(bytes));
    for (std::size_t i = 0; i < taken; ++i) must(buffer[i] == byte_at(from + i));
    must(taken <= bytes && window_.next() == from + taken);
  }

  /// All that was promised comes, and is taken up to the first gap.
  void finish() {
    while (true) {
      const auto next = std::find_if(coming_.begin(), coming_.end(),
                                     [this](const auto& block) { return block.first == window_.missing(); });
      if (next == coming_.end()) break;
      deliver(static_cast<std::size_t>(next - coming_.begin()), FILE_BYTES);
      take(FILE_BYTES);
    }
    take(FILE_BYTES);
    const auto gap = static_cast<std::uint64_t>(std::find(known_.begin(), known_.end(), false) - known_.begin());
    must(window_.next() == gap);
  }

  static constexpr std::uint64_t FILE_BYTES = 1 << 20;

 private:
  static unsigned char byte_at(std::uint64_t position) {
    return static_cast<unsigned char>(position * 0x9e3779b97f4a7c15U >> 56U);
  }

  const std::size_t limit_;
  block_window window_;
  std::vector<bool> known_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> coming_;
};

void check_schedule(std::string_view bytes) {
  schedule of(window_memory::CHUNK_BYTES * (1 + take_byte(bytes) % 3));
  while (!bytes.empty()) {
    const unsigned what = take_byte(bytes);
    const std::uint64_t place = std::uint64_t{take_byte(bytes)} << 12U | take_byte(bytes) << 4U;
    const std::uint64_t length = std::uint64_t{take_byte(bytes)} << (what & 4U ? 8U : 0U);
    if (what % 4 == 0) of.promise(place, std::min(length, schedule::FILE_BYTES - place));
    if (what % 4 == 1) of.deliver(place >> 4U, length);
    if (what % 4 == 2) of.deliver(place >> 4U, schedule::FILE_BYTES);
    if (what % 4 == 3) of.take(length);
  }
  of.finish();
}

}  // namespace
}  // namespace tarvex::server

void tarvex::fuzz::run(std::string_view bytes) {
  server::check_header(bytes);
  server::check_ranges(bytes);
  server::check_schedule(bytes);
}
