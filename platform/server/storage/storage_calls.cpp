// What a session asks of the plug-in: one wait each.
#include "base/log.h"
#include "ftp/path.h"
#include "storage/inside.h"
#include "storage/storage_session.h"
#include "storage/transfer.h"

#include <sys/stat.h>

#include <algorithm>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

void tell_where_to_go_on(operation& op, std::uint64_t offset) {
  const std::string text = "To go on, send REST " + std::to_string(offset) + " and STOR in this session.";
  if (op.transfer->failed()) return op.transfer->explain_failure(text);
  op.remark += (op.remark.empty() ? "" : " ") + text;
}

const char* text_or_null(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

/// The record lends the command's texts.
tarvex_gfs_command_info_t command_record(storage_command& command) {
  tarvex_gfs_command_info_t record{};
  record.command = command.type;
  record.pathname = text_or_null(command.path);
  record.cksm_offset = command.cksm_offset;
  record.cksm_length = command.cksm_length;
  record.cksm_alg = text_or_null(command.cksm_algorithm);
  record.from_pathname = text_or_null(command.from_path);
  record.chmod_mode = command.mode;
  record.authz_assert = text_or_null(command.assertion);
  record.chgrp_group = text_or_null(command.group);
  record.utime_time = command.time;
  record.op_info = command.text.empty() ? nullptr : command.text.data();
  return record;
}

void call_stat(operation& op, bool file_only) {
  tarvex_gfs_stat_info_t info{};
  info.file_only = file_only;
  info.include_path_stat = !file_only;
  info.pathname = op.subject.path.c_str();
  op.storage.interface()->stat_func(&op, &info, op.storage.handle());
}

void call_send(operation& op) {
  tarvex_gfs_transfer_info_t info{.pathname = op.subject.path.c_str(), .alloc_size = 0, .truncate = false};
  op.storage.interface()->send_func(&op, &info, op.storage.handle());
}

}  // namespace

bool item_stat::folder() const {
  return S_ISDIR(stat.mode);
}

std::uint64_t item_stat::size() const {
  return static_cast<std::uint64_t>(std::max<tarvex_off_t>(stat.size, 0));
}

asio::awaitable<stat_answer> storage_session::stat(std::string verb, std::string path) {
  operation op(*this, operation_kind::stat, {.verb = std::move(verb), .path = root_.to_box(path)});
  stat_answer answer;
  op.work = [](operation& started) { call_stat(started, true); };
  op.rewind = [&answer] {
    answer.item.reset();
    return true;
  };
  op.batch = [&answer](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    if (count > 0) answer.item = item_without_texts(entries[0]);
  };
  co_await run(op);
  answer.how = operation_outcome(op);
  if (answer.how.ok() && !answer.item)
    answer.how = outcome_failure(550, operation_path(op) + ": the storage gave no attributes.");
  co_return answer;
}

asio::awaitable<stat_answer> storage_session::look_again(std::string verb, std::string path) {
  operation op(*this, operation_kind::stat, {.verb = std::move(verb), .path = root_.to_box(path)});
  stat_answer answer;
  op.work = [&answer](operation& started) {
    owned_result found = find_inside(started, started.subject.path, answer.item);
    (void)operation_complete(started, operation_kind::stat, found.release());
  };
  co_await run(op);
  answer.how = operation_outcome(op);
  if (answer.how.ok() && !answer.item)
    answer.how = outcome_failure(550, operation_path(op) + " is not there any more.");
  co_return answer;
}

asio::awaitable<outcome> storage_session::list(std::string verb, std::string path, entries_call take,
                                               std::shared_ptr<transfer> over) {
  operation op(*this, operation_kind::stat, {.verb = std::move(verb), .path = root_.to_box(path), .lists = true});
  bool taken = false;  // operation thread
  op.transfer = over;
  op.work = [](operation& started) { call_stat(started, false); };
  op.rewind = [&taken] { return !taken; };
  op.batch = [&taken, &take](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    taken = true;
    take(entries, count);
  };
  co_await run(op);
  co_return operation_outcome(op);
}

asio::awaitable<outcome> storage_session::say(std::string verb, std::string path, std::string text,
                                              std::shared_ptr<transfer> over) {
  operation op(*this, operation_kind::stat, {.verb = std::move(verb), .path = root_.to_box(path)});
  op.transfer = over;
  op.work = [&text](operation& started) {
    (void)started.transfer->push_text(std::move(text));  // a stream that has ended has cancelled the operation
    (void)operation_complete(started, operation_kind::stat, TARVEX_SUCCESS);
  };
  co_await run(op);
  co_return operation_outcome(op);
}

