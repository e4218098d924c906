#include "http/connection.h"

#include "http/paced_transport.h"
#include "http/request_reader.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace tarvex::emulator {
namespace {

/// An early error reads off the rest of a body up to here; beyond it the connection is closed.
constexpr std::uint64_t MAX_DRAINED_BYTES = 1ULL << 33;

/// 204 must not announce a length, and that of a 304 would be the whole one's (RFC 9110, 8.6).
std::string head_text(const response& answer, bool keep) {
  std::string text = "HTTP/1.1 " + std::to_string(answer.status) + ' ';
  text += status_reason(answer.status);
  text += "\r\n";
  for (const auto& [name, value] : answer.headers) text.append(name).append(": ").append(value).append("\r\n");
  if (answer.how.chunked) {
    text += "Transfer-Encoding: chunked\r\n";
  } else if (answer.status != 204 && answer.status != 304) {
    text += "Content-Length: " + std::to_string(response_length(answer)) + "\r\n";
  }
  text += keep ? "\r\n" : "Connection: close\r\n\r\n";
  return text;
}

bool send_piece(transport& client, const response& answer, std::int64_t offset, std::int64_t length) {
  // A file is never sent in chunks: downloads come with their length, which clients check.
  if (answer.file) return client.send_file(answer.file->file.get(), answer.file->offset + offset, length);
  const std::string_view piece =
      std::string_view(answer.body).substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(length));
  if (!answer.how.chunked) return client.write(piece, false);
  std::array<char, 24> size{};
  std::snprintf(size.data(), size.size(), "%zx\r\n", piece.size());
  return client.write(size.data(), true) && client.write(piece, true) && client.write("\r\n", true);
}

/// Sends the body, in pieces and cut short where the delivery says so. False when the connection ends here.
bool send_body(transport& client, const response& answer) {
  const std::int64_t all = response_length(answer);
  const std::int64_t end = std::min(all, answer.how.cut_after.value_or(all));
  const std::int64_t step = answer.how.piece_bytes > 0 ? answer.how.piece_bytes : std::max<std::int64_t>(end, 1);
  for (std::int64_t at = 0; at < end; at += step) {
    if (at > 0 && answer.how.piece_delay_ms > 0 && !client.pause(answer.how.piece_delay_ms)) return false;
    if (!send_piece(client, answer, at, std::min(step, end - at))) return false;
  }
  // A cut ends the connection even where it lies behind the last byte.
  if (answer.how.cut_after) return false;
  return !answer.how.chunked || client.write("0\r\n\r\n", false);
}

bool send(transport& client, const response& answer, bool with_body, bool keep) {
  // Ends when the client goes away, or with the server: both shut the socket.
  if (answer.how.hang) return client.pause(-1);
  if (answer.how.delay_ms > 0 && !client.pause(answer.how.delay_ms)) return false;
  if (answer.how.drop) return false;
  std::string head = head_text(answer, keep);
  // Head and body in one packet where nothing asks for less.
  const bool at_once = with_body && !answer.file && !answer.how.chunked && answer.how.piece_bytes == 0 &&
                       !answer.how.cut_after && answer.body.size() < 65536;
  if (at_once) return client.write(head + answer.body, false);
  const bool more = with_body && response_length(answer) > 0;
  return client.write(head, more) && (!with_body || send_body(client, answer));
}

/// The answer to what is not a request.
response refusal(reading outcome) {
  response answer = outcome == reading::TOO_LARGE
                        ? response_text(431, "text/html", "<html><body>Request head too large</body></html>\n")
                        : response_text(400, "text/html", "<html><body>Bad request</body></html>\n");
  answer.close = true;
  return answer;
}

}  // namespace

void connection_serve(transport& bare, connection_facts facts, const request_handler& handler) {
  paced_transport client(bare);
  request_reader reader(client);
  for (;;) {
    request current;
    const reading outcome = reader.next(current);
    if (outcome == reading::CLOSED) return;
    if (outcome != reading::READ) {
      (void)send(client, refusal(outcome), true, false);  // the connection ends either way
      return;
    }
    current.secure = facts.secure;
    current.loopback = facts.loopback;
    current.line = &client;
    const response answer = handler(current);
    // The rest of a body is read off before the answer: a client that is still sending may read nothing before it is
    // done, and closing on unread bytes would reset the connection and lose the answer.
    const bool keep = !answer.close && reader.keep_alive() && reader.drain(MAX_DRAINED_BYTES);
    if (!send(client, answer, current.method != "HEAD", keep) || !keep) return;
  }
}

}  // namespace tarvex::emulator
