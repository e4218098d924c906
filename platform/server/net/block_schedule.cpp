#include "net/block_schedule.h"

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace {

std::span<const unsigned char> bytes_of(const data_piece& piece) {
  if (piece.owned.empty()) return {piece.bytes, piece.length};
  return {reinterpret_cast<const unsigned char*>(piece.owned.data()), piece.owned.size()};
}

}  // namespace

void block_schedule::add(data_piece piece) {
  pieces_.push_back({std::move(piece)});
  skip_cut();
  finish_first();
}

/// Goes on to the first piece that has bytes left to cut.
void block_schedule::skip_cut() {
  while (waiting()) {
    const entry& at = pieces_[next_ - first_];
    if (at.cut < bytes_of(at.piece).size()) return;
    ++next_;
  }
}

std::optional<block_schedule::block> block_schedule::next() {
  if (!waiting()) return std::nullopt;
  entry& from = pieces_[next_ - first_];
  const auto left = bytes_of(from.piece).subspan(from.cut);
  const block cut{left.first(std::min(left.size(), block_bytes_)), from.piece.offset + from.cut, next_};
  from.cut += cut.bytes.size();
  from.held += cut.bytes.size();
  skip_cut();
  return cut;
}

void block_schedule::let_go(const block& of) {
  pieces_[of.piece - first_].held -= of.bytes.size();
  finish_first();
}

void block_schedule::finish_first() {
  while (first_ < next_ && pieces_.front().held == 0) {
    const data_piece piece = std::move(pieces_.front().piece);
    pieces_.pop_front();
    ++first_;
    if (piece.done) piece.done(true);
  }
}

void block_schedule::give_up() {
  first_ += pieces_.size();
  next_ = first_;
  for (const entry& left : std::exchange(pieces_, {})) {
    if (left.piece.done) left.piece.done(false);
  }
}

}  // namespace tarvex::server
