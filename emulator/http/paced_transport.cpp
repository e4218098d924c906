#include "http/paced_transport.h"

#include <algorithm>
#include <thread>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t PIECES_PER_SECOND = 500;
constexpr std::int64_t LEAST_PIECE_BYTES = 256;
constexpr std::int64_t MOST_PIECE_BYTES = 1 << 20;

/// What this side is late with, as a busy machine makes it, is caught up with, up to here.
constexpr auto MOST_CATCH_UP = std::chrono::milliseconds(500);

/// A call that takes longer has waited for the client: what the client did not use is lost, as it is on a line.
constexpr auto LONGEST_CALL = std::chrono::milliseconds(2);

/// What the system takes in ahead of a reader: without a limit whole parts, which a client would take for sent.
constexpr int BACKLOG_BYTES = 1024 * 1024;

}  // namespace

void paced_transport::set_rate(std::int64_t bytes_per_second) {
  if (bytes_per_second == rate_) return;
  const bool was_free = rate_ == 0;
  rate_ = std::max<std::int64_t>(bytes_per_second, 0);
  if (rate_ == 0) return;
  through_.limit_backlog(BACKLOG_BYTES);
  // The head that the rate follows from came at once, and some of the body with it.
  if (was_free) {
    due_ = clock::now();
    moved(read_freely_, due_);
  }
}

std::size_t paced_transport::piece() const {
  return static_cast<std::size_t>(std::clamp(rate_ / PIECES_PER_SECOND, LEAST_PIECE_BYTES, MOST_PIECE_BYTES));
}

void paced_transport::moved(std::size_t bytes, clock::time_point began) {
  const auto now = clock::now();
  const std::chrono::duration<double> takes(static_cast<double>(bytes) / static_cast<double>(rate_));
  const auto earliest = now - began > LONGEST_CALL ? now : now - MOST_CATCH_UP;
  due_ = std::max(due_, earliest) + std::chrono::duration_cast<clock::duration>(takes);
  if (due_ > now) std::this_thread::sleep_until(due_);
}

bool paced_transport::pause(std::int64_t milliseconds) {
  const bool stays = through_.pause(milliseconds);
  due_ = std::max(due_, clock::now());
  return stays;
}

std::size_t paced_transport::read(std::span<char> out) {
  if (rate_ == 0) return read_freely_ = through_.read(out);
  const auto began = clock::now();
  const std::size_t got = through_.read(out.first(std::min(out.size(), piece())));
  moved(got, began);
  return got;
}

bool paced_transport::write(std::string_view bytes, bool more) {
  if (rate_ == 0) return through_.write(bytes, more);
  while (!bytes.empty()) {
    const std::string_view now = bytes.substr(0, piece());
    bytes.remove_prefix(now.size());
    const auto began = clock::now();
    // Each piece leaves at once: held back for a full packet it would arrive in bursts.
    if (!through_.write(now, more && bytes.empty())) return false;
    moved(now.size(), began);
  }
  return true;
}

bool paced_transport::send_file(int file, std::int64_t offset, std::int64_t length) {
  if (rate_ == 0) return through_.send_file(file, offset, length);
  while (length > 0) {
    const std::int64_t now = std::min(length, static_cast<std::int64_t>(piece()));
    const auto began = clock::now();
    if (!through_.send_file(file, offset, now)) return false;
    offset += now;
    length -= now;
    moved(static_cast<std::size_t>(now), began);
  }
  return true;
}

}  // namespace tarvex::emulator
