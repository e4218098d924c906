// OpenSSL reads and writes through a BIO of this file's own: what arrives is received in large pieces and cut into
// records here, what goes out gathers until many records go in one call.
#include "net/tls_engine.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t RECORD_BYTES = 16 * 1024;  // RFC 8446 section 5.1
constexpr std::size_t TALK_INPUT_BYTES = 4 * 1024;
constexpr std::size_t BULK_INPUT_BYTES = 128 * 1024;
constexpr std::size_t OUTPUT_KEPT_BYTES = 8 * 1024;  // of a connection that talks

/// Bytes in memory of a fixed size, which is taken when it is needed.
struct input_buffer {
  explicit input_buffer(std::size_t bytes) : capacity(bytes) {}

  const std::size_t capacity;
  std::unique_ptr<unsigned char[]> memory;
  std::size_t first = 0, end = 0;

  bool empty() const { return first == end; }
  std::size_t take(char* into, std::size_t most) {
    const std::size_t bytes = std::min(most, end - first);
    std::memcpy(into, memory.get() + first, bytes);
    first += bytes;
    return bytes;
  }
};

/// Bytes in order, of which the first ones go first.
struct output_buffer {
  std::vector<unsigned char> bytes;
  std::size_t first = 0;

  bool empty() const { return first == bytes.size(); }
  void drop(std::size_t count, bool keep_memory) {
    first += count;
    if (!empty()) return;
    first = 0;
    bytes.clear();
    if (!keep_memory && bytes.capacity() > OUTPUT_KEPT_BYTES) bytes.shrink_to_fit();
  }
};

error_code socket_error(int number) {
  return {number, asio::error::get_system_category()};
}

/// The cause of what has failed; the rest of OpenSSL's list is emptied for the next caller.
error_code engine_error() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return asio::error::connection_aborted;
  return {static_cast<int>(code), asio::error::get_ssl_category()};
}

}  // namespace

struct tls_engine::state {
  state(SSL* connection, kind use)
      : ssl(connection), bulk(use == kind::bulk), input(bulk ? BULK_INPUT_BYTES : TALK_INPUT_BYTES) {}

  owner<SSL, SSL_free> ssl;
  const bool bulk;
  int socket = -1;
  input_buffer input;
  output_buffer output;
  error_code broken;                 // of the socket, for reading
  bool starved = false;              // the last read has left nothing
  std::vector<unsigned char> small;  // pieces that share a record

  std::size_t receive(void* into, std::size_t most);
  int bio_read(BIO* bio, char* into, int length);
  bool encrypt(const void* bytes, std::size_t length);
  bool encrypt_small();
  std::size_t add(asio::const_buffer piece, std::size_t most);
  error_code end_of_reading(int outcome);

  static BIO_METHOD* method();
};

/// One system call. 0: nothing, and `broken` tells when there will never be anything.
std::size_t tls_engine::state::receive(void* into, std::size_t most) {
  const ssize_t got = recv(socket, into, most, MSG_DONTWAIT);
  if (got > 0) return static_cast<std::size_t>(got);
  if (got == 0)
    broken = asio::error::eof;
  else if (errno != EAGAIN && errno != EINTR)
    broken = socket_error(errno);
  return 0;
}

int tls_engine::state::bio_read(BIO* bio, char* into, int length) {
  BIO_clear_retry_flags(bio);
  if (input.empty() && !broken) {
    if (!input.memory) input.memory.reset(new (std::nothrow) unsigned char[input.capacity]);
    if (!input.memory) broken = asio::error::no_memory;
    input.first = 0;
    input.end = input.memory ? receive(input.memory.get(), input.capacity) : 0;
  }
  if (!input.empty()) return static_cast<int>(input.take(into, static_cast<std::size_t>(length)));
  if (broken) return broken == asio::error::eof ? 0 : -1;
  BIO_set_retry_read(bio);
  return -1;
}

/// Shared by all engines; never freed, like OpenSSL's own.
BIO_METHOD* tls_engine::state::method() {
  static BIO_METHOD* const METHOD = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "connection");
    if (made == nullptr) throw std::bad_alloc();
    BIO_meth_set_read(made, [](BIO* bio, char* into, int length) {
      return static_cast<state*>(BIO_get_data(bio))->bio_read(bio, into, length);
    });
    BIO_meth_set_write(made, [](BIO* bio, const char* bytes, int length) {
      auto& out = static_cast<state*>(BIO_get_data(bio))->output.bytes;
      try {
        out.insert(out.end(), bytes, bytes + length);
        return length;
      } catch (const std::bad_alloc&) {  // no exception goes through OpenSSL
        return -1;
      }
    });
    BIO_meth_set_ctrl(made, [](BIO* bio, int command, long, void*) -> long {
      if (command == BIO_CTRL_FLUSH) return 1;
      return command == BIO_CTRL_EOF && static_cast<state*>(BIO_get_data(bio))->broken == asio::error::eof ? 1 : 0;
    });
    return made;
  }();
  return METHOD;
}

tls_engine::tls_engine(SSL* connection, kind use) : state_(std::make_unique<state>(connection, use)) {
  BIO* const bio = BIO_new(state::method());
  if (bio == nullptr) throw std::bad_alloc();
  BIO_set_data(bio, state_.get());
  BIO_set_init(bio, 1);
  SSL_set_bio(connection, bio, bio);  // which owns it from now on
  SSL_set_accept_state(connection);
  if (!state_->bulk) SSL_set_mode(connection, SSL_MODE_RELEASE_BUFFERS);
}

