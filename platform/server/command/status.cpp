// STAT: the session's own state, or a listing that comes over the control connection (RFC 959 section 4.1.3).
#include "base/log.h"
#include "command/answer.h"
#include "command/handler.h"
#include "command/listing_lines.h"
#include "command/look.h"
#include "ftp/path.h"
#include "ftp/reply.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace tarvex::server {

namespace {

/// Text that may wait for a slow client before the storage is made to wait.
constexpr std::size_t WAITING_MAX = 1 << 20;

/// Text on its way into the control connection: the operation thread adds, and waits while the client is slow.
class control_text : public std::enable_shared_from_this<control_text> {
 public:
  explicit control_text(session& client) : client_(client) {}

  void add(std::string text) {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return waiting_ <= WAITING_MAX; });
    waiting_ += text.size();
    lock.unlock();
    client_.loop.post([self = shared_from_this(), text = std::move(text)]() mutable {
      const std::size_t length = text.size();
      self->client_.control.send(std::move(text), [self, length] { self->sent(length); });
    });
  }

 private:
  void sent(std::size_t length) {
    const std::lock_guard lock(mutex_);
    waiting_ -= length;
    room_.notify_all();
  }

  session& client_;
  std::mutex mutex_;
  std::condition_variable room_;
  std::size_t waiting_ = 0;  // guarded by mutex_
};

std::string lines_indented(const std::string& lines) {
  std::string text;
  for (std::size_t start = 0; start < lines.size();) {
    const std::size_t end = lines.find('\n', start) + 1;
    text += reply_block_inner(std::string_view(lines).substr(start, end - start - 2));
    start = end;
  }
  return text;
}

handled status_of_folder(session& client, listing_request request) {
  const auto text = std::make_shared<control_text>(client);
  bool opened = false;  // operation thread, until the listing is over
  entries_call take = [&](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    if (!std::exchange(opened, true)) text->add(reply_block_first(213, "Status of " + request.path + ":"));
    text->add(lines_indented(listing_lines(request, entries, count)));
  };
  const outcome how = co_await client.storage.list("STAT", request.path, std::move(take), nullptr);
  if (how.ok()) co_return client.reply(213, "End.");
  if (!opened) co_return answer_failure(client, "STAT", request.path, how);
  log_info("{}: STAT {} failed: {}", client.who(), request.path, how.text());
  // What was begun as 213 has to end as 213 (RFC 959 section 4.2).
  client.reply(213, "The listing is not complete: an error occurred.");
}

std::string running_text(const operation& running) {
  const std::string what = running.subject.verb + " " + operation_path(running);
  if (!running.transfer) return what + " is running";
  return what + ": " + std::to_string(running.transfer->moved_bytes()) +
         (running.transfer->receives() ? " bytes received" : " bytes sent");
}

void status_of_session(session& client) {
  std::vector<std::string> lines = {"Connected from " + client.control.peer().host(),
                                    "Logged in as " + client.login.name,
                                    "Folder " + path_quoted(client.settings.directory)};
  if (client.control.secured())
    lines.push_back("Under " + client.control.protection() + "; data connections are " +
                    (client.data.protection().tls ? "private" : "plain"));
  if (const operation* const running = client.storage.running()) lines.push_back(running_text(*running));
  client.reply_block(211, "Status:", lines, "End.");
}

}  // namespace

handled command_stat(session& client, std::string argument) {
  if (argument.empty()) co_return status_of_session(client);
  const auto path = path_argument(client, listing_options_skip(argument));
  if (!path) co_return;
  listing_request request = listing_request_of(client, "STAT", listing_form::list, *path);
  const auto item = co_await look_at(client, "STAT", *path);
  if (!item) co_return;
  if (item->folder()) {
    co_await status_of_folder(client, std::move(request));
    co_return;
  }
  client.control.send(reply_block_first(213, "Status of " + *path + ":") +
                      lines_indented(listing_line(request, item->stat, path_base_name(*path))) +
                      reply_format(213, "End."));
}

}  // namespace tarvex::server
