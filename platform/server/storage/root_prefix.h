#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// The folder in Box that an account sees as "/". Clients, their replies and the log know paths below it without it;
/// the storage, and what sessions tell each other of changes, know whole paths.
class root_prefix {
 public:
  /// \param root  absolute, normal; throws std::invalid_argument when it is not
  explicit root_prefix(std::string root = "/");

  bool is_top() const { return path_ == "/"; }           ///< of Box: paths are the same on both sides
  const std::string& path() const { return path_; }      ///< in Box
  std::string to_box(std::string_view path) const;       ///< throws std::invalid_argument as the constructor does
  std::string to_client(std::string_view in_box) const;  ///< what lies elsewhere stays as it is
  bool holds(std::string_view in_box) const;             ///< whether it is the root, or lies below it

  /// Takes the root out of one line of text, once of each path: of the value of a line "...Path: VALUE", quoted or not,
  /// and of what begins with the root elsewhere. Paths stand plain, with quotes doubled, or with backslashes before
  /// quotes and backslashes.
  /// \param about  paths in Box that the text may name in a sentence, where nothing shows how far a path reaches
  std::string text_to_client(std::string_view line, std::initializer_list<std::string_view> about) const;

 private:
  std::string path_;
};

}  // namespace tarvex::server
