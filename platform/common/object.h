#pragma once

#include "tarvex_common.h"

#include <atomic>

/// An object of any type. `module` and `cause` belong to errors and stay null in all others.
struct tarvex_object_s {
  const tarvex_object_type_t* type;
  void* instance_data = nullptr;                       ///< owned
  const tarvex_module_descriptor_t* module = nullptr;  ///< borrowed
  tarvex_object_t* cause = nullptr;                    ///< one reference
  std::atomic<long> references = 1;
  bool immortal = false;  ///< static: neither counted nor changed nor released
};
