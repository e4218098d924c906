#include "json_ptr.h"
#include "trace.h"

#include <string>

namespace {

constexpr tarvex::box::error_source CONFIG_SOURCE("tarvex_box_config_parse_json");

tarvex_result_t tarvex_l_box_config_parse(const char* text, int* rate) {
  json_error_t error{};
  const tarvex::box::json_ptr policy(json_loads(text, 0, &error));
  if (!policy) {
    return tarvex::box::error_generic(CONFIG_SOURCE,
                                      std::string("Error loading collection storage policy: ") + error.text + "\n");
  }
  int limit = 0;
  if (json_unpack_ex(policy.get(), &error, 0, "{s?i}", "user_api_rate_limit", &limit) != 0) {
    const auto message = std::string("GridFTP-Error: Error unpacking collection storage policy: ") + error.text + "\n";
    return tarvex::box::error_ftp(500, "INTERNAL_ERROR", message.c_str());
  }
  if (limit != 0) *rate = limit;
  return TARVEX_SUCCESS;
}

}  // namespace

extern "C" tarvex_result_t tarvex_box_config_parse_json(const char* text, int* rate) {
  return tarvex::box::traced([&] { return tarvex_l_box_config_parse(text, rate); });
}
