#include "plugin_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class NamespaceTest : public PluginTest {
 protected:
  struct Found {
    std::string error;
    const char* entry = "-";  ///< id
    const char* parent = "-";
  };
  Found resolve(const char* path) {
    static char mark[] = "untouched";
    tarvex_box_path_info_t untouched{};
    untouched.id = mark;
    tarvex_box_path_info_t* entry = &untouched;
    tarvex_box_path_info_t* parent = &untouched;
    Found found{.error = text_of(tarvex_box_path_resolve(session, path, &entry, &parent))};
    if (entry != nullptr) found.entry = entry->id;
    if (parent != nullptr) found.parent = parent->id;
    return found;
  }
};

TEST_F(NamespaceTest, ParsesItems) {
  const struct {
    const char *json, *error;
    int type;
    const char* parent;
    time_t modtime;
    const char* md5;
    bool has_metadata;
  } rows[] = {
      {R"({"id":"1"})", "No 'type' field found!", 0, nullptr, 0, nullptr, false},
      {R"({"type":5})", "No 'type' field found!", 0, nullptr, 0, nullptr, false},
      {R"({"type":"web_link","id":"1","name":"n"})", "", 3, "0", 0, nullptr, false},
      {R"({"type":"Folder","parent":null,"metadata":null})", "", 3, "0", 0, nullptr, false},
      {R"({"type":"folder","parent":{"id":"7"},"content_modified_at":"2020-01-02T03:04:05-07:00"})", "", 1, "7",
       1577959445, nullptr, false},
      {R"({"type":"file","content_modified_at":"2020-01-02T03:04:05+05:30","metadata":{}})", "", 2, "0", 1577914445,
       nullptr, true},
      {R"({"type":"file","content_modified_at":"2020-02-30T23:59:60-00:30","parent":{"id":7}})", "", 2, "0", 1583105400,
       nullptr, false},
      {R"({"type":"file","content_modified_at":"2020- 1-02T03:04:05+0530"})", "Error with 'content_modified_at' field!",
       2, "0", 1577916245, nullptr, false},
      {R"({"type":"file","content_modified_at":"2020-01-02T03:04:05Z","parent":{"id":"7"}})",
       "Error with 'content_modified_at' field!", 2, "7", 1577934245, nullptr, false},
      {R"({"type":"file","metadata":{"global":{"properties":{"tarvex-md5":"abc"}}},"size":"5","sha1":5})", "", 2, "0",
       0, "abc", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.json);
    json_t* const json = json_loads(row.json, 0, nullptr);
    tarvex_box_path_info_t info{};
    EXPECT_EQ(text_of(tarvex_box_object_info_parse(json, &info)), row.error);
    EXPECT_EQ(info.type, row.type);
    EXPECT_STREQ(info.parent_id, row.parent);
    EXPECT_EQ(info.modtime, row.modtime);
    EXPECT_STREQ(info.md5, row.md5);
    EXPECT_EQ(info.has_metadata, row.has_metadata);
    EXPECT_EQ(info.sha1, nullptr);
    tarvex_box_path_info_free(&info);
    json_decref(json);
  }
  EXPECT_EQ(tarvex_box_path_info_copy(nullptr), nullptr);
  tarvex_box_path_info_free(nullptr);
}

TEST_F(NamespaceTest, TurnsItemsIntoStatEntries) {
  char name[] = "\xc3\xa9", empty[] = "", id[] = "1";
  const struct {
    int type;
    char *name, *parent;
    uint32_t mode, dev, ino;
  } rows[] = {{TARVEX_BOX_FOLDER, name, nullptr, 16832, 192855317, 5857809},
              {TARVEX_BOX_FILE, empty, empty, 33216, 5381, 5381},
              {TARVEX_BOX_UNKNOWN, id, id, 33216, 177622, 177622}};
  for (const auto& row : rows) {
    tarvex_box_path_info_t info{};
    info.name = row.name;
    info.parent_id = row.parent;
    info.type = row.type;
    info.modtime = 9;
    tarvex_gridftp_server_control_stat_t entry{};
    ASSERT_EQ(tarvex_box_info_to_stat(nullptr, &info, &entry), TARVEX_SUCCESS);
    EXPECT_THAT((std::vector<uint32_t>{entry.mode, entry.dev, entry.ino}), ElementsAre(row.mode, row.dev, row.ino));
    EXPECT_EQ(entry.ctime, 9);
    EXPECT_STREQ(entry.name, row.name);
    free(entry.name);
  }
}

