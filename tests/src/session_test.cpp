#include "plugin_fixture.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <fstream>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr char ROOT_LISTING[] =
    "GET https://api.box.com/2.0/folders/0/items?fields=type,id,name,parent,size,content_modified_at,sha1"
    "&usemarker=true&marker&limit=300";

class SessionTest : public PluginTest {
 protected:
  std::string start() {
    framework.completions = 0;
    tarvex_gfs_session_info_t info = {.username = "alice", .remote_host = "::1"};
    tarvex_i_box_start(framework.op(), &info);
    EXPECT_EQ(framework.completions, 1);
    return framework.error;
  }
  mode_t mode_of(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
};

TEST_F(SessionTest, StartsWithTheRootListed) {
  framework.config["config"] = {R"({"user_api_rate_limit":20,"other":[]})"};
  framework.checksums_fail = true;  // is no reason to refuse a login
  login({item_json("folder", "11", "a")});
  EXPECT_EQ(framework.text, "/");
  EXPECT_EQ(framework.checksums, "SHA1:1;MD5:8;");
  EXPECT_THAT(framework.asked, ElementsAre("config", "creds"));
  EXPECT_STREQ(session->username, "alice");
  EXPECT_STREQ(session->user_id, "123");
  EXPECT_EQ(session->max_upload, 200000000u);
  EXPECT_EQ(session->user_retry.delay, 50000u);
  EXPECT_EQ(session->user_upload_retry.delay, 250000u);
  EXPECT_STREQ(cached("/a")->id, "11");
  EXPECT_EQ(cached("/")->parent_id, nullptr);
  for (const char* const folder : {".tarvex", ".tarvex/box-r"}) EXPECT_EQ(mode_of(home / folder), 0700u);
  for (const char* const file : {"123", "123u"}) {
    EXPECT_EQ(mode_of(home / ".tarvex/box-r" / file), 0600u);
    EXPECT_EQ(std::filesystem::file_size(home / ".tarvex/box-r" / file), 24u);
  }
}

TEST_F(SessionTest, RefusesToStart) {
  const std::string creds = framework.config["creds"].front(), internal = "INTERNAL_ERROR\nGridFTP-Error: ";
  const std::string undated = R"({"access_token":"T","token_expiry":"soon","sub":"1","max_upload":1})";
  const auto with_sub = [](const std::string& sub) {
    return R"({"access_token":"T","token_expiry":"2030-01-01T00:00:00.0+00:00","sub":")" + sub + R"(","max_upload":1})";
  };
  const struct {
    std::deque<std::string> value;
    Row row;
  } rows[] = {
      {{}, {"config", {}, internal + "Missing storage gateway policy."}},
      {{"{"}, {"config", {}, "Error loading collection storage policy: "}},
      {{R"({"user_api_rate_limit":"5"})"}, {"config", {}, internal + "Error unpacking collection storage policy: "}},
      {{}, {"creds", {}, internal + "User's Box credentials are not available."}},
      {{"x"}, {"creds", {}, "Error loading user credential: "}},
      {{"{}"}, {"creds", {}, internal + "Error unpacking user credential: "}},
      {{undated}, {"creds", {}, "Error parsing time string: soon"}},
      {{with_sub("../../x")}, {"creds", {}, internal + "The user credential's \"sub\" is not a Box user id"}},
      {{with_sub("")}, {"creds", {}, internal + "The user credential's \"sub\" is not a Box user id"}},
      {{creds}, {"creds", {code(401)}, "PERMISSION_DENIED"}},
      {{creds}, {"creds", {dead}, "transport 7002"}},
  };
  for (const auto& [value, row] : rows) {
    const auto before = framework.config;
    framework.config[row.what] = value;
    expect_rows({row}, [&](const char*) { return start(); });
    EXPECT_EQ(framework.session, nullptr);
    EXPECT_EQ(framework.text, "(null)");
    framework.config = before;
  }
  for (const auto& [text, expected] :
       {std::pair{R"({"user_api_rate_limit":0})", 16}, {R"({"user_api_rate_limit":-3})", -3}}) {
    int rate = 16;
    EXPECT_EQ(tarvex_box_config_parse_json(text, &rate), TARVEX_SUCCESS);
    EXPECT_EQ(rate, expected);
  }
}

TEST_F(SessionTest, ReadsDates) {
  const std::pair<const char*, time_t> rows[] = {
      // -1: refused
      {"2030-01-01T00:00:00.000000-05:00", 1893474000},
      {"2030-01-01T00:00:00.5+05:30", 1893436200},
      {"2030-01-01T00:00:00.0-00:30", 1893454200},  // counts as plus 30 minutes
      {"2030-01-01T00:00:00-05:00", -1},
      {"2030-01-01T00:00:00.0Z", -1},
      {"", -1}};
  for (const auto& [text, expected] : rows) {
    time_t time = -1;
    EXPECT_EQ(text_of(tarvex_i_box_parse_date(text, &time)).empty(), expected != -1);
    EXPECT_EQ(time, expected) << text;
  }
}

TEST_F(SessionTest, RenewsTheToken) {
  login();
  const time_t now = box_script.now.tv_sec;
  const auto credential = [](const char* expiry) {
    return std::string(R"({"access_token":"N","token_expiry":")") + expiry + R"(","sub":"456","max_upload":7})";
  };
  const struct {
    time_t expiry;
    std::deque<std::string> renewed;
    const char *error, *token;
  } rows[] = {
      {now + 100, {}, "", "T"},
      {now + 99, {credential("2029-01-01T00:00:00.0+00:00")}, "", "N"},
      {now + 99,
       {credential("2010-01-01T00:00:00.0+00:00")},
       "INTERNAL_ERROR\nBox-Details: \"Token renewal failed. Newly requested token is expired.\"",
       "N"},
      {now - 5, {}, "INTERNAL_ERROR\nBox-Details: \"Token renewal failed.", nullptr},
      {now + 99, {"{"}, "Error loading user credential: ", nullptr},
  };
  for (const auto& row : rows) {
    free(session->access_token);
    session->access_token = strdup("T");
    session->access_token_exp = row.expiry;
    next().config["renew-creds"] = row.renewed;
    EXPECT_THAT(text_of(tarvex_box_token_refresh(session, framework.op())), HasSubstr(row.error));
    EXPECT_EQ(framework.asked.size(), row.expiry == now + 100 ? 0u : 1u);
    EXPECT_STREQ(session->access_token, row.token);
  }
  // Without a token the expiry alone is looked at.
  for (const auto& [expiry, error] : {std::pair{time_t{0}, "INTERNAL_ERROR"}, {now + 100, ""}}) {
    next().config["creds"] = {};
    free(std::exchange(session->access_token, nullptr));
    session->access_token_exp = expiry;
    EXPECT_THAT(text_of(tarvex_box_token_refresh(session, framework.op())), testing::StartsWith(error));
    EXPECT_EQ(text_of(tarvex_box_get_kelm_token(session, framework.op())), "");
  }
  session->access_token_exp = now + 99;
  // A token lost in a failed renewal is asked for as a new one, and its absence is no success.
  next().config["creds"] = {};
  EXPECT_NE(text_of(tarvex_box_token_refresh(session, framework.op())), "");
  EXPECT_THAT(framework.asked, ElementsAre("creds"));
  // Every operation reports the failure once, and asks Box nothing.
  for (const auto type : {TARVEX_GFS_CMD_MKD, TARVEX_GFS_CMD_SITE_CHMOD}) EXPECT_NE(command(type, "/x"), "");
  EXPECT_NE(send("/x"), "");
  EXPECT_NE(recv("/x", 1), "");
  EXPECT_NE(stat_path("/x", false), "");
  EXPECT_THAT(framework.batches, ElementsAre(ElementsAre()));
}

TEST_F(SessionTest, ExpandsPaths) {
  const std::pair<const char*, std::string> rows[] = {{"$HOME/.tarvex/box-r", home.string() + "/.tarvex/box-r"},
                                                      {"$LOGNAME-$LOGNAME", "tester-tester"},
                                                      {"$HOMEX", home.string() + "X"},
                                                      {"/plain/$PATH/$", "/plain/$PATH/$"},
                                                      {"", ""}};
  for (const auto& [path, expected] : rows) {
    char* text = nullptr;
    ASSERT_EQ(tarvex_box_evaluate_path(path, &text), TARVEX_SUCCESS);
    EXPECT_EQ(text, expected);
    free(text);
  }
}

TEST_F(SessionTest, ActivatesAndRegisters) {
  setenv("TARVEX_BOX_API_BASE", "http://127.0.0.1:1/", 1);
  ASSERT_EQ(tarvex_module_activate(&tarvex_gridftp_server_box_module), 0);
  const auto* const table = static_cast<const tarvex_gfs_storage_iface_t*>(
      tarvex_extension_registry_lookup(&tarvex_i_gfs_dsi_registry, "box"));
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->descriptor, 0x6b);
  EXPECT_EQ(table->stat_func, tarvex_i_box_stat);
  box_script.expect({code(401)});
  EXPECT_EQ(start(), "PERMISSION_DENIED");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(HasSubstr("GET http://127.0.0.1:1/2.0/folders/0/items?")));
  EXPECT_EQ(tarvex_module_deactivate(&tarvex_gridftp_server_box_module), 0);
  EXPECT_EQ(tarvex_extension_registry_lookup(&tarvex_i_gfs_dsi_registry, "box"), nullptr);
  // Without the variable the base is Box's own again.
  unsetenv("TARVEX_BOX_API_BASE");
  ASSERT_EQ(tarvex_module_activate(&tarvex_gridftp_server_box_module), 0);
  EXPECT_EQ(tarvex_module_deactivate(&tarvex_gridftp_server_box_module), 0);
  box_script.expect({code(429, "", "60"), code(503)});
  EXPECT_EQ(start(), "INTERNAL_ERROR");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(ROOT_LISTING, ROOT_LISTING));
  EXPECT_THAT(box_script.take_waits(), ElementsAre("25.0"));
}

