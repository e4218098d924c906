#include "session/broker_link.h"

#include "link/channel.h"
#include "net/wake.h"
#include "tarvex_common.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <array>
#include <cerrno>
#include <optional>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

using std::chrono::milliseconds;

constexpr milliseconds LOGIN_LIMIT{30'000};
constexpr milliseconds CREDENTIAL_LIMIT{240'000};  ///< longer than the broker itself tries

broker_says no_answer(broker_says::kind what) {
  return {.what = what,
          .result = login_result::unavailable,
          .code = 421,
          .text = "The accounts are not available; try again later."};
}

}  // namespace

/// What handlers of the loop share with the link.
struct broker_link::state : std::enable_shared_from_this<broker_link::state> {
  /// A question on its way. The answer is called on the I/O thread.
  struct question {
    secret frame;
    std::function<void(broker_says)> answer;
  };

  state(event_loop& of, descriptor socket) : loop(of), end(of.context()) {
    if (socket) end.assign(socket.release());
  }

  void watch() {
    end.async_wait(asio::posix::descriptor_base::wait_read,
                   [self = shared_from_this()](const boost::system::error_code& error) {
                     if (!error) self->read();
                   });
  }

  void read() {
    for (;;) {
      const link_received got = link_receive(number());
      if (got.error == EAGAIN || got.error == EWOULDBLOCK) return watch();
      auto said = got.error == 0 ? broker_message_decode(got.frame) : std::nullopt;
      if (!said) return close();
      take(std::move(*said));
    }
  }

  void take(broker_says said) {
    if (said.what == broker_says::kind::ready) return ask_again();
    if (said.what == broker_says::kind::end) {
      if (on_end) on_end(said.text);
      return;
    }
    std::function<void(broker_says)> answer;
    {
      const std::lock_guard hold(mutex);
      const auto found = asked.find(said.id);
      if (found == asked.end()) return;
      answer = std::move(found->second.answer);
      asked.erase(found);
    }
    answer(std::move(said));
  }

  void ask_again() {
    const std::lock_guard hold(mutex);
    for (const auto& [id, one] : asked) (void)link_send(number(), one.frame.text());
  }

  /// The broker has closed the connection: it will not answer here any more.
  void close() {
    std::map<std::uint64_t, question> left;
    {
      const std::lock_guard hold(mutex);
      boost::system::error_code ignored;
      end.close(ignored);
      left = std::exchange(asked, {});
    }
    for (auto& [id, one] : left) one.answer(no_answer(broker_says::kind::login));
  }

  /// Any thread. \return the number of the question; 0: it cannot be asked.
  std::uint64_t ask(session_says what, std::function<void(broker_says)> answer) {
    const std::lock_guard hold(mutex);
    what.id = ++last;
    secret frame = message_encode(what);
    if (frame.text().empty() || !end.is_open()) return 0;
    (void)link_send(number(), frame.text());
    if (answer) asked[what.id] = {std::move(frame), std::move(answer)};
    return what.id;
  }

  void give_up(std::uint64_t id) {
    const std::lock_guard hold(mutex);
    asked.erase(id);
  }

  int number() { return end.native_handle(); }

  event_loop& loop;
  asio::posix::stream_descriptor end;  ///< closed by the I/O thread, under the mutex
  std::function<void(const std::string&)> on_end;  ///< I/O thread
  std::mutex mutex;
  std::uint64_t last = 0;                   // guarded by mutex
  std::map<std::uint64_t, question> asked;  // guarded by mutex
};

broker_link::broker_link(event_loop& loop, descriptor socket)
    : state_(std::make_shared<state>(loop, std::move(socket))) {
  if (state_->end.is_open()) state_->watch();
}

broker_link::~broker_link() {
  boost::system::error_code ignored;
  state_->end.close(ignored);
}

void broker_link::on_end(std::function<void(const std::string& text)> call) {
  state_->on_end = std::move(call);
}

asio::awaitable<broker_says> broker_link::log_in(session_says who) {
  who.what = session_says::kind::login;
  const auto done = std::make_shared<wake>(state_->loop);
  const auto answer = std::make_shared<std::optional<broker_says>>();
  const std::uint64_t id = state_->ask(std::move(who), [done, answer](broker_says said) {
    *answer = std::move(said);
    done->notify();
  });
  if (id != 0) co_await done->wait_for(LOGIN_LIMIT);
  state_->give_up(id);
  co_return answer->value_or(no_answer(broker_says::kind::login));
}

broker_says broker_link::credential(bool renewal, std::uint64_t refused) {
  struct waiting {
    descriptor ready{eventfd(0, EFD_CLOEXEC)};
    std::mutex mutex;
    std::optional<broker_says> answer;  // guarded by mutex
  };
  const auto wait = std::make_shared<waiting>();
  if (!wait->ready) return no_answer(broker_says::kind::credential);
  session_says what{.what = renewal ? session_says::kind::renew_creds : session_says::kind::creds};
  what.generation = refused;
  const std::uint64_t id = state_->ask(std::move(what), [wait](broker_says said) {
    const std::lock_guard hold(wait->mutex);
    wait->answer = std::move(said);
    const std::uint64_t one = 1;
    (void)!write(wait->ready.get(), &one, sizeof one);
  });
  std::array<pollfd, 2> awaited = {pollfd{wait->ready.get(), POLLIN, 0}, pollfd{tarvex_cancel_fd(), POLLIN, 0}};
  int count = 0;
  do {
    count = id == 0 ? 0 : poll(awaited.data(), awaited.size(), static_cast<int>(CREDENTIAL_LIMIT.count()));
  } while (count < 0 && errno == EINTR);
  state_->give_up(id);
  const std::lock_guard hold(wait->mutex);
  return wait->answer ? std::move(*wait->answer) : no_answer(broker_says::kind::credential);
}

void broker_link::note_used(std::uint64_t generation) {
  session_says what{.what = session_says::kind::used};
  what.generation = generation;
  (void)state_->ask(std::move(what), {});
}

void broker_link::note_logged_out() {
  (void)state_->ask({.what = session_says::kind::leave}, {});
}

}  // namespace tarvex::server
