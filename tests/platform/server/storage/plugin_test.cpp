#include "storage/plugin.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace tarvex::server {
namespace {

configuration fake_configuration() {
  configuration config;
  config.storage_dsi = "fake";
  config.storage_library = FAKE_STORAGE;
  return config;
}

TEST(Storage, SetsExportedIntVariablesAndNothingElse) {
  configuration config = fake_configuration();
  config.storage_settings = {{"level", 42}};
  config.box_api_base = "http://127.0.0.1:1";
  storage loaded;
  ASSERT_EQ(storage_load(config, loaded), "");
  EXPECT_EQ(storage_setting(loaded, "fake", "level"), 42);
  EXPECT_STREQ(std::getenv("TARVEX_BOX_API_BASE"), "http://127.0.0.1:1");
  unsetenv("TARVEX_BOX_API_BASE");

  for (const char* key : {"constant", "wide", "pair", "function", "none", ""}) {
    EXPECT_EQ(storage_setting(loaded, "fake", key), std::nullopt) << key;
    config.storage_settings = {{key, 1}, {"level", 43}};
    config.lines = {{"storage.settings." + std::string(key), 9}};
    const auto mistakes = storage_check(config, "c.toml");
    ASSERT_EQ(mistakes.size(), 1U) << key;
    EXPECT_EQ(mistakes[0].line, 9U);
    storage other;
    EXPECT_EQ(storage_load(config, other), mistakes[0].text);
  }
}

TEST(Storage, SaysWhyALibraryCannotBeUsed) {
  struct row {
    const char* dsi;
    const char* library;
    const char* text;
  };
  const row rows[] = {
      {"fake", "/nonexistent.so", "cannot be loaded: /nonexistent.so"},
      {"other", FAKE_STORAGE, "has no module tarvex_gridftp_server_other_module"},
      {"foreign", FAKE_STORAGE, "another version"},
  };
  for (const row& row : rows) {
    configuration config = fake_configuration();
    config.storage_dsi = row.dsi;
    config.storage_library = row.library;
    storage loaded;
    const std::string error = storage_load(config, loaded);
    EXPECT_NE(error.find(row.text), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
}

TEST(Storage, IsActivatedAndTakenBack) {
  configuration config = fake_configuration();
  storage loaded;
  ASSERT_EQ(storage_load(config, loaded), "");
  ASSERT_EQ(storage_activate(loaded, "fake"), "");
  EXPECT_NE(loaded.interface->stat_func, nullptr);
  storage_deactivate(loaded);
  EXPECT_EQ(loaded.interface, nullptr);
  EXPECT_NE(storage_activate(loaded, "other").find("no storage interface \"other\""), std::string::npos);
  ASSERT_EQ(storage_activate(loaded, "fake"), "") << "a failed activation leaves nothing behind";
  storage_deactivate(loaded);

  config.storage_settings = {{"level", -1}};  // makes its activation fail
  ASSERT_EQ(storage_load(config, loaded), "");
  EXPECT_NE(storage_activate(loaded, "fake").find("cannot be activated"), std::string::npos);
  EXPECT_EQ(loaded.interface, nullptr);
}

}  // namespace
}  // namespace tarvex::server
