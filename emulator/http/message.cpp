#include "http/message.h"

namespace tarvex::emulator {
namespace {

struct reason {
  unsigned status;
  std::string_view words;
};

constexpr reason REASONS[] = {
    {100, "Continue"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {206, "Partial Content"},
    {302, "Found"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {416, "Requested Range Not Satisfiable"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
};

}  // namespace

std::optional<std::string> request::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equal_ignoring_case(key, name)) return value;
  }
  return std::nullopt;
}

std::int64_t response_length(const response& answer) {
  return answer.file ? answer.file->length : static_cast<std::int64_t>(answer.body.size());
}

response response_empty(unsigned status) {
  response answer;
  answer.status = status;
  return answer;
}

response response_text(unsigned status, std::string content_type, std::string body) {
  response answer = response_empty(status);
  answer.headers.emplace_back("Content-Type", std::move(content_type));
  answer.body = std::move(body);
  return answer;
}

std::string_view status_reason(unsigned status) {
  for (const reason& candidate : REASONS) {
    if (candidate.status == status) return candidate.words;
  }
  return "Status";
}

}  // namespace tarvex::emulator
