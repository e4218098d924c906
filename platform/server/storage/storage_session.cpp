#include "storage/storage_session.h"

#include "base/log.h"
#include "base/text.h"
#include "ftp/path.h"
#include "storage/operation_run.h"
#include "storage/transfer.h"

#include <malloc.h>
#include <boost/asio/async_result.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <system_error>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr int DEFAULT_CHUNKED_MINIMUM = 50 << 20;
constexpr std::uint64_t TRIM_ABOVE_BYTES = 1 << 20;

}  // namespace

storage_session::storage_session(host of) : host_(std::move(of)) {
  if (const int error = tarvex_cancel_init(&cancel_); error != 0)
    throw std::system_error(error, std::generic_category(), "no cancellation source");
}

storage_session::~storage_session() {
  thread_.reset();
  tarvex_cancel_destroy(&cancel_);
}

bool storage_session::open() {
  if (thread_) return true;
  try {
    thread_ = std::make_unique<operation_thread>(cancel_);
    return true;
  } catch (const std::system_error& error) {
    log_error("{}: no thread for the storage: {}", who(), error.what());
    return false;
  }
}

asio::awaitable<void> storage_session::run_aside(std::function<void()> work) {
  // The coroutine goes on as work of the loop, so that what the operation thread has posted before comes first.
  co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(
      [this, &work](auto handler) {
        auto resume = std::make_shared<decltype(handler)>(std::move(handler));
        thread_->submit([this, work = std::move(work), resume] {
          work();
          host_.loop.post([resume] { std::move (*resume)(); });
        });
      },
      asio::use_awaitable);
}

/// A transfer's data channel is ended before the client is told how the operation ended.
asio::awaitable<void> storage_session::run(operation& op) {
  running_ = &op;
  tarvex_cancel_reset(cancel_);
  if (op.transfer) op.transfer->on_failure([this](int code, const std::string& why) { (void)cancel(code, why); });
  if (on_run_) on_run_();
  std::function<void()> work = [&op] { operation_run(op); };
  co_await run_aside(std::move(work));
  if (op.transfer) {
    const bool good = operation_succeeded(op);
    // A client that was promised data gets its connection, though there may be nothing to send over it.
    if (good) op.transfer->begin();
    if (op.transfer->begun()) co_await op.transfer->finish(good);
    op.transfer->on_failure({});
    if (op.transfer->moved_bytes() > TRIM_ABOVE_BYTES) malloc_trim(0);
  }
  running_ = nullptr;
}

asio::awaitable<outcome> storage_session::start(storage_user user) {
  user_ = std::move(user);
  root_ = root_prefix(user_.root);
  std::string error;
  std::function<void()> activate = [&] {
    if (!interface()) error = plugin_activate(host_.plugin, host_.config.storage_dsi);
    others_.open(host_.changes, user_.name);
  };
  co_await run_aside(std::move(activate));
  if (!error.empty()) {
    log_error("{}: {}", who(), error);
    co_return outcome_failure(421, "The storage is not available.");
  }
  outcome how = co_await start_once();
  // A token that should be good may have been revoked, or renewed elsewhere.
  if (!how.ok() && exchanges_.summary().token_refused) {
    note_token_refused();
    outcome again = co_await start_once();
    if (again.ok() || !credential_failure_) how = std::move(again);
  }
  if (how.ok()) how = co_await look_at_root();
  co_return how;
}

/// A failure to start, as a login's: not the credential's fault is what may pass, and what the server is out of.
outcome storage_session::login_failure(outcome how) const {
  const request_fate last = exchanges_.summary().last;
  const bool may_pass = how.code < 500 || (last.sent > 0 && status_may_pass(last.status));
  how.code = may_pass ? 421 : 530;
  return how;
}

asio::awaitable<outcome> storage_session::start_once() {
  credential_failure_.reset();
  operation op(*this, operation_kind::session_start, {.verb = "PASS", .path = "/"});
  op.work = [this](operation& started) {
    tarvex_gfs_session_info_t info{user_.name.c_str(), user_.peer.c_str()};
    interface()->init_func(&started, &info);
  };
  co_await run(op);
  started_ = take_session(op);
  username_ = op.username;
  home_directory_ = root_.is_top() ? op.home_directory : "/";
  outcome how = operation_outcome(op);
  if (!how.ok() && credential_failure_) co_return *credential_failure_;
  co_return how.ok() ? how : login_failure(std::move(how));
}

tarvex_result_t storage_session::hand_credential(bool renewal, std::optional<std::string>& document) {
  credential_reply reply = host_.credential.get(renewal, token_refused_ ? generation_ : 0);
  token_refused_ = false;
  if (reply.code != 0) {
    credential_failure_ = outcome_failure(reply.code, reply.text);
    // What a login is refused for ends a session that has logged in: nothing but an operator can help it.
    if (started_ && reply.code == 530) give_up(reply.text);
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, started_ ? 451 : reply.code,
                                                                    "CREDENTIAL_NOT_USABLE", "%s", reply.text.c_str()));
  }
  document = std::move(reply.document);
  generation_ = reply.generation;
  return TARVEX_SUCCESS;
}

