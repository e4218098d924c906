#include "http/transport.h"

#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace tarvex::emulator {
namespace {

/// sendfile takes no more than a little under 2 GiB at a time.
constexpr std::int64_t SENDFILE_MAX_BYTES = 1 << 30;

class plain final : public transport {
 public:
  explicit plain(descriptor socket) : socket_(std::move(socket)) {}

  // 0 for the end, for a failure and for the time limit alike: in each case there is nobody to talk to any more.
  std::size_t read(std::span<char> out) override {
    ssize_t got = 0;
    do {
      got = ::recv(socket_.get(), out.data(), out.size(), 0);
    } while (got < 0 && errno == EINTR);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
  }

  bool write(std::string_view bytes, bool more) override {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | (more ? MSG_MORE : 0));
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  bool send_file(int file, std::int64_t offset, std::int64_t length) override {
    off_t at = offset;
    while (length > 0) {
      const auto step = static_cast<std::size_t>(std::min(length, SENDFILE_MAX_BYTES));
      // 0 is the end of the file: it was cut while we sent, and the announced length cannot be kept any more.
      const ssize_t sent = ::sendfile(socket_.get(), file, &at, step);
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      length -= sent;
    }
    return true;
  }

  bool pause(std::int64_t milliseconds) override { return transport_pause(socket_.get(), milliseconds); }
  void limit_backlog(int bytes) override { transport_limit_backlog(socket_.get(), bytes); }

 private:
  descriptor socket_;
};

}  // namespace

std::unique_ptr<transport> transport_plain(descriptor socket) {
  return std::make_unique<plain>(std::move(socket));
}

void transport_limit_backlog(int socket, int bytes) {
  (void)::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);  // less even without, not wrong
}

bool transport_pause(int socket, std::int64_t milliseconds) {
  using clock = std::chrono::steady_clock;
  const auto end = clock::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
    if (milliseconds >= 0 && rest <= 0) return true;
    pollfd watched{socket, POLLRDHUP, 0};
    const int ready =
        ::poll(&watched, 1, milliseconds < 0 ? -1 : static_cast<int>(std::min<std::int64_t>(rest, 60000)));
    if (ready > 0) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
}

}  // namespace tarvex::emulator