TEST_F(NamespaceTest, NeverReplacesTheRoot) {
  login();
  char nameless[] = "", id[] = "5";
  tarvex_box_path_info_t info{};
  info.name = nameless;
  info.id = id;
  EXPECT_NE(text_of(tarvex_box_path_cache_update(&session->cache, &info, "/")), "");
  EXPECT_STREQ(cached("/")->id, "0");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(tarvex_box_path_cache_remove(&session->cache, "/x"), TARVEX_SUCCESS);
  // Neither a path that begins with two slashes nor a removal that Box refuses takes the root's record away.
  box_script.expect({code(200, page_json({item_json("file", "2", "f")}))});
  const Found missing = resolve("//f");
  EXPECT_THAT(missing.error, testing::StartsWith("PATH_NOT_FOUND"));
  EXPECT_STREQ(missing.parent, "0");
  box_script.expect({code(403)});
  EXPECT_EQ(command(TARVEX_GFS_CMD_RMD, "/"), "PERMISSION_DENIED");
  EXPECT_STREQ(resolve("/f").entry, "2");
}

TEST_F(NamespaceTest, RecordsOfTheCacheHaveTextsOfTheirOwn) {
  login();
  char name[] = "f", id[] = "5", parent[] = "7", md5[] = "m", sha1[] = "s";
  tarvex_box_path_info_t info{};
  info.name = name;
  info.id = id;
  info.parent_id = parent;
  info.md5 = md5;
  info.sha1 = sha1;
  info.next_etag = 3;
  ASSERT_EQ(tarvex_box_path_cache_update(&session->cache, &info, "/a/b"), TARVEX_SUCCESS);
  for (char* const text : {name, id, parent, md5, sha1}) *text = '!';
  tarvex_box_path_info_t* const record = cached("/a/b/f");
  ASSERT_NE(record, nullptr);
  free(record->md5);  // a new MD5 takes the place of the old one
  record->md5 = strdup("new");
  tarvex_box_path_info_t* const copy = tarvex_box_path_info_copy(record);
  EXPECT_EQ(tarvex_box_path_cache_remove(&session->cache, "/a/b/f"), TARVEX_SUCCESS);
  EXPECT_THAT((std::vector<std::string>{copy->name, copy->id, copy->parent_id, copy->md5, copy->sha1}),
              ElementsAre("/a/b/f", "5", "7", "new", "s"));
  EXPECT_EQ(copy->next_etag, 3U);
  for (char** const text : {&copy->name, &copy->id, &copy->parent_id, &copy->md5, &copy->sha1}) {
    free(*text);  // each is an allocation
    *text = nullptr;
  }
  tarvex_box_path_info_free(copy);
}

