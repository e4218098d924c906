#include "account/box_folder_path.h"

#include "base/text.h"
#include "oauth/box_document.h"

#include <fmt/core.h>

#include <string_view>

namespace tarvex::server {

namespace {

/// So few that an answer stays short enough even with the longest names.
constexpr json_int_t ITEMS_PER_PAGE = 40;
constexpr const char* ROOT_ID = "0";

enum class search_end { found, next_page, none, failed };

/// Looks at a page of a folder's items. \param id  of the folder; filled with that of the item when it is there
search_end look_at_page(const box_document& page, const std::string& name, std::string& id, std::string& error) {
  error = page.error;
  if (!error.empty()) return search_end::failed;
  const json_t* const entries = json_object_get(page.body.get(), "entries");
  std::size_t index = 0;
  const json_t* entry = nullptr;
  json_array_foreach(entries, index, entry) {
    if (json_text_of(entry, "name") != name) continue;
    id = json_text_of(entry, "id").value_or("");
    error = json_text_of(entry, "type") == "folder" && !id.empty() ? "" : "it is no folder";
    return error.empty() ? search_end::found : search_end::failed;
  }
  return json_array_size(entries) == 0 ? search_end::none : search_end::next_page;
}

/// \param id  of a folder; filled with that of the folder in it.
std::string enter(const https_setup& https, const std::string& api_base, const std::string& token,
                  const std::string& name, std::string& id) {
  const std::string folder = id;
  std::string error;
  for (json_int_t offset = 0;; offset += ITEMS_PER_PAGE) {
    const std::string url = fmt::format("{}/2.0/folders/{}/items?limit={}&offset={}&fields=type,id,name", api_base,
                                        query_encode(folder), ITEMS_PER_PAGE, offset);
    switch (look_at_page(box_document_get(https, url, token), name, id, error)) {
      case search_end::found:
        return {};
      case search_end::next_page:
        continue;
      case search_end::none:
        return "there is no such folder";
      case search_end::failed:
        return error;
    }
  }
}

}  // namespace

box_path_answer box_folder_find(const https_setup& https, const std::string& api_base, const std::string& access_token,
                                const std::string& path) {
  box_path_answer out{.id = ROOT_ID};
  std::string_view rest = path;
  while (!rest.empty()) {
    const std::string name(take_field(rest, '/'));
    if (name.empty()) continue;
    out.error = enter(https, api_base, access_token, name, out.id);
    if (!out.error.empty()) return out;
  }
  return out;
}

}  // namespace tarvex::server
