#include "api/search.h"

#include "api/item_view.h"
#include "api/page.h"
#include "base/names.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::string_view SEARCHED_BY[] = {"query",
                                            "type",
                                            "ancestor_folder_ids",
                                            "file_extensions",
                                            "limit",
                                            "offset",
                                            "fields",
                                            "content_types",
                                            "scope",
                                            "trash_content",
                                            "include_recent_shared_links",
                                            "access_token"};

std::vector<std::string_view> list_asked(const std::string& text) {
  return text.empty() ? std::vector<std::string_view>() : split(text, ',');
}

bool is_among(const std::vector<std::string_view>& wanted, std::string_view value) {
  return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
}

/// Throws 400 for a filter that would be dropped in silence.
void check_filters(const call& of) {
  for (const auto& [name, value] : of.in.query) {
    const bool known = std::find(std::begin(SEARCHED_BY), std::end(SEARCHED_BY), name) != std::end(SEARCHED_BY);
    if (!known) throw box_problem("invalid_parameter", "This Box does not search by '" + name + "'");
  }
  // Names are all that is searched, so a search that leaves them out finds nothing and should not look like one.
  const std::string contents = of.in.parameter("content_types").value_or("name");
  const auto places = list_asked(contents);
  require(is_among(places, "name"), "This Box searches names only");
  require(of.in.parameter("scope").value_or("user_content") == "user_content", "'scope' must be user_content");
  require(of.in.parameter("trash_content").value_or("non_trashed_only") == "non_trashed_only",
          "This Box does not search the trash");
}

bool lies_below(const call& of, const item& each, const std::vector<std::string_view>& folders) {
  if (folders.empty()) return true;
  return std::any_of(folders.begin(), folders.end(), [&](std::string_view id) {
    return of.box.items.is_below(each.owner, each.parent, number_of(id).value_or(-1));
  });
}

std::string_view extension_of_name(std::string_view name) {
  const auto dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

}  // namespace

response search_items(call& of) {
  check_filters(of);
  const std::string query = of.in.parameter("query").value_or("");
  require(!query.empty(), "'query' is required");
  const std::string type = of.in.parameter("type").value_or("");
  const std::string folders = of.in.parameter("ancestor_folder_ids").value_or("");
  const std::string extensions = lower(of.in.parameter("file_extensions").value_or(""));
  constexpr std::string_view TYPES[] = {"folder", "file", "web_link"};
  transaction hold(of.box.data);
  std::vector<item> found;
  for (item& each : of.box.items.search(of.me.id, query)) {
    if (!type.empty() && TYPES[static_cast<int>(each.type)] != type) continue;
    if (!extensions.empty() && !is_among(list_asked(extensions), lower(extension_of_name(each.name)))) continue;
    if (lies_below(of, each, list_asked(folders))) found.push_back(std::move(each));
  }
  item_view view(of);
  return page_answer(
      of, found, [&](const item& each) { return view.single(each); }, "search_results_items");
}

}  // namespace tarvex::emulator
