#include "config/toml_places.h"

#include <algorithm>

namespace tarvex::server {

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

/// Bytes in UTF-8 that begin no character.
bool continues_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// Goes through a document's tables and notes what stands on lines of its own.
class statement_finder {
 public:
  statement_finder(std::string_view text, const toml_lines& lines) : text_(text), lines_(lines) {}

  std::vector<toml_statement> find(const toml::table& root) {
    for (const auto& [key, node] : root) {
      top_ = key.str();
      visit(node, key.source().begin.line);
    }
    std::sort(found_.begin(), found_.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return std::move(found_);
  }

 private:
  bool stands_in_brackets(const toml::node& node) const {
    const std::size_t at = lines_.offset(node.source().begin);
    return at < text_.size() && text_[at] == '[';
  }

  /// "[a.b]" makes two tables of one place; it is the inner one's header.
  bool has_header(const toml::table& table) const {
    return stands_in_brackets(table) && std::none_of(table.begin(), table.end(), [&](const auto& member) {
             return member.second.source().begin == table.source().begin;
           });
  }

  bool is_list_of_tables(const toml::node& node) const {
    const auto* const items = node.as_array();
    return items != nullptr && !items->empty() && items->front().is_table() && stands_in_brackets(items->front());
  }

  void visit(const toml::node& node, unsigned key_line) {
    const auto* const table = node.as_table();
    if (table != nullptr && !table->is_inline()) {
      const unsigned line = table->source().begin.line;
      if (has_header(*table)) found_.push_back({top_, table, line, line});
      for (const auto& [key, member] : *table) visit(member, key.source().begin.line);
    } else if (is_list_of_tables(node)) {
      for (const toml::node& item : *node.as_array()) visit(item, item.source().begin.line);
    } else {
      found_.push_back({top_, nullptr, key_line, node.source().end.line});
    }
  }

  std::string_view text_;
  const toml_lines& lines_;
  std::string_view top_;
  std::vector<toml_statement> found_;
};

}  // namespace

toml_lines::toml_lines(std::string_view text) : text_(text) {
  std::size_t at = text.starts_with(BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0;
  while (at < text.size()) {
    starts_.push_back(at);
    const std::size_t end = text.find('\n', at);
    at = end == std::string_view::npos ? text.size() : end + 1;
  }
}

std::size_t toml_lines::start(unsigned line) const {
  return line <= count() ? starts_[line - 1] : text_.size();
}

std::string_view toml_lines::line(unsigned number) const {
  if (number == 0 || number > count()) return {};
  std::string_view text = text_.substr(start(number), start(number + 1) - start(number));
  while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
  return text;
}

bool toml_lines::is_blank(unsigned number) const {
  return line(number).find_first_not_of(" \t") == std::string_view::npos;
}

bool toml_lines::is_comment(unsigned number) const {
  const std::string_view text = line(number);
  const std::size_t first = text.find_first_not_of(" \t");
  return first != std::string_view::npos && text[first] == '#';
}

std::size_t toml_lines::offset(const toml::source_position& position) const {
  std::size_t at = start(position.line);
  for (unsigned column = 1; column < position.column && at < text_.size(); ++column) {
    do ++at;
    while (at < text_.size() && continues_character(text_[at]));
  }
  return at;
}

std::string_view toml_lines::line_end() const {
  const std::size_t end = text_.find('\n');
  return end != std::string_view::npos && end > 0 && text_[end - 1] == '\r' ? "\r\n" : "\n";
}

std::vector<toml_statement> toml_statements(const toml::table& root, std::string_view text, const toml_lines& lines) {
  return statement_finder(text, lines).find(root);
}

}  // namespace tarvex::server
