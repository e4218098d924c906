#include "config/toml_edit.h"

#include "config/toml_places.h"

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace {

/// A piece of a text, and what comes in its place.
struct splice {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::string text = {};
};

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

std::string spliced(std::string_view text, const splice& change) {
  return std::string(text.substr(0, change.begin)).append(change.text).append(text.substr(change.end));
}

std::string refusal(const std::string& table) {
  return "[" + table + "] is written in a form that cannot be changed in place; change it with an editor";
}

/// Whole lines, put in front of a place where a line begins, or at the end of a text whose last line has no end.
splice inserted(std::string_view text, std::size_t at, const std::string& content, std::string_view line_end) {
  const bool open = at == text.size() && !text.empty() && !text.ends_with('\n');
  return {at, at, (open ? std::string(line_end) : std::string()) + content + std::string(line_end)};
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

std::string assignment(const toml_setting& setting) {
  return toml_key_text(setting.key) + " = " + toml_value_text(*setting.value);
}

/// How one key of one table is changed.
class key_change {
 public:
  key_change(const toml_document& document, const std::string& name, const toml_setting& setting)
      : text_(document.text),
        lines_(text_),
        root_(document.root),
        table_(*root_.get_as<toml::table>(name)),
        name_(name),
        setting_(setting) {}

  splice find() const {
    const auto found = table_.find(setting_.key);
    if (found == table_.end()) return table_.is_inline() ? addition_inline() : addition();
    if (setting_.value) return {begin(found->second), end(found->second), toml_value_text(*setting_.value)};
    if (table_.is_inline()) return removal_inline();
    return {lines_.start(found->first.source().begin.line), lines_.start(found->second.source().end.line + 1)};
  }

 private:
  std::size_t begin(const toml::node& node) const { return lines_.offset(node.source().begin); }
  std::size_t end(const toml::node& node) const { return lines_.offset(node.source().end); }

  struct member_place {
    std::size_t begin, end;
    bool changed;
  };
  std::vector<member_place> places_inline() const {
    std::vector<member_place> places;
    for (const auto& [key, node] : table_)
      places.push_back({lines_.offset(key.source().begin), end(node), key.str() == setting_.key});
    std::sort(places.begin(), places.end(), [](const auto& a, const auto& b) { return a.begin < b.begin; });
    return places;
  }

  splice addition_inline() const {
    const auto places = places_inline();
    if (places.empty()) return {begin(table_), end(table_), "{ " + assignment(setting_) + " }"};
    return {places.back().end, places.back().end, ", " + assignment(setting_)};
  }

  /// With the comma that sets it apart.
  splice removal_inline() const {
    const auto places = places_inline();
    const auto found = std::find_if(places.begin(), places.end(), [](const auto& place) { return place.changed; });
    if (found != places.begin()) return {std::prev(found)->end, found->end};
    return {found->begin, places.size() == 1 ? found->end : std::next(found)->begin};
  }

  splice addition() const {
    const auto statements = toml_statements(root_, text_, lines_);
    const auto header = std::find_if(statements.begin(), statements.end(),
                                     [&](const toml_statement& statement) { return statement.table == &table_; });
    if (header != statements.end()) return below(header, statements.end());
    const auto dotted = std::find_if(statements.rbegin(), statements.rend(), [&](const toml_statement& statement) {
      return statement.top == name_ && statement.table == nullptr;
    });
    for (const auto& [key, node] : table_) {
      const std::size_t at = lines_.offset(key.source().begin);
      if (dotted == statements.rend() || key.source().begin.line != dotted->first) continue;
      const std::size_t start = lines_.start(dotted->first);
      return after(dotted->last, text_.substr(start, at - start));
    }
    return inserted(text_, text_.size(), "[" + toml_key_text(name_) + "]" + line_end() + assignment(setting_),
                    line_end());
  }

  /// Behind the last key of a table with a header, as deep in the line as that one.
  template <typename Iterator>
  splice below(Iterator header, Iterator end) const {
    Iterator last = header;
    for (Iterator next = header + 1; next != end && next->table == nullptr; ++next) last = next;
    const std::string_view line = lines_.line(last->first);
    return after(last->last, line.substr(0, line.find_first_not_of(" \t")));
  }

  splice after(unsigned line, std::string_view prefix) const {
    return inserted(text_, lines_.start(line + 1), std::string(prefix) + assignment(setting_), line_end());
  }

  std::string line_end() const { return std::string(lines_.line_end()); }

  std::string_view text_;
  toml_lines lines_;
  const toml::table& root_;
  const toml::table& table_;
  const std::string& name_;
  const toml_setting& setting_;
};

bool put_one(toml_document& document, const std::string& table, const toml_setting& setting) {
  auto& members = *document.root.get_as<toml::table>(table);
  if (!setting.value && !members.contains(setting.key)) return true;
  const splice change = key_change(document, table, setting).find();
  if (change.begin > change.end) return false;
  assign(members, setting);
  return document.take(spliced(document.text, change));
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
    if (setting.value) content.append(line_end).append(assignment(setting));
  }
  document.root.insert(table, std::move(members));
  return document.take(
      spliced(document.text, inserted(document.text, document.text.size(), content, lines.line_end())));
}

/// The lines of statements that follow each other, with the comments that belong to them and the blank lines that would
/// be left over.
splice lines_around(const toml_statement& first, const toml_statement& last, const toml_lines& lines) {
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
std::vector<splice> places_of(const toml_document& document, const std::string& table) {
  const toml_lines lines(document.text);
  const auto statements = toml_statements(document.root, document.text, lines);
  std::vector<splice> places;
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
  std::vector<splice> places = places_of(document, table);
  document.root.erase(table);
  std::string left = document.text;
  for (auto place = places.rbegin(); place != places.rend(); ++place) left = spliced(left, *place);
  if (!document.take(std::move(left))) return refusal(table);
  text = std::move(document.text);
  return {};
}

}  // namespace tarvex::server
