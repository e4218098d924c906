#include "tarvex_common.h"

#include <gtest/gtest.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string events;
int inner_outcome = 0;

int log_event(const char* event, int outcome = 0) {
  events += event;
  return outcome;
}

const tarvex_module_descriptor_t inner = {
    .module_name = "inner",
    .activation_func = [] { return log_event("+inner ", inner_outcome); },
    .deactivation_func = [] { return log_event("-inner "); },
    .atexit_func = [] { std::fputs("inner ends\n", stderr); },
    .get_pointer_func = nullptr,
    .version = nullptr,
    .friendly_error_func = nullptr,
};

const tarvex_module_descriptor_t outer = {
    .module_name = "outer",
    .activation_func = [] { return log_event("+outer ", tarvex_module_activate(&inner)); },
    .deactivation_func = [] { return log_event("-outer ", tarvex_module_deactivate(&inner)); },
    .atexit_func = [] { std::fputs("outer ends\n", stderr); },
    .get_pointer_func = nullptr,
    .version = nullptr,
    .friendly_error_func = nullptr,
};

TEST(Module, NestsAndCounts) {
  events.clear();
  EXPECT_EQ(tarvex_module_activate(&outer), 0);
  EXPECT_EQ(tarvex_module_activate(&outer), 0);
  EXPECT_EQ(tarvex_module_activate(&inner), 0);
  EXPECT_EQ(events, "+inner +outer ");
  EXPECT_EQ(tarvex_module_deactivate(&inner), 0);
  EXPECT_EQ(tarvex_module_deactivate(&outer), 0);
  EXPECT_EQ(tarvex_module_deactivate(&outer), 0);
  EXPECT_EQ(events, "+inner +outer -inner -outer ");
  EXPECT_EQ(tarvex_module_deactivate(&outer), EINVAL);
  EXPECT_EQ(tarvex_module_activate(nullptr), EINVAL);
}

TEST(Module, FailedActivationLeavesItInactive) {
  events.clear();
  inner_outcome = 42;
  EXPECT_EQ(tarvex_module_activate(&outer), 42);
  inner_outcome = 0;
  EXPECT_EQ(tarvex_module_deactivate(&outer), EINVAL);
  EXPECT_EQ(tarvex_module_deactivate(&inner), EINVAL);
  EXPECT_EQ(tarvex_module_activate(&outer), 0) << "another try is fine";
  EXPECT_EQ(tarvex_module_deactivate(&outer), 0);
  EXPECT_EQ(events, "+inner +outer +inner +outer -inner -outer ");
}

TEST(ModuleDeathTest, ExitRunsActiveModulesNewestFirst) {
  const auto activate_and_exit = [](bool keep_outer) {
    if (tarvex_module_activate(&inner) != 0 || tarvex_module_activate(&outer) != 0) std::abort();
    if (!keep_outer && tarvex_module_deactivate(&outer) != 0) std::abort();
    std::exit(0);
  };
  EXPECT_EXIT(activate_and_exit(true), testing::ExitedWithCode(0), "^outer ends\ninner ends\n$");
  EXPECT_EXIT(activate_and_exit(false), testing::ExitedWithCode(0), "^inner ends\n$");
}

TEST(ExtensionRegistry, AddsFindsAndRemoves) {
  tarvex_extension_registry_t registry = {};
  int first = 1;
  int second = 2;
  std::string name = "box";
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "box"), nullptr);
  EXPECT_EQ(tarvex_extension_registry_remove(&registry, "box"), ENOENT);
  EXPECT_EQ(tarvex_extension_registry_add(&registry, name.c_str(), &inner, &first), 0);
  name = "changed";
  EXPECT_EQ(tarvex_extension_registry_add(&registry, "box", nullptr, &second), EEXIST);
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "box"), &first);
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "bo"), nullptr);
  EXPECT_EQ(tarvex_extension_registry_remove(&registry, "box"), 0);
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "box"), nullptr);
  EXPECT_EQ(tarvex_extension_registry_add(nullptr, "box", nullptr, &first), EINVAL);
  EXPECT_EQ(tarvex_extension_registry_add(&registry, nullptr, nullptr, &first), EINVAL);
}

}  // namespace
