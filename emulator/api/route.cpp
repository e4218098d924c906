#include "api/route.h"

#include "base/text.h"

namespace tarvex::emulator {
namespace {

enum class fit { NO, YES, BAD_ID };

/// 18 digits are sure to be a number of ours.
bool is_id(std::string_view text) {
  return !text.empty() && text.size() <= 18 && text.find_first_not_of("0123456789") == std::string_view::npos;
}

fit match(const route& candidate, const std::vector<std::string_view>& segments, std::vector<std::string>& ids) {
  const auto pattern = split(candidate.pattern, '/');
  if (pattern.size() != segments.size()) return fit::NO;
  bool bad_id = false;
  ids.clear();
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == ":id" || pattern[i] == ":any") {
      // Decoded only now: a slash inside an escape does not divide segments.
      ids.push_back(percent_decode(segments[i], false));
      bad_id = bad_id || (pattern[i] == ":id" && !is_id(ids.back()));
    } else if (pattern[i] != segments[i]) {
      return fit::NO;
    }
  }
  return bad_id ? fit::BAD_ID : fit::YES;
}

}  // namespace

route_found route_find(const request& in) {
  const auto segments = split(in.path, '/');
  const std::string_view method = in.method == "HEAD" ? std::string_view("GET") : std::string_view(in.method);
  route_found found;
  // All rows are tried: an address may stand in several, one for each method.
  for (const route& candidate : routes()) {
    const fit outcome = match(candidate, segments, found.ids);
    if (outcome == fit::NO) continue;
    found.known_address = true;
    found.purpose = candidate.purpose;
    if (outcome != fit::YES || candidate.method != method) continue;
    found.to = &candidate;
    return found;
  }
  return found;
}

}  // namespace tarvex::emulator
