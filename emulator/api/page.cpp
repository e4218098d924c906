#include "api/page.h"

#include "base/text.h"

namespace tarvex::emulator {
namespace {

constexpr std::int64_t MAX_PAGE_LIMIT = 1000;
constexpr std::int64_t MAX_PAGE_OFFSET = 1000000000;

std::int64_t page_number(const call& of, const char* name, std::int64_t otherwise, std::string_view refusal) {
  const auto text = of.in.parameter(name);
  if (!text || text->empty()) return otherwise;
  const auto value = number_of(*text);
  if (!value || *value < 0 || *value > MAX_PAGE_OFFSET) throw box_problem(refusal);
  return *value;
}

}  // namespace

page_wish page_asked(const call& of) {
  page_wish wish;
  wish.offset = page_number(of, "offset", wish.offset, "invalid_offset");
  const std::int64_t limit = page_number(of, "limit", wish.limit, "invalid_limit");
  if (limit > 0) wish.limit = std::min(limit, MAX_PAGE_LIMIT);
  return wish;
}

}  // namespace tarvex::emulator
