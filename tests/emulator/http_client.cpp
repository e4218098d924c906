#include "http_client.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>

namespace emulator_test {
namespace {

std::string sha1(std::string_view bytes) {
  std::string digest(SHA_DIGEST_LENGTH, '\0');
  EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_sha1(), nullptr);
  return digest;
}

std::string chunked(const std::string& body) {
  std::string coded;
  for (std::size_t at = 0; at < body.size(); at += 1000) {
    const std::string piece = body.substr(at, 1000);
    std::array<char, 20> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", piece.size());
    coded += size.data() + piece + "\r\n";
  }
  return coded + "0\r\n\r\n";
}

}  // namespace

std::string reply::header(std::string_view name) const {
  for (std::size_t at = head.find("\r\n"); at != std::string::npos && at + 2 < head.size();) {
    const std::size_t end = head.find("\r\n", at + 2);
    const std::string line = head.substr(at + 2, end - at - 2);
    const auto colon = line.find(": ");
    if (colon == name.size() && strncasecmp(line.c_str(), name.data(), colon) == 0) return line.substr(colon + 2);
    at = end;
  }
  return {};
}

json_ptr reply::json() const {
  return json_ptr(json_loadb(body.data(), body.size(), JSON_DECODE_ANY, nullptr));
}

std::string reply::at(std::string_view path) const {
  const json_ptr whole = json();
  const json_t* value = whole.get();
  while (value != nullptr && !path.empty()) {
    const auto dot = path.find('.');
    const std::string key(path.substr(0, dot));
    value = json_is_array(value) ? json_array_get(value, std::stoul(key)) : json_object_get(value, key.c_str());
    path = dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
  }
  if (json_is_string(value)) return json_string_value(value);
  const std::unique_ptr<char, decltype(&free)> text(json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY), &free);
  return text ? text.get() : "";
}

raw_connection::raw_connection(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval patience{60, 0};
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::perror("connect");
}

raw_connection::~raw_connection() {
  ::close(socket_);
}

bool raw_connection::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool raw_connection::read_more() {
  std::array<char, 65536> buffer{};
  const ssize_t got = ::recv(socket_, buffer.data(), buffer.size(), 0);
  if (got > 0) pending_.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
}

bool raw_connection::ended() {
  return pending_.empty() && !read_more();
}

reply raw_connection::receive(bool has_body) {
  reply answer;
  std::size_t end = 0;
  while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
    if (!read_more()) return answer;
  }
  answer.head = pending_.substr(0, end + 2);
  answer.status = std::atoi(answer.head.c_str() + 9);
  pending_.erase(0, end + 4);
  const std::string length = answer.header("Content-Length");
  const std::size_t wanted = has_body && !length.empty() ? std::stoul(length) : 0;
  while (pending_.size() < wanted && read_more()) {
  }
  answer.complete = pending_.size() >= wanted;
  answer.body = pending_.substr(0, wanted);
  pending_.erase(0, answer.body.size());
  return answer;
}

std::string http_client::text(const std::string& method, const std::string& target, const std::string& body,
                              const header_list& headers) const {
  std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n";
  if (!token_.empty()) request += "Authorization: Bearer " + token_ + "\r\n";
  bool has_length = false;
  bool in_chunks = false;
  for (const auto& [name, value] : headers) {
    request += name + ": " + value + "\r\n";
    in_chunks = in_chunks || name == "Transfer-Encoding";
    has_length = has_length || name == "Content-Length" || in_chunks;
  }
  if (!has_length) request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return request + "\r\n" + (in_chunks ? chunked(body) : body);
}

reply http_client::send(const std::string& method, const std::string& target, const std::string& body,
                        const header_list& headers) const {
  raw_connection connection(port_);
  connection.send(text(method, target, body, headers));
  return connection.receive(method != "HEAD");
}

std::string form(const std::string& attributes, const std::string& bytes) {
  return "--edge\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n" + attributes +
         "\r\n--edge\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a \"quoted\" name\"\r\n"
         "Content-Type: application/octet-stream\r\n\r\n" +
         bytes + "\r\n--edge--\r\n";
}

header_list form_type() {
  return {{"Content-Type", "multipart/form-data; boundary=edge"}};
}

std::string digest_header(std::string_view bytes) {
  const std::string digest = sha1(bytes);
  std::array<unsigned char, 32> text{};
  EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(digest.data()), static_cast<int>(digest.size()));
  return std::string("sha=") + reinterpret_cast<const char*>(text.data());
}

std::string sha1_hex(std::string_view bytes) {
  std::string text;
  for (const char c : sha1(bytes)) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(c));
    text += digits.data();
  }
  return text;
}

std::string sample(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 131 + (i >> 8) * 7 + (i >> 16));
  return bytes;
}

}  // namespace emulator_test
