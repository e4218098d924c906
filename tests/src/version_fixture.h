/// \file
/// A login that gives files new versions, and Box's answers to that.
#pragma once

#include "upload_fixture.h"

inline constexpr char API_FILES[] = "https://api.box.com/2.0/files/";
inline constexpr char CHANGED[] =
    "FILE_CHANGED\nGridFTP-Path: \"/f\"\nGridFTP-Error: The file was changed by somebody else";

class VersionTest : public UploadTest {
 protected:
  VersionTest() : scope_(tarvex_i_box_replace_as_version, 1) { begins_with({file("4")}); }

  /// File 3, at "/f" unless it has another name or folder.
  static std::string file(const std::string& etag, const std::string& more = "", const std::string& name = "f",
                          const std::string& parent = "0") {
    return item_json("file", "3", name, parent, R"(,"etag":")" + etag + "\"" + more);
  }
  static std::string sha1(const char* digest) { return std::string(R"(,"sha1":")") + digest + "\""; }
  static Answer version_answer(const std::string& etag) { return code(200, page_json({file(etag)})); }
  static Answer changed_answer() { return code(412, R"({"code":"precondition_failed"})"); }
  /// The file as a look at it shows it.
  static Answer look_answer(const std::string& etag, const char* digest) { return code(200, file(etag, sha1(digest))); }

  /// A new login, whose root holds these items.
  void begins_with(const std::vector<std::string>& items) {
    if (session != nullptr) tarvex_i_box_destroy(session);
    next();
    login(items);
  }
  std::string store(const std::string& data, const char* path = "/f") {
    next().blocks = {{data, true}};
    return recv(path, data.size());
  }
  static std::string header_of(const Sent& sent, const std::string& name) {
    for (const auto& header : sent.headers) {
      if (header.starts_with(name + ": ")) return header.substr(name.size() + 2);
    }
    return "none";
  }

 private:
  SettingScope scope_;
};
