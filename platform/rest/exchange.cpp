#include "exchange.h"

#include "error.h"
#include "module.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string_view>

namespace tarvex::rest {
namespace {

constexpr int POLL_MS = 200;
constexpr auto REPORT_INTERVAL = std::chrono::milliseconds(100);
constexpr long CONNECT_TIMEOUT_SECONDS = 30;
constexpr long RECEIVE_BUFFER_BYTES = 128L << 10;  // what is copied out of it is in the core's own cache still
constexpr long SEND_BUFFER_BYTES = 128L << 10;

/// Sets libcurl options one after the other; the first failure stays.
class option_setter {
 public:
  explicit option_setter(CURL* easy) : easy_(easy) {}

  template <typename Value>
  option_setter& set(CURLoption option, Value value) {
    if (code_ == CURLE_OK) code_ = curl_easy_setopt(easy_, option, value);
    return *this;
  }

  [[nodiscard]] CURLcode code() const noexcept { return code_; }

 private:
  CURL* easy_;
  CURLcode code_ = CURLE_OK;
};

/// Methods whose requests carry a length even when they have no body (RFC 9110 section 8.6).
bool expects_body(std::string_view method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

tarvex_result_t plan_body(bool has_writer, std::string_view method, const request_headers& headers,
                          const body_source& source, body_plan& plan) {
  plan.send = has_writer || (expects_body(method) && !headers.length_suppressed);
  if (!plan.send && headers.content_length.value_or(0) == 0) return TARVEX_SUCCESS;
  if (method == "HEAD") return fail(attempt::useless, "A HEAD request cannot have a body.");
  if (headers.content_length && headers.coding_given) {
    return fail(attempt::useless, "A request cannot have both Content-Length and Transfer-Encoding.");
  }
  if (headers.content_length && source.length_bytes && *headers.content_length != *source.length_bytes) {
    return fail(attempt::useless, "The Content-Length header says %" PRIu64 ", but the body has %" PRIu64 " bytes.",
                *headers.content_length, *source.length_bytes);
  }
  if (!headers.length_suppressed && !headers.coding_given) {
    plan.length_bytes = headers.content_length ? headers.content_length : source.length_bytes;
  }
  if (plan.length_bytes || !headers.coding_suppressed) return TARVEX_SUCCESS;
  return fail(attempt::useless, "A body of unknown length cannot be sent without Transfer-Encoding.");
}

}  // namespace

/// Takes the time that passes inside a callback out of the idle time.
class exchange::pause {
 public:
  explicit pause(exchange& owner) : owner_(owner), began_(clock::now()) {}
  pause(const pause&) = delete;
  pause& operator=(const pause&) = delete;
  ~pause() { owner_.last_moved_ += clock::now() - began_; }

 private:
  exchange& owner_;
  clock::time_point began_;
};

CURLcode exchange::set_callbacks() {
  option_setter options(easy_);
  options.set(CURLOPT_HEADERFUNCTION, &exchange::on_header)
      .set(CURLOPT_HEADERDATA, this)
      .set(CURLOPT_WRITEFUNCTION, &exchange::on_body)
      .set(CURLOPT_WRITEDATA, this)
      .set(CURLOPT_READFUNCTION, &exchange::on_room)
      .set(CURLOPT_READDATA, this)
      .set(CURLOPT_PREREQFUNCTION, &exchange::on_send)
      .set(CURLOPT_PREREQDATA, this)
      .set(CURLOPT_SEEKFUNCTION, &exchange::on_seek)
      .set(CURLOPT_SEEKDATA, this)
      .set(CURLOPT_ERRORBUFFER, detail_);
  return options.code();
}

CURLcode exchange::set_body_options(const char* method) {
  option_setter options(easy_);
  if (std::string_view(method) == "HEAD") options.set(CURLOPT_NOBODY, 1L);
  if (plan_.send) {
    const curl_off_t length = plan_.length_bytes ? static_cast<curl_off_t>(*plan_.length_bytes) : -1;
    options.set(CURLOPT_UPLOAD, 1L).set(CURLOPT_INFILESIZE_LARGE, length);
  }
  return options.set(CURLOPT_CUSTOMREQUEST, method).code();
}

CURLcode exchange::set_options(const char* method, const target& where, const request_headers& headers) {
  option_setter options(easy_);
  options.set(CURLOPT_NOSIGNAL, 1L)
      .set(CURLOPT_NOPROGRESS, 1L)
      .set(CURLOPT_QUICK_EXIT, 1L)  // a cancelled request does not wait for the name service
      .set(CURLOPT_FOLLOWLOCATION, 0L)
      .set(CURLOPT_PROTOCOLS_STR, "http,https")
      .set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L)
      .set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2))
      .set(CURLOPT_SSL_VERIFYPEER, 1L)
      .set(CURLOPT_SSL_VERIFYHOST, 2L)
      .set(CURLOPT_CONNECTTIMEOUT, CONNECT_TIMEOUT_SECONDS)
      .set(CURLOPT_TCP_KEEPALIVE, 1L)
      .set(CURLOPT_BUFFERSIZE, RECEIVE_BUFFER_BYTES)
      .set(CURLOPT_UPLOAD_BUFFERSIZE, SEND_BUFFER_BYTES)
      .set(CURLOPT_PROXY, proxy().c_str())  // an empty one also keeps libcurl from the environment's
      .set(CURLOPT_NOPROXY, "localhost,127.0.0.0/8,::1")
      .set(CURLOPT_URL, where.url.c_str())
      .set(CURLOPT_HTTPHEADER, headers.list());
  if (const std::string& file = certificate_authorities_file(); !file.empty()) {
    options.set(CURLOPT_CAINFO, file.c_str());
  }
  if (options.code() != CURLE_OK) return options.code();
  if (const CURLcode code = set_callbacks(); code != CURLE_OK) return code;
  return set_body_options(method);
}

