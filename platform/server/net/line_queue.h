#pragma once

#include "net/control_line.h"
#include "net/line_reader.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <string_view>

namespace tarvex::server {

/// The lines that wait for their turn, in bounded memory. When that is full, one `overrun` ends the queue, and of what
/// comes behind it an ABOR is kept, as long as none waits there that has not cancelled anything yet.
class line_queue {
 public:
  /// \param limit        bytes that may wait, a line counting with its record
  /// \param line_length  bytes of a line with its end; longer ones are dropped
  line_queue(std::size_t limit, std::size_t line_length) : limit_(limit), reader_(line_length) {}

  /// Cuts what has arrived into lines. \return whether lines were queued.
  bool add(std::string_view bytes);

  /// The oldest line; nothing when there is none.
  std::optional<control_line> take();
  std::deque<control_line>& lines() { return lines_; }
  /// Drops everything that has come.
  void clear();

 private:
  bool full() const;
  bool push(control_line line);

  const std::size_t limit_;
  line_reader reader_;
  std::deque<control_line> lines_;
  bool overrun_ = false;
};

}  // namespace tarvex::server