TEST_F(SessionTest, TracesByLevel) {
  const std::filesystem::path log = home / "log";
  setenv("TARVEX_BOX_DEBUG", ("ERROR|DEBUG," + log.string() + ",it=ERROR").c_str(), 1);
  ASSERT_EQ(tarvex_module_activate(&tarvex_i_box_common_module), 0);
  auto& handle = tarvex_i_TARVEX_BOX_debug_handle;
  box_script.now.tv_usec = 5;
  box_script.expect({code(404)});
  EXPECT_EQ(start(), "PATH_NOT_FOUND");
  const std::string self = std::to_string(tarvex_thread_self());
  const std::string process = std::to_string(getpid());
  tarvex_i_TARVEX_BOX_debug_printf((std::string(5000, 'x') + "%s").c_str(), "");
  tarvex_i_TARVEX_BOX_debug_fwrite("raw\n", 1, 4);
  ASSERT_EQ(tarvex_module_deactivate(&tarvex_i_box_common_module), 0);
  unsetenv("TARVEX_BOX_DEBUG");
  tarvex_i_TARVEX_BOX_debug_printf("nowhere\n");
  std::ifstream file(log);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_THAT(
      text, HasSubstr(self + "::box: DEBUG: " + process + ": tarvex_box_get_folder_items: " + self + "::API CALL!\n"));
  EXPECT_THAT(text, HasSubstr(self + ":1600000000.000005000::box: ERROR: " + process + ": tarvex_i_box_start: " + self +
                              "::exit: result=0x"));
  EXPECT_THAT(text, HasSubstr(" message=PATH_NOT_FOUND\n"));
  EXPECT_THAT(text, testing::Not(HasSubstr("enter\n")));
  EXPECT_THAT(text, HasSubstr(self + "::" + std::string(4095 - self.size() - 2, 'x') + "raw\n"));
  handle = {};
}

}  // namespace
