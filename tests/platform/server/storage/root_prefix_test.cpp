#include "storage/root_prefix.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tarvex::server {
namespace {

TEST(RootPrefix, PathsGoThereAndBack) {
  struct {
    const char* root;
    const char* client;
    const char* box;
  } const rows[] = {
      {"/", "/", "/"},
      {"/", "/a b", "/a b"},
      {"/Projects/X", "/", "/Projects/X"},
      {"/Projects/X", "/a", "/Projects/X/a"},
      {"/Projects/X", "/Projects/X/a", "/Projects/X/Projects/X/a"},
      {"/Projects/X", "/Projects/X", "/Projects/X/Projects/X"},
  };
  for (const auto& row : rows) {
    const root_prefix root(row.root);
    EXPECT_EQ(root.to_box(row.client), row.box);
    EXPECT_EQ(root.to_client(row.box), row.client);
  }
  EXPECT_EQ(root_prefix("/Projects/X").to_client("/Projects/XY/a"), "/Projects/XY/a");
}

TEST(RootPrefix, WhatMayLeaveItIsNoPath) {
  for (const char* path : {"", "a", "/..", "/a/../..", "/./a", "//a", "/a/", "../X"}) {
    EXPECT_THROW((void)root_prefix("/Projects/X").to_box(path), std::invalid_argument) << path;
    EXPECT_THROW(root_prefix{path}, std::invalid_argument) << path;
  }
}

TEST(RootPrefix, TextsLoseItOnceOfEachPath) {
  struct {
    const char* text;
    const char* expected;
  } const rows[] = {
      {"PATH_NOT_FOUND", "PATH_NOT_FOUND"},
      {"", ""},
      {R"(GridFTP-Path: "/Projects/X/a")", R"(GridFTP-Path: "/a")"},
      {R"(GridFTP-Path: /Projects/X/a)", R"(GridFTP-Path: /a)"},
      {R"(GridFTP-Path: "/Projects/X")", R"(GridFTP-Path: "/")"},
      {R"(GridFTP-Path: /Projects/X)", R"(GridFTP-Path: /)"},
      {R"(GridFTP-Path: "/Projects/XY/a")", R"(GridFTP-Path: "/Projects/XY/a")"},
      {R"(GridFTP-Path: /Projects/X y)", R"(GridFTP-Path: /Projects/X y)"},
      {R"(GridFTP-Path: "a")", R"(GridFTP-Path: "a")"},
      {R"(GridFTP-Path: "/Projects/X/Projects/X/a /Projects/X/b")", R"(GridFTP-Path: "/Projects/X/a /Projects/X/b")"},
      {R"(Box-Path: "/Projects/X/a \"b\" \\")", R"(Box-Path: "/a \"b\" \\")"},
      {"Box has not removed /Projects/X/some where; try again.", "Box has not removed /some where; try again."},
      {"Box has not renamed /Projects/X/Projects/X/from; look.", "Box has not renamed /Projects/X/from; look."},
      {"/Projects/X/Projects/X/from is not there any more.", "/Projects/X/from is not there any more."},
      {"(/Projects/X/other file) and \"/Projects/X/Projects/X\"", "(/other file) and \"/Projects/X\""},
      {"see /Projects/XY/a, /Projects/X2 and /home/Projects/X/a",
       "see /Projects/XY/a, /Projects/X2 and /home/Projects/X/a"},
  };
  const root_prefix root("/Projects/X");
  for (const auto& row : rows) {
    EXPECT_EQ(root.text_to_client(row.text, {"/Projects/X/some where", "/Projects/X/Projects/X/from"}), row.expected);
    EXPECT_EQ(root_prefix().text_to_client(row.text, {"/some where"}), row.text);
  }
  EXPECT_EQ(root.text_to_client("/Projects/X: no attributes.", {"/Projects/X"}), "/: no attributes.");
  EXPECT_EQ(root.text_to_client("look at /Projects/XY", {"/Projects/X"}), "look at /Projects/XY");
}

/// As plug-ins and the server write such paths.
TEST(RootPrefix, QuotesInItAreFoundInEverySpelling) {
  const root_prefix root(R"(/a "b"\c)");
  for (const char* spelled : {R"(/a "b"\c)", R"(/a ""b""\c)", R"(/a \"b\"\\c)"}) {
    EXPECT_EQ(root.text_to_client("GridFTP-Path: \"" + std::string(spelled) + "/d\"", {}), "GridFTP-Path: \"/d\"");
    EXPECT_EQ(root.text_to_client("no " + std::string(spelled) + "/d", {}), "no /d");
  }
}

}  // namespace
}  // namespace tarvex::server
