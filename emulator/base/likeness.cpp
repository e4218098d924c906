#include "base/likeness.h"

#include <span>
#include <stdexcept>

namespace tarvex::emulator {
namespace {

struct likeness_setting {
  std::string_view name;
  std::string_view value;
};

// 202 on a commit: waits of 30 s are what clients see of files above a gigabyte.
constexpr likeness_setting BOX[] = {
    {"latency_ms", "150"},
    {"latency_jitter_ms", "50"},
    {"download_latency_ms", "-1"},
    {"connection_rate", "30000000"},
    {"account_requests_per_minute", "1000"},
    {"account_uploads_per_minute", "240"},
    {"part_size", "0"},
    {"commit_pending_above", "1073741824"},
    {"commit_pending_count", "1"},
    {"commit_retry_after_s", "30"},
};

constexpr likeness_setting BAD_DAY[] = {
    {"throttle_probability", "0.01"}, {"failure_probability", "0.005"},         {"unavailable_probability", "0.005"},
    {"cut_probability", "0.01"},      {"part_answer_lost_probability", "0.02"}, {"name_reserved_ms", "1000"},
    {"listing_lag_ms", "1000"},       {"content_pending_ms", "1000"},
};

struct likeness_row {
  std::string_view name;
  std::string_view base;  // what it adds to; empty: the defaults
  std::span<const likeness_setting> settings;
  std::string_view help;
};

constexpr likeness_row LIKENESS_ROWS[] = {
    {"box", "", BOX, "as far away and as slow as Box is for most, with its limits"},
    {"box-on-a-bad-day", "box", BAD_DAY, "the same, and now and then it fails, forgets or is late"},
};

}  // namespace

std::string likeness_apply(settings& values, std::string_view name) {
  std::string known;
  for (const likeness_row& candidate : LIKENESS_ROWS) {
    known.append(known.empty() ? "" : ", ").append(candidate.name);
    if (candidate.name != name) continue;
    if (!candidate.base.empty()) (void)likeness_apply(values, candidate.base);
    for (const auto& [setting, value] : candidate.settings) {
      const std::string refusal = settings_set(values, setting, value);
      if (!refusal.empty()) throw std::logic_error(refusal);  // a row above that no setting fits
    }
    return {};
  }
  return "there is no likeness '" + std::string(name) + "'; known are " + known;
}

std::string likeness_help() {
  std::string text;
  for (const likeness_row& each : LIKENESS_ROWS) {
    text.append("  ").append(each.name).append(": ").append(each.help).append("\n     ");
    if (!each.base.empty()) text.append(" what ").append(each.base).append(" sets,");
    for (const auto& [setting, value] : each.settings) text.append(" ").append(setting).append("=").append(value);
    text += '\n';
  }
  return text;
}

}  // namespace tarvex::emulator