TEST_F(NamespaceTest, ListsPageByPage) {
  login();
  const std::string a = item_json("file", "1", "a"), twin = item_json("file", "2", "a");
  const Answer page = code(200, page_json({a})), malformed = code(200, R"({"entries":{}})");
  const char* const no_array = "Json object not array when it was expected";
  const struct {
    size_t items;
    std::string markers, waits;  ///< of the requests
    Row row;
  } rows[] = {
      {3, "&=m1&", "", {"two pages", {code(200, page_json({a, twin}, "\"m1\"")), page}, ""}},
      {1, "&=&", "", {"empty marker", {code(200, page_json({a}, "\"\"")), code(200, page_json({}))}, ""}},
      {0, "&", "", {"no marker", {code(200, R"({"entries":[]})")}, ""}},
      {0, "&", "", {"no entries", {code(200, "{}")}, no_array}},
      {0, "&", "", {"entries no array", {malformed}, no_array}},
      {1, "&", "", {"no type", {code(200, page_json({a, "{}", a}))}, "Failed info_parse!"}},
      {0, "&", "", {"no id", {code(200, page_json({R"({"type":"file","name":"x"})"}))}, "Failed info_parse!"}},
      {0, "&", "", {"no body", {{}}, "System error in malloc: "}},
      {0, "&", "", {"an HTML page", {code(502, "<html>")}, "INTERNAL_ERROR"}},
      {1, "&=m&", "", {"second page fails", {code(200, page_json({a}, "\"m\"")), code(404)}, "PATH_NOT_FOUND"}},
      {1, "&&", "", {"cut once", {cut, page}, ""}},
      {0, "&&", "", {"cut twice", {cut, cut}, "transport 7001"}},
      {0, "&", "", {"dead", {dead}, "transport 7002"}},
      {1, "&&", "", {"busy", {code(429), page}, ""}},
      {1, "&&", "2.0", {"busy for 2 s", {code(429, R"({"code":"rate_limit_exceeded"})", "2"), page}, ""}},
      {0, "&", "", {"odd status", {code(418)}, "System error in malloc: "}},
  };
  for (const auto& [items, markers, waits, row] : rows) {
    size_t seen = 0;
    const auto count = [](tarvex_box_session_t*, const char* base, tarvex_box_path_info_t* info, void* counter) {
      EXPECT_EQ(std::string(base) + info->name, "/da");
      ++*static_cast<size_t*>(counter);
      return tarvex_result_t{TARVEX_SUCCESS};
    };
    expect_rows({row},
                [&](const char*) { return text_of(tarvex_box_get_folder_items(session, "9", "/d", count, &seen)); });
    EXPECT_EQ(seen, items) << row.what;
    EXPECT_EQ(testing::PrintToString(box_script.take_waits()), waits.empty() ? "{}" : "{ \"" + waits + "\" }");
    std::string sent;
    for (const std::string& line : box_script.take_lines()) {
      EXPECT_THAT(line, HasSubstr("/2.0/folders/9/items?fields="));
      const size_t at = line.find("&marker") + 7;
      sent += line.substr(at, line.find("&limit=300") - at) + "&";
    }
    EXPECT_EQ(sent, markers) << row.what;
  }
  EXPECT_STREQ(cached("/d/a")->id, "1");
}

TEST_F(NamespaceTest, FetchesAFileWithItsMetadata) {
  login();
  expect_rows({{"5", {code(200, item_json("file", "5", "f", "4", R"(,"metadata":{})"))}, ""},
               {"5", {code(200, "{}")}, "Failed info_parse!"},
               {"5", {{}}, "System error in malloc"}},
              [&](const char* id) { return text_of(tarvex_box_get_file_info(session, id, "/d", nullptr, nullptr)); });
  EXPECT_TRUE(cached("/d/f")->has_metadata);
  EXPECT_THAT(box_script.sent[0].headers, ElementsAre("Authorization: Bearer T"));
  EXPECT_EQ(box_script.sent[0].timeout_ms, 30000);
  EXPECT_EQ(box_script.sent[0].line,
            "GET https://api.box.com/2.0/files/5/"
            "?fields=type,id,name,parent,size,content_modified_at,sha1,metadata.global.properties");
}