tarvex_result_t exchange::prepare(const char* method, const target& where, const request_headers& headers,
                                  const tarvex_dsi_rest_key_array_t* header_pairs) {
  peer_ = where.peer;
  tarvex_result_t result =
      make_source(callbacks_.data_write_callback, callbacks_.data_write_callback_arg, header_pairs, source_);
  if (result != TARVEX_SUCCESS) return result;
  result = make_sink(callbacks_.data_read_callback, callbacks_.data_read_callback_arg, header_pairs, sink_);
  if (result != TARVEX_SUCCESS) return result;
  result = plan_body(callbacks_.data_write_callback != nullptr, method, headers, source_, plan_);
  if (result != TARVEX_SUCCESS) return result;
  const CURLcode code = set_options(method, where, headers);
  return code == CURLE_OK ? result : fail_transport(code, peer_, 0, detail_);
}

tarvex_result_t exchange::announce() {
  if (const tarvex_result_t result = sink_.start(head_); result != TARVEX_SUCCESS) return result;
  if (callbacks_.response_callback == nullptr) return TARVEX_SUCCESS;
  std::vector<tarvex_dsi_rest_key_value_t> pairs;
  for (const auto& line : head_.lines()) {
    // The interface's type lacks the const.
    pairs.push_back({const_cast<char*>(line.name.c_str()), const_cast<char*>(line.value.c_str())});
  }
  const tarvex_dsi_rest_key_array_t headers = {pairs.size(), pairs.data()};
  return callbacks_.response_callback(callbacks_.response_callback_arg, head_.status(), &headers);
}

std::size_t exchange::on_header(char* line, std::size_t, std::size_t count, void* self) noexcept {
  auto& me = *static_cast<exchange*>(self);
  me.head_bytes_ += count;
  me.failure_.note(guarded([&]() -> tarvex_result_t {
    if (me.head_.complete()) return TARVEX_SUCCESS;
    long status = 0;
    (void)curl_easy_getinfo(me.easy_, CURLINFO_RESPONSE_CODE, &status);  // cannot fail for a known item
    const tarvex_result_t result = me.head_.add_line({line, count}, static_cast<int>(status));
    return result == TARVEX_SUCCESS && me.head_.complete() ? me.announce() : result;
  }));
  return me.failure_ ? 0 : count;
}

tarvex_result_t exchange::push(std::span<const char> piece) {
  const pause outside(*this);
  received_ += piece.size();
  return sink_.push(piece, range_full_);
}

std::size_t exchange::on_body(char* piece, std::size_t, std::size_t count, void* self) noexcept {
  auto& me = *static_cast<exchange*>(self);
  me.failure_.note(guarded([&] { return me.push({piece, count}); }));
  return me.failure_ || me.range_full_ ? 0 : count;
}

tarvex_result_t exchange::pull(std::span<char> room, std::size_t& amount) {
  const pause outside(*this);
  amount = 0;
  if (plan_.length_bytes) room = room.first(std::min<std::uint64_t>(room.size(), *plan_.length_bytes - pulled_));
  if (room.empty()) return TARVEX_SUCCESS;
  if (const tarvex_result_t result = source_.pull(room, amount); result != TARVEX_SUCCESS) return result;
  pulled_ += amount;
  if (amount == 0 && !plan_.length_bytes) pulled_all_ = true;
  if (amount > 0 || !plan_.length_bytes) return TARVEX_SUCCESS;
  return fail(attempt::useless, "The request's body ended after %" PRIu64 " of %" PRIu64 " bytes.", pulled_,
              *plan_.length_bytes);
}

std::size_t exchange::on_room(char* room, std::size_t size, std::size_t count, void* self) noexcept {
  auto& me = *static_cast<exchange*>(self);
  std::size_t amount = 0;
  me.failure_.note(guarded([&] { return me.pull({room, size * count}, amount); }));
  return me.failure_ ? CURL_READFUNC_ABORT : amount;
}

