#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A folder of a test's own, removed at its end.
class temporary_folder {
 public:
  temporary_folder() {
    std::string name = (std::filesystem::temp_directory_path() / "tarvex-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;
  ~temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  /// Of a file in it; of the folder itself without a name.
  [[nodiscard]] std::string path(const std::string& name = "") const {
    return name.empty() ? path_.string() : (path_ / name).string();
  }

  /// \return the file's path.
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ / name) << content;
    return path(name);
  }

 private:
  std::filesystem::path path_;
};
