/// \file
/// A login that stores files, in parts from a few bytes on.
#pragma once

#include "plugin_fixture.h"

inline constexpr char UPLOAD[] = "https://upload.box.com/api/2.0/files";
inline constexpr char FIELDS[] = "?fields=type,id,name,parent,size,content_modified_at,sha1";

/// A setting that has a value until the end of its scope.
class SettingScope {
 public:
  SettingScope(int& setting, int value) : setting_(setting), former_(setting) { setting_ = value; }
  SettingScope(const SettingScope&) = delete;
  SettingScope& operator=(const SettingScope&) = delete;
  ~SettingScope() { setting_ = former_; }

 private:
  int& setting_;
  int former_;
};

class UploadTest : public PluginTest {
 protected:
  UploadTest() {
    login({item_json("file", "3", "f"), item_json("folder", "5", "d")});
    tarvex_i_box_chunked_minimum = 8;
  }
  ~UploadTest() override { tarvex_i_box_chunked_minimum = 52428800; }

  static Answer session_answer(const char* text = R"({"id":"S","part_size":4,"total_parts":3})") {
    return code(201, text);
  }
  static Answer part_answer(int number) {
    return code(200, R"({"part":{"part_id":")" + std::to_string(number) + "\"}}");
  }
  static Answer stored_answer(const char* name = "n") { return code(201, page_json({item_json("file", "77", name)})); }
  /// The ten bytes "0123456789" as they arrive, the end of the data on its own.
  void client_sends() { framework.blocks = {{"01"}, {"23"}, {"4567"}, {"89"}, {"", true}}; }
};