int exchange::on_send(void* self, char*, char*, int, int) noexcept {
  ++static_cast<exchange*>(self)->times_sent_;
  return CURL_PREREQFUNC_OK;
}

/// libcurl starts a body again when a kept connection turns out to be closed.
int exchange::on_seek(void* self, curl_off_t offset, int origin) noexcept {
  auto& me = *static_cast<exchange*>(self);
  if (offset != 0 || origin != SEEK_SET || (!me.source_.rewind && me.pulled_ > 0)) return CURL_SEEKFUNC_FAIL;
  if (me.source_.rewind) me.source_.rewind();
  me.pulled_ = 0;
  return CURL_SEEKFUNC_OK;
}

std::uint64_t exchange::bytes_sent() const {
  curl_off_t sent = 0;
  (void)curl_easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &sent);  // cannot fail for a known item
  return std::min(static_cast<std::uint64_t>(sent), pulled_);     // libcurl counts the chunks' framing too
}

bool exchange::sent_whole() const {
  long head_bytes = 0;
  (void)curl_easy_getinfo(easy_, CURLINFO_REQUEST_SIZE, &head_bytes);  // cannot fail for a known item
  if (head_bytes == 0) return false;
  return !plan_.send || (plan_.length_bytes ? pulled_ >= *plan_.length_bytes : pulled_all_);
}

tarvex_result_t exchange::report_progress() {
  const auto now = clock::now();
  const std::uint64_t sent = bytes_sent();
  if (const std::uint64_t moved = sent + received_ + head_bytes_; moved != moved_) {
    moved_ = moved;
    last_moved_ = now;
  }
  if (callbacks_.progress_callback == nullptr || now - last_report_ < REPORT_INTERVAL) return TARVEX_SUCCESS;
  last_report_ = now;
  const auto idle = std::chrono::duration_cast<std::chrono::milliseconds>(now - last_moved_);
  return callbacks_.progress_callback(callbacks_.progress_callback_arg, sent, received_,
                                      static_cast<std::uint64_t>(std::max<std::int64_t>(idle.count(), 0)));
}

tarvex_result_t exchange::drive_once(bool& running) {
  int still_running = 0;
  const CURLMcode code = curl_multi_perform(multi_, &still_running);
  if (code != CURLM_OK) return fail(attempt::useless, "The request failed: %s", curl_multi_strerror(code));
  running = still_running != 0 && !failure_;
  if (!running) return TARVEX_SUCCESS;
  if (const tarvex_result_t result = sink_.idle(); result != TARVEX_SUCCESS) return result;
  if (const tarvex_result_t result = report_progress(); result != TARVEX_SUCCESS) return result;
  curl_waitfd cancelled = {.fd = tarvex_cancel_fd(), .events = CURL_WAIT_POLLIN, .revents = 0};
  (void)curl_multi_poll(multi_, &cancelled, cancelled.fd < 0 ? 0U : 1U, POLL_MS, nullptr);  // a failure shows above
  return TARVEX_SUCCESS;
}

tarvex_result_t exchange::drive() {
  last_moved_ = last_report_ = clock::now();
  if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) return out_of_memory();
  for (bool running = true; running;) {
    if (tarvex_cancel_requested()) return fail(attempt::useless, "The request was cancelled.");
    if (const tarvex_result_t result = drive_once(running); result != TARVEX_SUCCESS) return result;
  }
  return failure_ ? failure_.take() : judge();
}

tarvex_result_t exchange::judge() {
  int left = 0;
  const CURLMsg* const message = curl_multi_info_read(multi_, &left);
  if (message == nullptr) return fail(attempt::useless, "The request ended without an outcome.");
  const CURLcode code = message->data.result;
  if (range_full_ || (code == CURLE_OK && head_.complete())) return TARVEX_SUCCESS;
  // To libcurl all is well when a connection is closed within the headers.
  if (code == CURLE_OK) return fail_transport(CURLE_PARTIAL_FILE, peer_, 0, detail_);
  long system_errno = 0;
  (void)curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &system_errno);  // cannot fail for a known item
  return fail_transport(code, peer_, system_errno, detail_);
}

/// libcurl does not ask for a body of 0 bytes, but only its source knows whether it is over.
tarvex_result_t exchange::check_empty_body() {
  if (!plan_.send || plan_.length_bytes != 0U) return TARVEX_SUCCESS;
  char byte = 0;
  std::size_t amount = 0;
  const tarvex_result_t result = source_.pull({&byte, 1}, amount);
  if (result != TARVEX_SUCCESS || amount == 0) return result;
  return fail(attempt::useless, "The request's body is longer than the 0 bytes that its length says.");
}

tarvex_result_t exchange::run() {
  tarvex_result_t driven = check_empty_body();
  if (driven == TARVEX_SUCCESS) driven = drive();
  first_failure outcome;
  outcome.note(driven);
  outcome.note(guarded([&] { return sink_.finish(driven == TARVEX_SUCCESS); }));
  return outcome.take();
}

}  // namespace tarvex::rest