asio::awaitable<void> storage_session::leave() {
  std::function<void()> let_go = [this] {
    unfinished_.clear();
    handle_.reset();
  };
  if (thread_) co_await run_aside(std::move(let_go));
  started_ = false;
  user_ = {};
  root_ = root_prefix();
  username_.clear();
  home_directory_.clear();
  checksums_.clear();
  hopeless_.clear();
  token_refused_ = false;
}

/// The plug-in's session that an operation has started becomes the one in use. \return false when there is none.
bool storage_session::take_session(operation& started) {
  if (!started.finished || !operation_succeeded(started)) return false;
  const auto* const called = interface();
  handle_ = std::shared_ptr<void>(started.handle, [called](void* handle) {
    if (called->destroy_func) called->destroy_func(handle);
  });
  if (host_.credential.used) host_.credential.used(generation_);
  return true;
}

owned_result storage_session::renew_inside(operation& op) {
  log_debug("{}: {} {}: the storage's session is started anew", who(), op.subject.verb, operation_path(op));
  // Read before the start: what changes meanwhile may be unknown to the new session.
  change_view fresh = others_;
  fresh.open(host_.changes, user_.name);
  operation inner(*this, operation_kind::session_start, {.verb = "renew", .path = "/"});
  tarvex_gfs_session_info_t info{user_.name.c_str(), user_.peer.c_str()};
  interface()->init_func(&inner, &info);
  const std::shared_ptr<void> before = handle_;
  if (!take_session(inner)) return inner.result.ok() ? owned_result(TARVEX_FAILURE) : std::move(inner.result);
  for (auto& [path, left] : unfinished_)
    if (others_.stale(path_parent(path))) left.offset = 0;
  others_ = fresh;
  return {};
}

const unfinished_store* storage_session::unfinished(std::string_view path) const {
  const auto left = unfinished_.find(root_.to_box(path));
  return left == unfinished_.end() ? nullptr : &left->second;
}

asio::awaitable<outcome> storage_session::forget_unfinished(std::string path) {
  path = root_.to_box(path);
  const auto left = unfinished_.find(path);
  if (left == unfinished_.end()) co_return outcome{};
  outcome how;
  if (left->second.session == handle_) {
    operation op(*this, operation_kind::stat, {.verb = "STOR", .path = root_.path()});
    op.work = [](operation& started) {
      (void)operation_complete(started, operation_kind::stat, started.storage.renew_inside(started).release());
    };
    co_await run(op);
    how = operation_outcome(op);
  }
  // There, since it may be the end of a session of the plug-in's, which talks to Box then.
  std::function<void()> forget = [this, path] { unfinished_.erase(path); };
  if (how.ok()) co_await run_aside(std::move(forget));
  co_return how;
}

bool storage_session::sends() const {
  return interface() && interface()->send_func;
}
bool storage_session::receives() const {
  return interface() && interface()->recv_func;
}
bool storage_session::takes_commands() const {
  return interface() && interface()->command_func;
}

bool storage_session::computes(std::string_view algorithm) const {
  std::string_view announced = takes_commands() ? std::string_view(checksums_) : std::string_view();
  while (!announced.empty()) {
    const std::string_view entry = announced.substr(0, announced.find(';'));
    if (same_word(entry.substr(0, entry.find(':')), algorithm)) return true;
    announced.remove_prefix(std::min(announced.size(), entry.size() + 1));
  }
  return false;
}

std::uint64_t storage_session::chunked_minimum() const {
  const auto setting = plugin_setting(host_.plugin, host_.config.storage_dsi, "chunked_minimum");
  return static_cast<std::uint64_t>(std::max(setting.value_or(DEFAULT_CHUNKED_MINIMUM), 0));
}

bool storage_session::cancel(int code, const std::string& why) {
  if (!running_) return false;
  running_->cancelled = true;
  tarvex_cancel_request(cancel_);
  if (running_->transfer) running_->transfer->fail(code, why);
  return true;
}

bool storage_session::finish(std::chrono::milliseconds limit, std::chrono::milliseconds tidy_limit) {
  if (!thread_) return true;
  if (running_) return false;
  const bool tidies = !unfinished_.empty();
  if (tidies) tarvex_cancel_reset(cancel_);  // or the requests that undo would be cancelled like those that did
  thread_->submit([this] {
    unfinished_.clear();
    handle_.reset();
  });
  bool stopped = tidies && thread_->stop(tidy_limit);
  if (!stopped) tarvex_cancel_request(cancel_);
  if (!stopped) stopped = thread_->stop(limit);
  if (!stopped) return false;
  thread_.reset();
  if (interface()) plugin_deactivate(host_.plugin);
  return true;
}

}  // namespace tarvex::server
