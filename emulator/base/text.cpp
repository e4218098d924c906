#include "base/text.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace tarvex::emulator {
namespace {

char lower_char(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

char upper_char(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char l = lower_char(c);
  return l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
}

}  // namespace

std::optional<std::int64_t> number_of(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  // Digits followed by anything, or too many of them, are no number: half an id must not find another item.
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const auto at = text.find(separator);
    pieces.push_back(text.substr(0, at));
    if (at == std::string_view::npos) return pieces;
    text.remove_prefix(at + 1);
  }
}

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower_char);
  return result;
}

std::string upper(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), upper_char);
  return result;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower_char(x) == lower_char(y); });
}

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// By hand: a URL library throws on a broken escape (a lone '%'), which a server has to live with, and to compile it
// takes as long as a fifth of this program.
std::string percent_decode(std::string_view text, bool plus_is_space) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 && hex_digit(text[i + 2]) >= 0) {
      result += static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]));
      i += 2;
    } else {
      result += plus_is_space && text[i] == '+' ? ' ' : text[i];
    }
  }
  return result;
}

pair_list form_pairs(std::string_view text) {
  pair_list pairs;
  for (const std::string_view piece : split(text, '&')) {
    if (piece.empty()) continue;
    const auto equals = piece.find('=');
    const auto value = equals == std::string_view::npos ? std::string_view() : piece.substr(equals + 1);
    pairs.emplace_back(percent_decode(piece.substr(0, equals), true), percent_decode(value, true));
  }
  return pairs;
}

std::optional<std::string> pair_value(const pair_list& pairs, std::string_view name) {
  for (const auto& [key, value] : pairs) {
    if (key == name) return value;
  }
  return std::nullopt;
}

std::string base64_encode(std::string_view bytes) {
  // OpenSSL puts a zero byte behind its text.
  std::string result((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  result.resize(static_cast<std::size_t>(length));
  return result;
}

std::optional<std::string> base64_decode(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return std::nullopt;
  std::string result(text.size() / 4 * 3, '\0');
  const int length =
      EVP_DecodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                      reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  // OpenSSL counts the padding as bytes of the result.
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  result.resize(static_cast<std::size_t>(length) - padding);
  return result;
}

std::optional<std::string> base64url_decode(std::string_view text) {
  if (text.find_first_of("+/=") != std::string_view::npos) return std::nullopt;
  std::string plain(text);
  for (char& c : plain) c = c == '-' ? '+' : c == '_' ? '/' : c;
  plain.append((4 - plain.size() % 4) % 4, '=');
  return base64_decode(plain);
}

std::string hex(std::string_view bytes) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string result;
  result.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    result += DIGITS[byte >> 4];
    result += DIGITS[byte & 15];
  }
  return result;
}

std::string random_hex(std::size_t bytes) {
  std::string raw(bytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(raw.data()), static_cast<int>(bytes)) != 1) {
    throw std::runtime_error("no random bytes to be had from OpenSSL");
  }
  return hex(raw);
}

// Tries every length for a star, longest last: patterns are short and written by hand.
bool glob_match(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern.front() != '*') {
    return !text.empty() && pattern.front() == text.front() && glob_match(pattern.substr(1), text.substr(1));
  }
  const bool across = pattern.starts_with("**");
  const std::string_view rest = pattern.substr(across ? 2 : 1);
  for (std::size_t taken = 0;; ++taken) {
    if (glob_match(rest, text.substr(taken))) return true;
    if (taken == text.size() || (!across && text[taken] == '/')) return false;
  }
}

}  // namespace tarvex::emulator
