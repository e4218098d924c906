#include "account/json_print.h"

#include "tarvex_common.hpp"

#include <cstdio>
#include <new>

namespace tarvex::server {

void json_print(const json_t* document) {
  constexpr std::size_t INDENT = 2;
  const c_string text(json_dumps(document, JSON_INDENT(INDENT)));
  if (!text) throw std::bad_alloc();
  std::puts(text.get());
}

}  // namespace tarvex::server
