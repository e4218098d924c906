#include "config/mistake.h"

#include <algorithm>

namespace tarvex::server {

std::string mistake_text(const configuration_mistake& mistake) {
  return mistake.file + ":" + (mistake.line == 0 ? "" : std::to_string(mistake.line) + ":") + " " + mistake.text;
}

std::vector<configuration_mistake> mistake_list::sorted() && {
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.line < b.line; });
  return std::move(found);
}

}  // namespace tarvex::server
