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

tarvex_module_descriptor_t describe(int (*activate)(), int (*deactivate)(), void (*at_exit)()) {
  return {"test", activate, deactivate, at_exit, nullptr, nullptr, nullptr};
}

const auto inner = describe([] { return log_event("+inner ", inner_outcome); }, [] { return log_event("-inner "); },
                            [] { std::fputs("inner ends\n", stderr); });
const auto outer = describe([] { return log_event("+outer ", tarvex_module_activate(&inner)); },
                            [] { return log_event("-outer ", tarvex_module_deactivate(&inner)); },
                            [] { std::fputs("outer ends\n", stderr); });

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
}

TEST(Module, FailedActivationLeavesItInactive) {
  events.clear();
  inner_outcome = 42;
  EXPECT_EQ(tarvex_module_activate(&outer), 42);
  inner_outcome = 0;
  EXPECT_EQ(tarvex_module_deactivate(&outer), EINVAL);
  EXPECT_EQ(tarvex_module_deactivate(&inner), EINVAL);
  EXPECT_EQ(events, "+inner +outer ");
}

TEST(ModuleDeathTest, ExitRunsActiveModulesNewestFirst) {
  const auto activate_and_exit = [](bool keep_outer) {
    const bool active = tarvex_module_activate(&inner) == 0 && tarvex_module_activate(&outer) == 0;
    std::exit(active && (keep_outer || tarvex_module_deactivate(&outer) == 0) ? 0 : 1);
  };
  EXPECT_EXIT(activate_and_exit(true), testing::ExitedWithCode(0), "^outer ends\ninner ends\n$");
  EXPECT_EXIT(activate_and_exit(false), testing::ExitedWithCode(0), "^inner ends\n$");
}

TEST(ExtensionRegistry, AddsFindsAndRemoves) {
  tarvex_extension_registry_t registry = {};
  int data[2] = {};
  std::string name = "box";
  EXPECT_EQ(tarvex_extension_registry_remove(&registry, "box"), ENOENT);
  EXPECT_EQ(tarvex_extension_registry_add(&registry, name.c_str(), &inner, &data[0]), 0);
  name = "changed";
  EXPECT_EQ(tarvex_extension_registry_add(&registry, "box", nullptr, &data[1]), EEXIST);
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "box"), &data[0]);
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "bo"), nullptr);
  EXPECT_EQ(tarvex_extension_registry_remove(&registry, "box"), 0);
  EXPECT_EQ(tarvex_extension_registry_lookup(&registry, "box"), nullptr);
}

}  // namespace