asio::awaitable<outcome> storage_session::send(std::string verb, std::string path, std::vector<byte_range> ranges,
                                               std::shared_ptr<transfer> over) {
  operation op(*this, operation_kind::transfer, {.verb = std::move(verb), .path = root_.to_box(path)});
  op.transfer = over;
  op.sends = std::make_shared<outgoing>(
      std::move(ranges), [channel = over.get()](data_piece piece) { return channel->push(std::move(piece)); });
  op.rewind = [&op] { return op.sends->rewind(); };
  op.work = call_send;
  co_await run(op);
  co_return operation_outcome(op);
}

asio::awaitable<outcome> storage_session::read(std::string verb, std::string path, byte_range range, bytes_sink sink) {
  operation op(*this, operation_kind::transfer, {.verb = std::move(verb), .path = root_.to_box(path)});
  std::vector<byte_range> ranges = {range};
  op.sends = std::make_shared<outgoing>(std::move(ranges), [this, &sink](data_piece piece) {
    loop().post([&sink, piece = std::move(piece)] {
      sink({reinterpret_cast<const std::byte*>(piece.bytes), piece.length});
      piece.done(true);
    });
    return true;
  });
  op.rewind = [&op] { return op.sends->rewind(); };
  op.work = call_send;
  co_await run(op);
  co_return operation_outcome(op);
}

asio::awaitable<outcome> storage_session::receive(std::string path, store_request request,
                                                  std::shared_ptr<transfer> over) {
  operation op(
      *this, operation_kind::transfer,
      {.verb = "STOR", .path = root_.to_box(path), .changes = true, .adds = true, .replaces = request.replaces});
  op.transfer = over;
  op.store = std::make_shared<store>(*this, over, request);
  op.rewind = [&op] { return op.store->rewind(); };
  op.work = [](operation& started) { started.store->run(started); };
  co_await run(op);
  if (operation_succeeded(op) && !op.store->complete()) {
    log_error("STOR {}: the storage reported success before it had all data", operation_path(op));
    op.misused = true;
  }
  // The storage keeps what is left by its own account of how it ended, whatever was found out afterwards.
  auto left = op.storage_failed ? op.store->leftover() : std::nullopt;
  if (left) left->offset = result_upload_offset(op.result.get()).value_or(left->offset);
  if (left) left->beside_file = request.replaces && op.storage.exchanges().summary().deletes.sent == 0;
  if (!op.storage_failed) unfinished_.erase(op.subject.path);
  if (left) unfinished_[op.subject.path] = *left;
  if (left && left->offset > 0 && !operation_succeeded(op)) tell_where_to_go_on(op, left->offset);
  outcome how = operation_outcome(op);
  // What has come to be there meanwhile is refused like what was there before.
  if (request.new_only && how.class_word == "PATH_EXISTS") how = outcome_failure(550, "PERMISSION_DENIED");
  co_return how;
}

asio::awaitable<command_answer> storage_session::command(operation_subject subject, storage_command command) {
  for (std::string* const path : {&subject.path, &subject.from_path, &command.path, &command.from_path})
    if (!path->empty()) *path = root_.to_box(*path);
  operation op(*this, operation_kind::command, std::move(subject));
  if (command.progress)
    op.progress = [&op, &command](const std::string& text) { command.progress(operation_text(op, text)); };
  op.moves_folder = command.type == TARVEX_GFS_CMD_RMD || command.type == TARVEX_GFS_CMD_SITE_RDEL;
  op.work = [&command](operation& started) {
    tarvex_gfs_command_info_t record = command_record(command);
    started.storage.interface()->command_func(&started, &record, started.storage.handle());
  };
  co_await run(op);
  // An upload below what was renamed would end where its old name was.
  if (!op.subject.from_path.empty())
    for (auto& [path, left] : unfinished_)
      if (path_is_within(path, op.subject.from_path) || path_is_within(path, op.subject.path)) left.offset = 0;
  if (op.text) op.text = operation_text(op, *op.text);
  co_return command_answer{operation_outcome(op), op.text};
}

/// Ends the session again when the account's root is no folder in Box.
asio::awaitable<outcome> storage_session::look_at_root() {
  if (root_.is_top()) co_return outcome{};
  const stat_answer found = co_await stat("PASS", "/");
  if (found.how.ok() && found.item->folder()) co_return outcome{};
  outcome how = outcome_failure(530, "The folder that is this account's root is not there.");
  if (!found.how.ok() && !found.how.missing()) how = login_failure(found.how);
  co_await leave();
  co_return how;
}

asio::awaitable<outcome> storage_session::look_at_place(std::string verb, std::string path,
                                                        std::shared_ptr<place> found) {
  operation op(*this, operation_kind::stat, {.verb = std::move(verb), .path = root_.to_box(path), .adds = true});
  op.work = [found](operation& started) { place_find(started, *found); };
  co_await run(op);
  co_return operation_outcome(op);
}

}  // namespace tarvex::server
