#include "account/redirect_listener.h"

#include "account/account_failure.h"
#include "account/listening_loopback.h"
#include "account/redirect_page.h"
#include "base/secret.h"
#include "base/text.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace tarvex::server {

namespace {

using verdict = redirect_answer::verdict;
using std::chrono::steady_clock;

constexpr std::size_t REQUEST_BYTES_MAX = 16 * 1024;
constexpr std::size_t VISITORS_MAX = 64;
constexpr std::chrono::seconds VISITOR_LIMIT{10};
constexpr const char* WRONG_STATE = "This is not the answer to the sign-in that is waiting. Open its address again.";

/// A page fits into a socket's buffer: nothing is waited for.
void send_page(const descriptor& to, std::string_view status, std::string_view text) {
  const std::string page = redirect_page(status, text);
  (void)send(to.get(), page.data(), page.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  (void)shutdown(to.get(), SHUT_WR);
}

/// Path and query of a request that is there as a whole; empty when it is none that this server knows.
std::string_view target_of(std::string_view request) {
  std::string_view line = request.substr(0, request.find("\r\n"));
  if (take_word(line) != "GET") return {};
  const std::string_view target = take_word(line);
  return line == "HTTP/1.1" || line == "HTTP/1.0" ? target : std::string_view();
}

}  // namespace

redirect_listener::redirect_listener(const redirect_address& redirect)
    : redirect_(redirect), listening_(listen_on_loopback(redirect, port_)) {}

void redirect_listener::take_visitors(int listening) {
  for (;;) {
    descriptor socket(accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) return;
    // Of too many the one that has been here longest goes: whoever brings the answer says so at once.
    if (visitors_.size() == VISITORS_MAX) visitors_.erase(visitors_.begin());
    visitors_.push_back({std::move(socket), {}, steady_clock::now() + VISITOR_LIMIT});
  }
}

bool redirect_listener::serve(visitor& who, std::string_view state, redirect_answer& out) {
  std::array<char, 4096> room{};
  const ssize_t count = recv(who.socket.get(), room.data(), room.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return false;
  descriptor socket = std::exchange(who.socket, descriptor());
  if (count <= 0) return false;
  who.request.append(room.data(), static_cast<std::size_t>(count));
  if (who.request.find("\r\n\r\n") == std::string::npos) {
    if (who.request.size() <= REQUEST_BYTES_MAX) {
      who.socket = std::move(socket);
    } else {
      send_page(socket, "431 Request Header Fields Too Large", "The request is too long.");
    }
    return false;
  }
  const std::string_view target = target_of(who.request);
  out = redirect_read(target, redirect_, state);
  if (target.empty()) {
    send_page(socket, "400 Bad Request", "This is no request for a page.");
  } else if (out.how == verdict::elsewhere) {
    send_page(socket, "404 Not Found", "There is no such page.");
  } else if (out.how == verdict::wrong_state) {
    send_page(socket, "400 Bad Request", WRONG_STATE);
  } else {
    waiting_ = std::move(socket);
  }
  wipe(who.request);
  return static_cast<bool>(waiting_);
}

redirect_answer redirect_listener::wait(std::string_view state, std::chrono::seconds limit) {
  const auto end = steady_clock::now() + limit;
  redirect_answer answer;
  while (steady_clock::now() < end) {
    std::vector<pollfd> awaited;
    for (const descriptor& each : listening_) awaited.push_back({each.get(), POLLIN, 0});
    for (const visitor& each : visitors_) awaited.push_back({each.socket.get(), POLLIN, 0});
    constexpr int LOOK_MS = 1000;
    if (poll(awaited.data(), awaited.size(), LOOK_MS) < 0 && errno != EINTR) break;
    for (std::size_t i = 0; i < visitors_.size(); ++i)
      if (awaited[listening_.size() + i].revents != 0 && serve(visitors_[i], state, answer)) return answer;
    const auto now = steady_clock::now();
    std::erase_if(visitors_, [&](const visitor& each) { return !each.socket || each.until < now; });
    for (const descriptor& each : listening_) take_visitors(each.get());
  }
  throw account_failure(account_exit::refused,
                        "nobody signed in within " + std::to_string(limit / std::chrono::minutes(1)) + " minutes");
}

void redirect_listener::show(bool good, std::string_view text) {
  if (!waiting_) return;
  send_page(waiting_, good ? "200 OK" : "403 Forbidden", text);
  waiting_ = descriptor();
}

}  // namespace tarvex::server