TEST_F(NamespaceTest, ResolvesPaths) {
  login({item_json("folder", "1", "a"), item_json("file", "2", "f")});
  const Answer a_page = code(200, page_json({item_json("folder", "3", "b", "1"), item_json("file", "4", "g", "1")}));
  const struct {
    const char* path;
    std::vector<Answer> answers;
    const char *error, *entry, *parent;
  } rows[] = {
      {"/", {}, "", "0", "-"},
      {"/a", {}, "", "1", "0"},
      {"/none", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/none\"", "-", "0"},
      {"/none/x", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/none/x\"", "-", "-"},
      {"/a/b", {code(403)}, "PERMISSION_DENIED", "untouched", "untouched"},
      {"/a/b", {a_page}, "", "3", "1"},
      {"/a/b", {}, "", "3", "1"},
      {"/a/missing", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/a/missing\"", "-", "1"},
      {"/a/G", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/a/G\"", "-", "1"},
      {"/a/g/", {}, "", "4", "-"},
      {"/a/", {}, "", "1", "-"},
      {"/a//b", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/a//b\"", "-", "-"},
      {"/f/x", {code(404)}, "PATH_NOT_FOUND", "untouched", "untouched"},
      {"a", {}, "INVALID_PATH_NAME\nGridFTP-Path: \"a\"", "untouched", "untouched"},
      {"", {}, "INVALID_PATH_NAME\nGridFTP-Path: \"\"", "untouched", "untouched"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    const Found found = resolve(row.path);
    EXPECT_EQ(found.error, row.error);
    EXPECT_STREQ(found.entry, row.entry);
    EXPECT_STREQ(found.parent, row.parent);
    EXPECT_THAT(std::exchange(box_script.sent, {}), SizeIs(row.answers.size()));
  }
}

TEST_F(NamespaceTest, ListsAgainWhatHasMoved) {
  login({item_json("folder", "1", "a")});
  box_script.expect({code(200, page_json({item_json("folder", "3", "b", "1")})), code(200, page_json({}))});
  ASSERT_EQ(resolve("/a/b/x").error, "PATH_NOT_FOUND\nGridFTP-Path: \"/a/b/x\"");
  free(std::exchange(cached("/a/b")->parent_id, strdup("77")));
  box_script.expect({code(200, page_json({item_json("folder", "8", "b", "1")}))});
  EXPECT_STREQ(resolve("/a/b").entry, "8");
  free(std::exchange(cached("/a/b")->parent_id, strdup("77")));
  box_script.expect({code(200, page_json({}))});
  EXPECT_STREQ(resolve("/a/b/x").parent, "-");
}

TEST_F(NamespaceTest, ListsInBatches) {
  login({item_json("folder", "1", "a"), item_json("file", "2", "f")});
  for (const size_t count : {0, 1, 98, 99, 100, 250}) {
    std::vector<std::string> items = {item_json("web_link", "9", "skipped")};
    std::vector<std::string> names = {"."};
    for (size_t i = 0; i < count; ++i) {
      names.push_back("n" + std::to_string(i));
      items.push_back(item_json("file", "1" + std::to_string(i), names.back(), "1"));
    }
    box_script.expect({code(200, page_json(items))});
    EXPECT_EQ(stat_path("/a", false), "");
    ASSERT_EQ(framework.batches.size(), (count + 1) / 100 + 1) << count;
    std::vector<std::string> seen;
    for (const auto& batch : framework.batches) seen.insert(seen.end(), batch.begin(), batch.end());
    EXPECT_EQ(seen, names);
    EXPECT_EQ(framework.batches.back().size(), (count + 1) % 100);
  }
  box_script.sent.clear();
  EXPECT_EQ(stat_path("/a/n7", true), "");  // the folder counts as listed now
  EXPECT_THAT(framework.batches, ElementsAre(ElementsAre("/a/n7")));
  EXPECT_THAT(box_script.sent, IsEmpty());
}

TEST_F(NamespaceTest, ReportsStatsOnce) {
  login({item_json("folder", "1", "a"), item_json("file", "2", "f")});
  EXPECT_EQ(stat_path("/", true), "");
  EXPECT_THAT(framework.batches, ElementsAre(ElementsAre("/")));
  EXPECT_EQ(framework.entries[0].mode, 16832u);
  EXPECT_EQ(stat_path("/x", true), "PATH_NOT_FOUND\nGridFTP-Path: \"/x\"");
  EXPECT_EQ(framework.reply_code, 550);
  EXPECT_THAT(framework.batches, ElementsAre(ElementsAre("(null)")));  // one entry, empty
  EXPECT_EQ(stat_path("/x", false), "PATH_NOT_FOUND\nGridFTP-Path: \"/x\"");
  EXPECT_THAT(framework.batches, ElementsAre(IsEmpty()));
  box_script.expect({code(404, R"({"code":"not_found"})")});
  EXPECT_THAT(stat_path("/f", false), HasSubstr("PATH_NOT_FOUND"));
  EXPECT_THAT(framework.batches, ElementsAre(ElementsAre(".")));
  EXPECT_FALSE(cached("/f")->listed);
  // The items of a folder asked for with a trailing slash go where no path leads, on purpose.
  box_script.expect({code(200, page_json({item_json("file", "5", "x", "1")}))});
  EXPECT_EQ(stat_path("/a/", false), "");
  EXPECT_NE(cached("/a//x"), nullptr);
  EXPECT_TRUE(cached("/a")->listed);
}

}  // namespace
