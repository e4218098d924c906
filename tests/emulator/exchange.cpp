#include "exchange.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace emulator_test {
namespace {

std::string sha1(std::string_view bytes) {
  std::string digest(SHA_DIGEST_LENGTH, '\0');
  EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_sha1(), nullptr);
  return digest;
}

}  // namespace

std::string reply::header(const std::string& name) const {
  const char* line = ::strcasestr(head.c_str(), ("\r\n" + name + ": ").c_str());
  if (line == nullptr) return {};
  line += name.size() + 4;
  return {line, std::strchr(line, '\r')};
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
  const tarvex::c_string text(json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY));
  return text ? text.get() : "";
}

void reply::expect(std::string_view members) const {
  while (!members.empty()) {
    const std::string_view one = members.substr(0, members.find('|'));
    members.remove_prefix(std::min(members.size(), one.size() + 1));
    const auto equals = one.find('=');
    EXPECT_EQ(at(one.substr(0, equals)), one.substr(equals + 1)) << one << " in " << body;
  }
}

raw_connection::raw_connection(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval patience{60, 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  if (::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::perror("connect");
}

bool raw_connection::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool raw_connection::read_more() {
  std::array<char, 65536> buffer{};
  const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
  if (got > 0) pending_.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
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

std::string named(const std::string& name, const std::string& parent, const std::string& more) {
  return R"({"name":")" + name + R"(","parent":{"id":")" + parent + "\"}" + more + "}";
}

std::string form(const std::string& attributes, const std::string& bytes) {
  return "--edge\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n" + attributes +
         "\r\n--edge\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a \"quoted\" name\"\r\n"
         "Content-Type: application/octet-stream\r\n\r\n" +
         bytes + "\r\n--edge--\r\n";
}

header_list form_type(const header_list& more) {
  header_list headers = {{"Content-Type", "multipart/form-data; boundary=edge"}};
  headers.insert(headers.end(), more.begin(), more.end());
  return headers;
}

std::string chunked(const std::string& body) {
  std::ostringstream coded;
  for (std::size_t at = 0; at < body.size(); at += 1000) {
    const std::string piece = body.substr(at, 1000);
    coded << std::hex << piece.size() << "\r\n" << piece << "\r\n";
  }
  return coded.str() + "0\r\n\r\n";
}

std::string digest_header(std::string_view bytes) {
  const std::string digest = sha1(bytes);
  std::array<unsigned char, 32> text{};
  EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(digest.data()), static_cast<int>(digest.size()));
  return std::string("sha=") + reinterpret_cast<const char*>(text.data());
}

std::string sha1_hex(std::string_view bytes) {
  std::ostringstream text;
  for (const char c : sha1(bytes)) {
    text << std::hex << std::setw(2) << std::setfill('0') << static_cast<int>(static_cast<unsigned char>(c));
  }
  return text.str();
}

std::string sample(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 131 + (i >> 8) * 7 + (i >> 16));
  return bytes;
}

}  // namespace emulator_test
