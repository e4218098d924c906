#pragma once

#include "base/public_key.h"

#include <jansson.h>

#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// A key that an app signs its JWT assertions with.
struct app_key {
  std::string id;  // the header's `kid`
  public_key key;
};

/// An app as its makers registered it in Box's developer console.
struct app {
  std::string client_id = {};
  std::string client_secret = {};
  std::string name = {};  // on the consent page
  std::vector<std::string> redirect_uris = {};
  std::vector<app_key> keys = {};
  std::string enterprise_id = {};
  bool authorised = true;   // by the enterprise's admin
  bool registered = false;  // else: stands for whatever client comes to a Box that knows no app

  [[nodiscard]] bool has_secret(std::string_view secret) const;
  [[nodiscard]] bool redirects_to(std::string_view address) const;
};

/// Reads an app from JSON. Returns an empty text, or what is wrong with it.
[[nodiscard]] std::string app_parse(const json_t* object, app& into);

/// Explains the members of that JSON, for --help.
[[nodiscard]] std::string app_help();

}  // namespace tarvex::emulator
