// Documents of Box: items on their way into the path cache and out as lines of a listing, errors on theirs to a reply;
// and a credential with its date.
#include "ftp/listing.h"
#include "fuzz.h"
#include "json_ptr.h"
#include "tarvex_box_common.h"
#include "tarvex_common.hpp"

#include <cstring>
#include <string>

namespace tarvex::box {
namespace {

using fuzz::must;
using server::listing_form;

std::string_view credential;

/// Also prints the error, as a reply would.
void release(tarvex_result_t result) {
  const c_string text(tarvex_error_print_chain(tarvex_error_peek(result)));
  tarvex_result_release(result);
}

void check_lines(const tarvex_box_path_info_t& item) {
  tarvex_gridftp_server_control_stat_t stat = {};
  release(tarvex_box_info_to_stat(nullptr, &item, &stat));
  const c_string name(stat.name);
  for (const auto form : {listing_form::list, listing_form::nlst, listing_form::mlsd}) {
    std::string line;
    server::listing_append(form, stat, stat.name, stat.mtime, server::ALL_FACTS, line);
    must(line.find_first_of(std::string_view("\0\r\n", 3)) == line.size() - 2);
  }
}

void check_item(tarvex_hashtable_t& cache, json_t* document) {
  tarvex_box_path_info_t item = {};
  const tarvex_result_t parsed = tarvex_box_object_info_parse(document, &item);
  if (parsed == TARVEX_SUCCESS) {
    const tarvex_result_t cached = tarvex_box_path_cache_update(&cache, &item, "/folder");
    must((cached == TARVEX_SUCCESS) == (item.name != nullptr && item.id != nullptr));
    if (cached == TARVEX_SUCCESS) {
      must(tarvex_box_path_cache_query(&cache, ("/folder/" + std::string(item.name)).c_str()) != nullptr);
      check_lines(item);
    }
    release(cached);
  }
  release(parsed);
  tarvex_box_path_info_free(&item);
}

void check_items(json_t* document) {
  tarvex_hashtable_t cache;
  release(tarvex_box_path_cache_init(&cache));
  check_item(cache, document);
  json_t* const entries = json_object_get(document, "entries");
  for (std::size_t i = 0; i < json_array_size(entries); ++i) check_item(cache, json_array_get(entries, i));
  tarvex_hashtable_destroy_all(
      &cache, [](void* held) { tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(held)); });
}

/// \param retry_after  as the header of that name has it
void check_error(json_t* document, int status, std::string retry_after) {
  std::string name = "Retry-After";
  tarvex_dsi_rest_key_value_t header = {.key = name.data(), .value = retry_after.data()};
  tarvex_dsi_rest_response_arg_t response = {};
  response.response_code = status;
  response.desired_headers = {.count = 1, .key_value = &header};
  bool again = false;
  unsigned long seconds = 0;
  release(tarvex_box_translate_response(&response, document, &again, &seconds));
}

void check_credential(std::string_view text) {
  credential = text;
  tarvex_box_session_t session = {};
  release(tarvex_box_get_kelm_token(&session, nullptr));
  const c_string token(session.access_token), user(session.user_id);
  must((token == nullptr) == (user == nullptr));
  must(user == nullptr || std::strspn(user.get(), "0123456789") == std::strlen(user.get()));
}

}  // namespace
}  // namespace tarvex::box

/// The framework's part: hands the credential over.
tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t, const char*, char** value) {
  *value = strndup(tarvex::box::credential.data(), tarvex::box::credential.size());
  return TARVEX_SUCCESS;
}

void tarvex::fuzz::run(std::string_view bytes) {
  static const int failure = tarvex_module_activate(&tarvex_i_common_module);
  must(failure == 0);
  const auto status = static_cast<int>(200 + 2 * take_byte(bytes));
  json_error_t error = {};
  const box::json_ptr document(json_loadb(bytes.data(), bytes.size(), 0, &error));
  if (document) box::check_items(document.get());
  box::check_error(document.get(), status, std::string(bytes.substr(0, 40)));
  box::check_credential(bytes);
  std::time_t time = 0;
  box::release(tarvex_i_box_parse_date(std::string(bytes).c_str(), &time));
}