tls_engine::~tls_engine() = default;

void tls_engine::attach(int socket) {
  state_->socket = socket;
}

error_code tls_engine::handshake() {
  ERR_clear_error();
  const int outcome = SSL_do_handshake(state_->ssl.get());
  if (outcome == 1) return {};
  if (SSL_get_error(state_->ssl.get(), outcome) == SSL_ERROR_WANT_READ) return asio::error::would_block;
  return state_->broken ? state_->broken : engine_error();
}

tls_engine::moved tls_engine::read(asio::mutable_buffer into) {
  ERR_clear_error();
  moved got;
  while (got.bytes < into.size()) {
    std::size_t bytes = 0;
    const int outcome = SSL_read_ex(state_->ssl.get(), static_cast<unsigned char*>(into.data()) + got.bytes,
                                    into.size() - got.bytes, &bytes);
    got.bytes += bytes;
    if (outcome == 1) continue;
    got.error = state_->end_of_reading(outcome);
    break;
  }
  state_->starved = got.error == asio::error::would_block;
  // What has come is handed out first; the error is met again.
  if (got.bytes > 0) got.error = {};
  return got;
}

/// Why nothing more can be read. An end is answered, once.
error_code tls_engine::state::end_of_reading(int outcome) {
  const int reason = SSL_get_error(ssl.get(), outcome);
  if (reason == SSL_ERROR_WANT_READ) return asio::error::would_block;
  if (broken && broken != asio::error::eof) return broken;
  if (reason != SSL_ERROR_ZERO_RETURN && broken != asio::error::eof) return engine_error();
  if ((SSL_get_shutdown(ssl.get()) & SSL_SENT_SHUTDOWN) == 0) (void)SSL_shutdown(ssl.get());
  ERR_clear_error();
  return broken ? error_code(asio::ssl::error::stream_truncated) : error_code(asio::error::eof);
}

bool tls_engine::readable() const {
  return !state_->starved;
}

bool tls_engine::state::encrypt(const void* bytes, std::size_t length) {
  std::size_t written = 0;
  return length == 0 || SSL_write_ex(ssl.get(), bytes, length, &written) == 1;
}

bool tls_engine::state::encrypt_small() {
  const bool good = encrypt(small.data(), small.size());
  small.clear();
  return good;
}

/// Puts the front of a piece into records: whole ones from where it lies, the rest together with its neighbours.
/// \return how many bytes; 0 when that failed.
std::size_t tls_engine::state::add(asio::const_buffer piece, std::size_t most) {
  std::size_t length = std::min(piece.size(), most);
  if (small.empty() && length >= RECORD_BYTES) {
    length -= length % RECORD_BYTES;
    return encrypt(piece.data(), length) ? length : 0;
  }
  length = std::min(length, RECORD_BYTES - small.size());
  const auto* const bytes = static_cast<const unsigned char*>(piece.data());
  small.insert(small.end(), bytes, bytes + length);
  return small.size() < RECORD_BYTES || encrypt_small() ? length : 0;
}

tls_engine::moved tls_engine::write(std::span<const asio::const_buffer> buffers) {
  ERR_clear_error();
  moved taken;
  if (state_->bulk) state_->output.bytes.reserve(WRITE_MAX + WRITE_MAX / 64);
  for (asio::const_buffer piece : buffers) {
    while (piece.size() > 0 && taken.bytes < WRITE_MAX) {
      const std::size_t added = state_->add(piece, WRITE_MAX - taken.bytes);
      if (added == 0) return {engine_error(), 0};
      piece += added;
      taken.bytes += added;
    }
  }
  if (!state_->encrypt_small()) return {engine_error(), 0};
  return taken;
}

void tls_engine::close_notify() {
  if (SSL_is_init_finished(state_->ssl.get()) == 1) (void)SSL_shutdown(state_->ssl.get());
  ERR_clear_error();
}

tls_engine::moved tls_engine::send_now() {
  output_buffer& out = state_->output;
  moved sent;
  while (!out.empty()) {
    const ssize_t count =
        send(state_->socket, out.bytes.data() + out.first, out.bytes.size() - out.first, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      sent.error = errno == EAGAIN ? error_code(asio::error::would_block) : socket_error(errno);
      return sent;
    }
    sent.bytes += static_cast<std::size_t>(count);
    out.drop(static_cast<std::size_t>(count), state_->bulk);
  }
  return sent;
}

bool tls_engine::unsent() const {
  return !state_->output.empty();
}

void tls_engine::renew_ticket() {
  (void)SSL_new_session_ticket(state_->ssl.get());  // which is for TLS 1.3, and says so
  ERR_clear_error();
}

bool tls_engine::resumed() const {
  return SSL_session_reused(state_->ssl.get()) == 1;
}

certificate_names tls_engine::peer_certificate() const {
  return certificate_names_of(SSL_get0_peer_certificate(state_->ssl.get()));
}

std::string tls_engine::description() const {
  return std::string(SSL_get_version(state_->ssl.get())) + ", " + SSL_get_cipher_name(state_->ssl.get());
}

}  // namespace tarvex::server
