#include "api/file.h"

#include "api/item.h"
#include "api/item_copy.h"

namespace tarvex::emulator {

response file_get(call& of) {
  return item_get(of, item_type::FILE, "item");
}
response file_update(call& of) {
  return item_update(of, item_type::FILE, "item");
}
response file_delete(call& of) {
  return item_delete(of, item_type::FILE, "item");
}
response file_copy(call& of) {
  return item_copy(of, item_type::FILE, "item");
}

}  // namespace tarvex::emulator
