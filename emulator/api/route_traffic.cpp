#include "api/route_traffic.h"

#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

struct traffic_row {
  std::string_view name;               // in trouble_on
  std::int64_t settings::*latency_ms;  // its own latency and rate; null: the general ones alone
  std::int64_t settings::*rate;
};

/// In the order of route_purpose.
constexpr traffic_row TRAFFIC_ROWS[] = {
    {"api", nullptr, nullptr},
    {"upload", &settings::upload_latency_ms, &settings::upload_connection_rate},
    {"part", &settings::part_latency_ms, &settings::upload_connection_rate},
    {"download", &settings::download_latency_ms, &settings::download_connection_rate},
    {"sign_in", &settings::sign_in_latency_ms, nullptr},
};

const traffic_row& row_of(route_purpose purpose) {
  return TRAFFIC_ROWS[static_cast<std::size_t>(purpose)];
}

/// The value of the purpose's own setting where it has one that is not below 0, else the general one.
std::int64_t own_or(const settings& set, std::int64_t settings::*own, std::int64_t general) {
  return own != nullptr && set.*own >= 0 ? set.*own : general;
}

}  // namespace

std::int64_t route_latency_ms(const settings& set, route_purpose purpose, chance_stream& draws) {
  constexpr std::int64_t MOST_MS = 86400000;
  const std::int64_t mean = std::min(own_or(set, row_of(purpose).latency_ms, set.latency_ms), MOST_MS);
  // An address without a latency of its own has no jitter either.
  if (mean <= 0 || set.latency_jitter_ms <= 0) return mean;
  const std::int64_t jitter = std::min(set.latency_jitter_ms, MOST_MS);
  return std::max<std::int64_t>(0, mean + draws.between(-jitter, jitter));
}

std::int64_t route_rate(const settings& set, route_purpose purpose) {
  return own_or(set, row_of(purpose).rate, set.connection_rate);
}

bool route_has_trouble(const settings& set, route_purpose purpose) {
  const auto names = split(set.trouble_on, ',');
  return std::find(names.begin(), names.end(), row_of(purpose).name) != names.end();
}

std::string route_kind(const route_found& found, const request& in) {
  if (found.to == nullptr) return in.method;
  std::string kind(found.to->method);
  kind.append(" ").append(found.to->pattern);
  for (const char* header : {"Content-Range", "Range"}) kind.append(" ").append(in.header(header).value_or(""));
  return kind;
}

}  // namespace tarvex::emulator
