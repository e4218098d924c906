#include "ftp/listing.h"
#include "base/log.h"
#include "command/handlers.h"
#include "command/stat.h"
#include "command/transfer_reply.h"
#include "ftp/path.h"
#include "ftp/reply.h"
#include "session/session_state.h"
#include "storage/transfer.h"

#include <condition_variable>
#include <mutex>

namespace tarvex::server {

namespace {

/// Text that may wait for a slow client before the storage is made to wait.
constexpr std::size_t WAITING_MAX = 1 << 20;

struct listing_request {
  std::string verb;
  listing_form form = listing_form::list;
  std::string path;
  facts_mask facts = ALL_FACTS;
};

/// Without the options of ls that clients put before the path ("-la").
std::string_view options_skip(std::string_view argument) {
  while (argument.starts_with('-')) {
    const std::size_t blank = argument.find(' ');
    if (blank == std::string_view::npos) return {};
    argument.remove_prefix(std::min(argument.find_first_not_of(' ', blank), argument.size()));
  }
  return argument;
}

/// Lines of a batch. The folder itself is left out: clients take "." for an item of it.
std::string batch_lines(const listing_request& request, const tarvex_gridftp_server_control_stat_t* entries,
                        int count) {
  std::string lines;
  const std::time_t now = std::time(nullptr);
  for (int i = 0; i < count; ++i) {
    const std::string_view name = entries[i].name ? entries[i].name : "";
    if (name.empty() || name == ".") continue;
    listing_append(request.form, entries[i], name, now, request.facts, lines);
  }
  return lines;
}

/// Runs a listing; `take` gets its lines on the operation thread and may wait there.
std::unique_ptr<operation> listing_operation(session& session, const listing_request& request,
                                             std::function<void(std::string)> take) {
  auto op = operation_make(session, operation_kind::stat, request.verb, request.path);
  op->lists = true;
  op->work = [](operation& started) {
    tarvex_gfs_stat_info_t info{false, false, true, false, started.path.c_str()};
    started.session.setup.storage->interface->stat_func(&started, &info, started.session.storage.session);
  };
  op->batch = [request, take = std::move(take)](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    take(batch_lines(request, entries, count));
  };
  return op;
}

void push_text(transfer& to, std::string text) {
  to.begin();
  if (text.empty() || !to.stream().wait_for_room(WAITING_MAX)) return;
  data_piece piece;
  piece.owned = std::move(text);
  (void)to.stream().push(std::move(piece));  // an ended stream has cancelled the operation already
}

/// Sends a folder's listing over the data channel.
void listing_send(session& session, const listing_request& request) {
  const auto channel = std::make_shared<transfer>(session, request.verb, request.path);
  auto op =
      listing_operation(session, request, [channel](std::string lines) { push_text(*channel, std::move(lines)); });
  op->transfer = channel;
  op->rewind = [channel](operation&) { return !channel->begun(); };
  op->done = [](operation& over) { transfer_answer(over); };
  operation_start(session, std::move(op));
}

/// Sends the one line of a file. No plug-in is needed any more, only the data channel.
void line_send(session& session, const listing_request& request, const item_stat& item) {
  std::string line;
  listing_append(request.form, item.stat, path_base_name(request.path), std::time(nullptr), request.facts, line);
  auto op = operation_make(session, operation_kind::stat, request.verb, request.path);
  const auto channel = std::make_shared<transfer>(session, request.verb, request.path);
  op->transfer = channel;
  op->work = [channel, line](operation& started) {
    push_text(*channel, line);
    (void)operation_complete(started, operation_kind::stat, TARVEX_SUCCESS);
  };
  op->done = [](operation& over) { transfer_answer(over); };
  operation_start(session, std::move(op));
}

void listing_command(session& session, std::string_view verb, listing_form form, std::string_view argument) {
  const auto path = path_argument(session, argument);
  if (!path || !transfer_possible(session)) return;
  const listing_request request{std::string(verb), form, *path, session.settings.mlst_facts};
  stat_start(session, verb, *path, [request](server::session& of, const item_stat& item) {
    if (item.folder()) return listing_send(of, request);
    if (request.form == listing_form::mlsd) return session_reply(of, 501, request.path + ": not a folder; use MLST.");
    line_send(of, request, item);
  });
}

/// Text on its way into the control connection: the operation thread adds, and waits while the client is slow.
class control_text {
 public:
  explicit control_text(session& session) : session_(session) {}

  void add(const std::shared_ptr<control_text>& self, std::string text) {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return waiting_ <= WAITING_MAX; });
    waiting_ += text.size();
    lock.unlock();
    session_.loop.post([self, text = std::move(text)]() mutable {
      const std::size_t length = text.size();
      self->session_.control.send(std::move(text), [self, length] { self->sent(length); });
    });
  }

 private:
  void sent(std::size_t length) {
    const std::lock_guard lock(mutex_);
    waiting_ -= length;
    room_.notify_all();
  }

  session& session_;
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

std::string status_opening(const std::string& path) {
  return reply_block_first(213, "Status of " + path + ":");
}

void status_send(session& session, const listing_request& request) {
  const auto text = std::make_shared<control_text>(session);
  const auto opened = std::make_shared<bool>(false);
  auto op = listing_operation(session, request, [text, opened, path = request.path](std::string lines) {
    if (!std::exchange(*opened, true)) text->add(text, status_opening(path));
    text->add(text, lines_indented(lines));
  });
  op->rewind = [opened](operation&) { return !*opened; };
  op->done = [opened](operation& over) {
    if (operation_succeeded(over)) return session_reply(over.session, 213, "End.");
    command_log_failure(over);
    // What was begun as 213 has to end as 213 (RFC 959 section 4.2).
    if (*opened) return session_reply(over.session, 213, "The listing is not complete: an error occurred.");
    over.session.control.send(operation_failure_reply(over));
  };
  operation_start(session, std::move(op));
}

void status_of_session(session& session) {
  std::vector<std::string> lines = {"Connected from " + session.control.peer().host,
                                    "Logged in as " + session.login.name,
                                    "Folder " + path_quoted(session.settings.directory)};
  if (session.running && session.running->transfer)
    lines.push_back(session.running->verb + " " + session.running->path + ": " +
                    std::to_string(session.running->transfer->moved_bytes()) +
                    (session.running->transfer->receives() ? " bytes received" : " bytes sent"));
  else if (session.running)
    lines.push_back(session.running->verb + " " + session.running->path + " is running");
  session_reply_block(session, 211, "Status:", lines, "End.");
}

}  // namespace

void command_list(session& session, const std::string& argument) {
  listing_command(session, "LIST", listing_form::list, options_skip(argument));
}

void command_nlst(session& session, const std::string& argument) {
  listing_command(session, "NLST", listing_form::nlst, options_skip(argument));
}

void command_mlsd(session& session, const std::string& argument) {
  listing_command(session, "MLSD", listing_form::mlsd, argument);
}

void command_stat(session& session, const std::string& argument) {
  if (argument.empty()) return status_of_session(session);
  const auto path = path_argument(session, options_skip(argument));
  if (!path) return;
  const listing_request request{"STAT", listing_form::list, *path, session.settings.mlst_facts};
  stat_start(session, "STAT", *path, [request](server::session& of, const item_stat& item) {
    if (item.folder()) return status_send(of, request);
    std::string line;
    listing_append(request.form, item.stat, path_base_name(request.path), std::time(nullptr), request.facts, line);
    of.control.send(status_opening(request.path) + lines_indented(line) + reply_format(213, "End."));
  });
}

}  // namespace tarvex::server
