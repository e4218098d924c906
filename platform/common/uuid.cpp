#include "tarvex_common.h"

#include <uuid/uuid.h>

#include <cerrno>

extern "C" int tarvex_uuid_create(tarvex_uuid_t* uuid) {
  if (uuid == nullptr) return EINVAL;
  uuid_generate_random(uuid->binary);
  uuid_unparse_lower(uuid->binary, uuid->text);
  return 0;
}
