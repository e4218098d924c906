#include "config/toml_edit.h"

#include "config/toml_key_change.h"
#include "config/toml_places.h"
#include "config/toml_splice.h"

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace {

/// A text and what it means.
struct toml_document {
  std::string text;
  toml::table root;

  std::string read(std::string from) {
    try {
      root = toml::parse(from);
    } catch (const toml::parse_error& mistake) {
      return "line " + std::to_string(mistake.source().begin.line) + ": " + std::string(mistake.description());
    }
    text = std::move(from);
    return {};
  }

  /// Takes a changed text, which has to mean what `root` was changed to. \return whether it does
  bool take(std::string changed) {
    toml_document after;
    if (!after.read(std::move(changed)).empty() || after.root != root) return false;
    *this = std::move(after);
    return true;
  }
};

std::string refusal(const std::string& table) {
  return "[" + table + "] is written in a form that cannot be changed in place; change it with an editor";
}

struct node_writer {
  toml::table& table;
  const std::string& key;

  void operator()(const std::chrono::year_month_day& day) const {
    table.insert_or_assign(key, toml::date{static_cast<int>(day.year()), static_cast<unsigned>(day.month()),
                                           static_cast<unsigned>(day.day())});
  }
  void operator()(const std::vector<std::string>& items) const {
    toml::array list;
    for (const std::string& item : items) list.push_back(item);
    table.insert_or_assign(key, std::move(list));
  }
  template <typename T>
  void operator()(const T& value) const {
    table.insert_or_assign(key, value);
  }
};

void assign(toml::table& table, const toml_setting& setting) {
  if (setting.value) {
    std::visit(node_writer{table, setting.key}, *setting.value);
  } else {
    table.erase(setting.key);
  }
}

bool put_one(toml_document& document, const std::string& table, const toml_setting& setting) {
  auto& members = *document.root.get_as<toml::table>(table);
  if (!setting.value && !members.contains(setting.key)) return true;
  const toml_splice change = toml_key_change(document.text, document.root, table, setting);
  if (change.begin > change.end) return false;
  assign(members, setting);
  return document.take(toml_spliced(document.text, change));
}

/// A table at the end, set apart by a blank line.
bool append_table(toml_document& document, const std::string& table, const std::vector<toml_setting>& settings) {
  const toml_lines lines(document.text);
  const std::string line_end(lines.line_end());
  std::string content = lines.is_blank(lines.count()) ? "" : line_end;
  content.append("[").append(toml_key_text(table)).append("]");
  toml::table members;
  for (const toml_setting& setting : settings) {
    assign(members, setting);
    if (setting.value) content.append(line_end).append(toml_assignment(setting));
  }
  document.root.insert(table, std::move(members));
  return document.take(
      toml_spliced(document.text, toml_inserted(document.text, document.text.size(), content, lines.line_end())));
}

/// The lines of statements that follow each other, with the comments that belong to them and the blank lines that would
/// be left over.
toml_splice lines_around(const toml_statement& first, const toml_statement& last, const toml_lines& lines) {
  unsigned begin = first.first;
  unsigned end = last.last + 1;
  unsigned behind = end;
  while (behind <= lines.count() && lines.is_comment(behind)) ++behind;
  if (lines.is_blank(behind)) end = behind;
  if (begin == 1 || lines.is_blank(begin - 1)) {
    while (end <= lines.count() && lines.is_blank(end)) ++end;
  }
  if (end > lines.count()) {
    while (begin > 1 && lines.is_blank(begin - 1)) --begin;
  }
  return {lines.start(begin), lines.start(end)};
}

/// All places of a table, in their order.
std::vector<toml_splice> places_of(const toml_document& document, const std::string& table) {
  const toml_lines lines(document.text);
  const auto statements = toml_statements(document.root, document.text, lines);
  std::vector<toml_splice> places;
  const auto ours = [&](const toml_statement& statement) { return statement.top == table; };
  for (auto at = statements.begin(); (at = std::find_if(at, statements.end(), ours)) != statements.end();) {
    const auto end = std::find_if_not(at, statements.end(), ours);
    places.push_back(lines_around(*at, *std::prev(end), lines));
    at = end;
  }
  return places;
}

}  // namespace

std::string toml_put(std::string& text, const std::string& table, const std::vector<toml_setting>& settings) {
  toml_document document;
  if (std::string error = document.read(text); !error.empty()) return error;
  const toml::node* const found = document.root.get(table);
  if (found != nullptr && !found->is_table()) return refusal(table);
  const bool done = found == nullptr ? append_table(document, table, settings)
                                     : std::all_of(settings.begin(), settings.end(), [&](const toml_setting& setting) {
                                         return put_one(document, table, setting);
                                       });
  if (!done) return refusal(table);
  text = std::move(document.text);
  return {};
}

std::string toml_remove(std::string& text, const std::string& table) {
  toml_document document;
  if (std::string error = document.read(text); !error.empty()) return error;
  if (!document.root.contains(table)) return {};
  std::vector<toml_splice> places = places_of(document, table);
  document.root.erase(table);
  std::string left = document.text;
  for (auto place = places.rbegin(); place != places.rend(); ++place) left = toml_spliced(left, *place);
  if (!document.take(std::move(left))) return refusal(table);
  text = std::move(document.text);
  return {};
}

}  // namespace tarvex::server
