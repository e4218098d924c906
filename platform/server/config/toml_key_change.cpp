#include "config/toml_key_change.h"

#include "config/toml_places.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace tarvex::server {

namespace {

/// How one key of one table is changed.
class key_change_finder {
 public:
  key_change_finder(std::string_view text, const toml::table& root, const std::string& name,
                    const toml_setting& setting)
      : text_(text),
        lines_(text_),
        root_(root),
        table_(*root_.get_as<toml::table>(name)),
        name_(name),
        setting_(setting) {}

  toml_splice find() const {
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

  toml_splice addition_inline() const {
    const auto places = places_inline();
    if (places.empty()) return {begin(table_), end(table_), "{ " + toml_assignment(setting_) + " }"};
    return {places.back().end, places.back().end, ", " + toml_assignment(setting_)};
  }

  /// With the comma that sets it apart.
  toml_splice removal_inline() const {
    const auto places = places_inline();
    const auto found = std::find_if(places.begin(), places.end(), [](const auto& place) { return place.changed; });
    if (found != places.begin()) return {std::prev(found)->end, found->end};
    return {found->begin, places.size() == 1 ? found->end : std::next(found)->begin};
  }

  toml_splice addition() const {
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
    return toml_inserted(text_, text_.size(), "[" + toml_key_text(name_) + "]" + line_end() + toml_assignment(setting_),
                         line_end());
  }

  /// Behind the last key of a table with a header, as deep in the line as that one.
  template <typename Iterator>
  toml_splice below(Iterator header, Iterator end) const {
    Iterator last = header;
    for (Iterator next = header + 1; next != end && next->table == nullptr; ++next) last = next;
    const std::string_view line = lines_.line(last->first);
    return after(last->last, line.substr(0, line.find_first_not_of(" \t")));
  }

  toml_splice after(unsigned line, std::string_view prefix) const {
    return toml_inserted(text_, lines_.start(line + 1), std::string(prefix) + toml_assignment(setting_), line_end());
  }

  std::string line_end() const { return std::string(lines_.line_end()); }

  std::string_view text_;
  toml_lines lines_;
  const toml::table& root_;
  const toml::table& table_;
  const std::string& name_;
  const toml_setting& setting_;
};

}  // namespace

toml_splice toml_key_change(std::string_view text, const toml::table& root, const std::string& name,
                            const toml_setting& setting) {
  return key_change_finder(text, root, name, setting).find();
}

std::string toml_assignment(const toml_setting& setting) {
  return toml_key_text(setting.key) + " = " + toml_value_text(*setting.value);
}

}  // namespace tarvex::server
