#include "storage/exchange_log.h"

#include <atomic>
#include <string_view>
#include <utility>

namespace tarvex::server {

namespace {

std::atomic<exchange_log*> current = nullptr;

tarvex_result_t gate(void*, const tarvex_exchange_t* about) {
  if (exchange_log* const log = current) log->going_out(*about);
  return TARVEX_SUCCESS;
}

void observe(void*, const tarvex_exchange_t* exchange) {
  if (exchange_log* const log = current) log->note(*exchange);
}

const tarvex_exchange_observer_t OBSERVER = {nullptr, gate, observe};

std::string_view text(const char* maybe) {
  return maybe == nullptr ? std::string_view() : std::string_view(maybe);
}

/// An upload session that is dropped was nobody's file yet.
bool drops_session(const tarvex_exchange_t& exchange) {
  return text(exchange.method) == "DELETE" && text(exchange.path).find("/upload_sessions/") != std::string_view::npos;
}

/// Whether the request leaves what is stored as it is.
bool changes_nothing(const tarvex_exchange_t& exchange) {
  const std::string_view method = text(exchange.method);
  return method == "GET" || method == "HEAD" || method == "OPTIONS" || drops_session(exchange);
}

/// Where an exchange is entered; null: it is of no kind that says something. Parts are known by their digest.
request_fate* fate_of(exchange_summary& all, const tarvex_exchange_t& exchange) {
  const std::string_view method = text(exchange.method);
  if (method == "GET") return exchange.authorised ? &all.reads : nullptr;
  if (method == "DELETE") return drops_session(exchange) ? nullptr : &all.deletes;
  if (method == "PUT") return exchange.digest == nullptr ? &all.puts : nullptr;
  if (method != "POST") return nullptr;
  if (exchange.digest != nullptr) return &all.commit;
  return text(exchange.request_type).starts_with("multipart/") ? &all.upload : &all.posts;
}

}  // namespace

bool status_is_doubtful(int status) {
  return status == 0 || status == 408 || status >= 500;
}

bool status_may_pass(int status) {
  return status_is_doubtful(status) || status == 409 || status == 423 || status == 429;
}

void request_fate::note(const tarvex_exchange_t& exchange) {
  ++sent;
  status = exchange.status;
  const bool lost = exchange.status == 0 && exchange.may_have_arrived;
  if (lost || exchange.repeated || (exchange.status != 0 && status_is_doubtful(exchange.status))) doubtful = true;
}

exchange_log::exchange_log() {
  // The registry keeps the first; it is the same one for every session that this process makes.
  (void)tarvex_extension_registry_add(&tarvex_i_exchange_observer_registry, TARVEX_EXCHANGE_OBSERVER_NAME, nullptr,
                                      &OBSERVER);
  current = this;
}

exchange_log::~exchange_log() {
  exchange_log* mine = this;
  current.compare_exchange_strong(mine, nullptr);
}

void exchange_log::begin(std::function<void()> touching) {
  const std::lock_guard lock(mutex_);
  summary_ = {};
  touching_ = std::move(touching);
}

void exchange_log::end() {
  const std::lock_guard lock(mutex_);
  touching_ = nullptr;
}

exchange_summary exchange_log::summary() const {
  const std::lock_guard lock(mutex_);
  return summary_;
}

bool exchange_log::hears() const {
  const std::lock_guard lock(mutex_);
  return hears_;
}

void exchange_log::going_out(const tarvex_exchange_t& about) {
  if (changes_nothing(about)) return;
  const std::lock_guard lock(mutex_);
  if (const auto call = std::exchange(touching_, nullptr)) call();
}

void exchange_log::note(const tarvex_exchange_t& exchange) {
  const std::lock_guard lock(mutex_);
  hears_ = true;
  if (drops_session(exchange)) return;
  summary_.last.note(exchange);
  constexpr int UNAUTHORISED = 401;
  if (exchange.authorised && exchange.status == UNAUTHORISED) summary_.token_refused = true;
  if (!changes_nothing(exchange) && exchange.status != UNAUTHORISED) summary_.changing = true;
  request_fate* const fate = fate_of(summary_, exchange);
  if (fate) fate->note(exchange);
  if (exchange.brings_content && exchange.status != 0) summary_.content = {exchange.status, exchange.total_length};
  if (fate == &summary_.commit) summary_.commit_digest = text(exchange.digest);
}

}  // namespace tarvex::server
