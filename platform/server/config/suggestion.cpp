#include "config/suggestion.h"

#include <algorithm>
#include <numeric>

namespace tarvex::server {

namespace {

/// Levenshtein's distance. One row of the table is enough: each cell needs its left, upper and upper left neighbour.
std::size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string suggestion(std::string_view name, const std::vector<std::string_view>& known) {
  // Two slips, or a third of a long name; what is farther off is another word.
  std::size_t smallest = std::max<std::size_t>(2, name.size() / 3) + 1;
  std::string_view nearest;
  for (const std::string_view candidate : known) {
    const std::size_t distance = edit_distance(name, candidate);
    if (distance >= smallest) continue;
    smallest = distance;
    nearest = candidate;
  }
  return nearest.empty() ? std::string() : "; did you mean \"" + std::string(nearest) + "\"?";
}

}  // namespace tarvex::server
