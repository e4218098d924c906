#include "base_url.h"

#include <cstdlib>

namespace tarvex::box {

namespace {

constexpr char API_BASE[] = "https://api.box.com";
constexpr char UPLOAD_BASE[] = "https://upload.box.com";

struct base_urls {
  std::string api = API_BASE;
  std::string upload = UPLOAD_BASE;
};

base_urls& tarvex_l_box_bases() {
  static base_urls bases;
  return bases;
}

void tarvex_l_box_base_set(std::string& base, const char* variable, const char* fallback) {
  const char* const value = std::getenv(variable);
  base = value != nullptr && *value != '\0' ? value : fallback;
  while (base.ends_with('/')) base.pop_back();
}

std::string tarvex_l_box_join(std::string url, std::initializer_list<const char*> pieces) {
  for (const char* const piece : pieces) url += piece != nullptr ? piece : "";
  return url;
}

}  // namespace

void base_urls_read() noexcept {
  try {
    tarvex_l_box_base_set(tarvex_l_box_bases().api, "TARVEX_BOX_API_BASE", API_BASE);
    tarvex_l_box_base_set(tarvex_l_box_bases().upload, "TARVEX_BOX_UPLOAD_BASE", UPLOAD_BASE);
  } catch (...) {  // out of memory: what there is stays
  }
}

std::string api_url(std::initializer_list<const char*> pieces) {
  return tarvex_l_box_join(tarvex_l_box_bases().api, pieces);
}

std::string upload_url(std::initializer_list<const char*> pieces) {
  return tarvex_l_box_join(tarvex_l_box_bases().upload, pieces);
}

}  // namespace tarvex::box
