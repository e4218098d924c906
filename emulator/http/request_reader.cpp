#include "http/request_reader.h"

#include "http/input_buffer.h"

#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>

#include <vector>

namespace tarvex::emulator {
namespace http = boost::beast::http;
namespace {

constexpr std::size_t SCRAP_BYTES = 256UL * 1024;
constexpr std::uint32_t MAX_HEAD_BYTES = 64UL * 1024;

void split_target(request& into) {
  const auto question = into.target.find('?');
  into.path = into.target.substr(0, question);
  into.raw_query = question == std::string::npos ? "" : into.target.substr(question + 1);
  into.query = form_pairs(into.raw_query);
  // Clients in wide use write "/2.0/users/me/" and "/oauth2/token/".
  while (into.path.size() > 1 && into.path.ends_with('/')) into.path.pop_back();
}

}  // namespace

class request_reader::state final : public body_source {
 public:
  explicit state(transport& from) : connection_(from), input_(from) {}

  reading next_head(request& into) {
    // Not eager: the parser stops behind the head, so that a body is read when its handler asks for it, and with a
    // length straight from the connection, past the parser.
    parser_.emplace();
    parser_->eager(false);
    parser_->header_limit(MAX_HEAD_BYTES);
    parser_->body_limit(boost::none);
    if (const reading outcome = parse_head(); outcome != reading::READ) return outcome;
    const auto& head = parser_->get();
    into = request();
    into.method = std::string(head.method_string());
    into.target = std::string(head.target());
    for (const auto& field : head) into.headers.emplace_back(field.name_string(), field.value());
    split_target(into);
    if (const auto length = parser_->content_length()) into.content_length = *length;
    into.chunked = parser_->chunked();
    into.body = this;
    left_ = into.content_length.value_or(0);
    finished_ = !into.chunked && left_ == 0;
    const auto expect = into.header("Expect");
    continue_wanted_ = expect && equal_ignoring_case(*expect, "100-continue");
    // The parser lets an empty coding pass; a client that means "none" must not send the line.
    const auto coding = into.header("Transfer-Encoding");
    return coding && trim(*coding).empty() ? reading::NOT_HTTP : reading::READ;
  }

  // A client that announced "Expect: 100-continue" sends its body once it is asked for, and not before: so a refusal
  // that needs no body costs no upload.
  std::size_t read(std::span<char> out) override {
    if (finished_) return 0;
    if (continue_wanted_) {
      continue_wanted_ = false;
      if (!connection_.write("HTTP/1.1 100 Continue\r\n\r\n", false)) throw connection_lost();
    }
    return parser_->chunked() ? read_chunked(out) : read_counted(out);
  }

  [[nodiscard]] bool keep_alive() const { return parser_ && parser_->keep_alive(); }
  [[nodiscard]] bool is_unasked() const { return continue_wanted_ && !finished_; }

 private:
  reading parse_head() {
    for (;;) {
      if (!input_.pending().empty()) {
        boost::system::error_code error;
        input_.consume(parser_->put(boost::asio::buffer(input_.pending()), error));
        if (parser_->is_header_done()) return reading::READ;
        // need_more is no failure: the head has not come whole.
        if (error == http::error::header_limit) return reading::TOO_LARGE;
        if (error && error != http::error::need_more) return reading::NOT_HTTP;
      }
      if (!input_.fill()) return reading::CLOSED;
    }
  }

  // Past the parser, which would copy every byte of an upload once more.
  std::size_t read_counted(std::span<char> out) {
    const std::size_t got = input_.take(out.first(std::min<std::uint64_t>(out.size(), left_)));
    if (got == 0) throw connection_lost();
    left_ -= got;
    finished_ = left_ == 0;
    return got;
  }

  std::size_t read_chunked(std::span<char> out) {
    auto& body = parser_->get().body();
    body.data = out.data();
    body.size = out.size();
    body.more = true;
    while (!parser_->is_done()) {
      boost::system::error_code error;
      const std::size_t used = parser_->put(boost::asio::buffer(input_.pending()), error);
      input_.consume(used);
      // need_buffer means that `out` is full, need_more that a chunk's head is cut: neither is a failure.
      if (const std::size_t got = out.size() - body.size; got > 0) return got;
      if (error && error != http::error::need_more && error != http::error::need_buffer) throw connection_lost();
      if (used == 0 && !parser_->is_done() && !input_.fill()) throw connection_lost();
    }
    finished_ = true;
    return 0;
  }

  transport& connection_;
  input_buffer input_;
  std::optional<http::request_parser<http::buffer_body>> parser_;
  std::uint64_t left_ = 0;  // of a body with a length
  bool finished_ = true;
  bool continue_wanted_ = false;
};

request_reader::request_reader(transport& from) : state_(std::make_unique<state>(from)) {}
request_reader::~request_reader() = default;

reading request_reader::next(request& into) {
  return state_->next_head(into);
}

bool request_reader::drain(std::uint64_t most_bytes) {
  // Nobody asked for this body with "100 Continue", so nobody knows whether the client sends it all the same.
  if (state_->is_unasked()) return false;
  std::vector<char> scrap(SCRAP_BYTES);
  try {
    for (std::uint64_t dropped = 0; dropped <= most_bytes;) {
      const std::size_t got = state_->read(scrap);
      if (got == 0) return true;
      dropped += got;
    }
  } catch (const connection_lost&) {
    return false;
  }
  return false;
}

bool request_reader::keep_alive() const {
  return state_->keep_alive();
}

}  // namespace tarvex::emulator
