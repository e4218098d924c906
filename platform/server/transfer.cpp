#include "transfer.h"

#include "data_socket.h"
#include "session_state.h"

namespace tarvex::server {

namespace {

constexpr std::chrono::seconds CONNECTION_LIMIT{60};

}  // namespace

transfer::transfer(session& session, std::string verb, std::string path)
    : session_(session),
      verb_(std::move(verb)),
      path_(std::move(path)),
      stream_(session.loop, std::chrono::seconds(session.setup.config->idle_timeout_s),
              [&session](const std::string& why) { operation_cancel(session, 426, why); }) {}

void transfer::begin() {
  if (begun_.exchange(true)) return;
  session_.loop.post([self = shared_from_this()] { self->open(); });
}

void transfer::open() {
  if (failed_) return;
  session_reply(session_, 150, "Opening data connection for " + path_ + ".");
  session_.data.open(CONNECTION_LIMIT,
                     [self = shared_from_this()](std::unique_ptr<data_socket> connection, const std::string& error) {
                       if (connection) return self->stream_.attach(std::move(connection));
                       operation_cancel(self->session_, 425, error);
                     });
}

void transfer::fail(int code, const std::string& text) {
  if (failed_) return;
  failed_ = failure{code, text};
  session_.data.close();
  stream_.abort();
}

void transfer::finish(bool success, std::function<void()> over) {
  if (success && !failed_) return stream_.finish([over = std::move(over)](bool) { over(); });
  session_.data.close();
  stream_.abort();
  over();
}

}  // namespace tarvex::server
