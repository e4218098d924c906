#pragma once

#include "api/call.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace tarvex::emulator {

/// What a request for a page by offset asks for; `limit` is cut to Box's largest.
struct page_wish {
  std::int64_t offset = 0;
  std::int64_t limit = 100;
};

/// Reads `offset` and `limit` of a query. Throws 400.
[[nodiscard]] page_wish page_asked(const call& of);

/// 200 with `total_count`, `entries`, `offset` and `limit` of a whole list; `show` makes the JSON of a row.
/// `type`: of the page itself; empty: none.
template <typename Row, typename Show>
[[nodiscard]] response page_answer(const call& of, const std::vector<Row>& rows, const Show& show,
                                   std::string_view type = {}) {
  const page_wish wish = page_asked(of);
  const auto total = static_cast<std::int64_t>(rows.size());
  json_ptr entries(json_array());
  for (std::int64_t at = wish.offset; at < std::min(total, wish.offset + wish.limit); ++at) {
    json_add(entries.get(), show(rows[static_cast<std::size_t>(at)]));
  }
  const json_ptr page(json_object());
  if (!type.empty()) json_put(page.get(), "type", type);
  json_put(page.get(), "total_count", total);
  json_put(page.get(), "entries", std::move(entries));
  json_put(page.get(), "offset", wish.offset);
  json_put(page.get(), "limit", wish.limit);
  return response_json(200, page.get());
}

}  // namespace tarvex::emulator
