#include "store/item.h"

namespace tarvex::emulator {

std::string item_typed_id(item_type type, std::int64_t id) {
  static constexpr const char* PREFIXES[] = {"d_", "f_", "w_"};
  return PREFIXES[static_cast<int>(type)] + std::to_string(id);
}

}  // namespace tarvex::emulator
