#include "plugin_fixture.h"

namespace {

using Pairs = std::vector<std::pair<const char*, const char*>>;

/// Hands the pairs to `call` as the plug-in has them.
template <typename Call>
auto with_info(const Pairs& pairs, Call call) {
  std::vector<tarvex_dsi_rest_key_value_t> list;
  for (const auto& [key, value] : pairs) list.push_back({const_cast<char*>(key), const_cast<char*>(value)});
  const tarvex_dsi_rest_key_array_t info = {list.size(), list.data()};
  return call(&info);
}

tarvex_object_t* make_error(const Pairs& pairs) {
  return with_info(pairs, [](const auto* info) { return tarvex_box_error_construct(nullptr, nullptr, info); });
}

TEST(BoxErrorTest, PrintsItsPairs) {
  const struct {
    Pairs pairs;
    const char* text;
  } rows[] = {
      {{}, ""},
      {{{"Box-Error", "not_found"}, {"Box-Details", "x"}}, "Box-Error: \"not_found\"\nBox-Details: \"x\""},
      {{{"a", "1"}, {"b", nullptr}, {"c", "2"}}, "a: \"1\"\nc: \"2\""},
      {{{"a", "1"}, {nullptr, "x"}, {"", "y"}}, "a: \"1\""},
      {{{"a", "q\" r\r n\n b\\ \xc3\xa9"}}, "a: \"q\\\" r\\r n\\n b\\\\ \xc3\xa9\""},
  };
  for (const auto& row : rows) EXPECT_EQ(text_of(tarvex_error_put(make_error(row.pairs))), row.text);
  tarvex_object_t* const bare = tarvex_box_error_construct(nullptr, nullptr, nullptr);
  tarvex_object_t* const copy = tarvex_object_copy(bare);
  EXPECT_EQ(text_of(tarvex_error_put(copy)), "");
  tarvex_object_free(bare);
}

TEST(BoxErrorDeathTest, StopsWhenTheTwoPassesDisagree) {
  for (const Pairs& pairs : {Pairs{{"a", ""}}, Pairs{{nullptr, nullptr}, {"b", "2"}}}) {
    EXPECT_DEATH((void)text_of(tarvex_error_put(make_error(pairs))), "strlen\\(msg\\) == len");
  }
  EXPECT_DEATH(reinterpret_cast<tarvex_error_printable_func_t>(TARVEX_BOX_ERROR_TYPE_DEFINITION.class_data)(nullptr),
               "box_error != NULL");
}

TEST(BoxErrorTest, IsFoundAsACause) {
  tarvex_object_t* const outer = tarvex_gfs_ftp_response_error_construct(
      nullptr, make_error({{"code", "x"}, {"code", "second"}, {"none", nullptr}}), 550, "WORD", nullptr);
  EXPECT_STREQ(tarvex_box_error_get_info(outer, "code"), "x");
  EXPECT_EQ(tarvex_box_error_get_info(outer, "none"), nullptr);
  EXPECT_EQ(tarvex_box_error_get_info(outer, "other"), nullptr);
  EXPECT_EQ(tarvex_box_error_initialize(outer, nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(text_of(tarvex_error_put(outer)), "WORD\ncode: \"x\"\ncode: \"second\"");
}

TEST(BoxErrorTest, TakesOneNewKeyAtATime) {
  const struct {
    Pairs added;
    const char* text;
  } rows[] = {
      {{{"b", "2"}}, "a: \"1\"\nb: \"2\""},
      {{{"a", "other"}}, "a: \"1\""},  // what is stored stays
      {{{"b", "2"}, {"a", "other"}}, "a: \"1\"\nb: \"2\""},
      {{{"b", "2"}, {"c", "3"}}, "a: \"1\""},  // taken back
      {{{"b", "2"}, {"b", "3"}}, "a: \"1\""},
      {{}, "a: \"1\""},
  };
  for (const auto& row : rows) {
    tarvex_object_t* const error = make_error({{"a", "1"}});
    with_info(row.added, [&](const auto* info) { tarvex_box_error_add_info(error, info); });
    EXPECT_EQ(text_of(tarvex_error_put(error)), row.text);
  }
}

TEST(TranslateTest, TellsWhatAnAnswerMeans) {
  const struct {
    int status;
    const char *body, *retry_after, *text;
    bool retry;
  } rows[] = {
      {404, R"({"code":"not_found","context_info":{"errors":[{"name":"a.txt"}]}})", nullptr,
       "PATH_NOT_FOUND\nGridFTP-Path: \"a.txt\"\ncode: \"not_found\"", false},
      {404, R"({"code":"not_found","context_info":{"errors":[]}})", nullptr, "PATH_NOT_FOUND\ncode: \"not_found\"",
       false},
      {409, R"({"code":"item_name_in_use","context_info":{"conflicts":{"name":"x"}}})", nullptr,
       "PATH_EXISTS\nGridFTP-Path: x\ncode: \"item_name_in_use\"", false},
      {409, R"({"code":"item_name_in_use"})", nullptr, "PATH_EXISTS\nGridFTP-Path: (null)\ncode: \"item_name_in_use\"",
       false},
      {404, R"({"code":"trashed"})", nullptr, "PATH_NOT_FOUND\nGridFTP-Path: \"<Trashed Item>\"\ncode: \"trashed\"",
       false},
      {403, R"({"code":"access_denied_insufficient_permissions","message":"no"})", "9",
       "PERMISSION_DENIED\ncode: \"access_denied_insufficient_permissions\"\nmessage: \"no\"", true},
      {400, R"({"code":"item_name_too_long"})", nullptr,
       "INVALID_PATH_NAME\nGridFTP-Path: <Invalid Name>\ncode: \"item_name_too_long\"", false},
      {412, R"({"code":"bad_digest"})", nullptr,
       "INCORRECT_CHECKSUM\nGridFTP-Computed-Checksum: computed\nGridFTP-Expected-Checksum: expected\n"
       "code: \"bad_digest\"",
       false},
      // The pairs come in their own order; what is empty, absent or no string does not print.
      {429, R"({"help_url":"h","message":"","request_id":"r","code":"rate_limit_exceeded"})", "5",
       "code: \"rate_limit_exceeded\"\nrequest_id: \"r\"\nhelp_url: \"h\"", true},
      {500, R"({"message":"m"})", nullptr, "INTERNAL_ERROR", false},
      {500, R"({"code":"","message":"m"})", nullptr, "message: \"m\"", false},  // an empty code is a code
      {500, R"({"code":5})", nullptr, "INTERNAL_ERROR", false},
      {500, "[]", nullptr, "INTERNAL_ERROR", false},
      {200, nullptr, nullptr, "TOO_BUSY", true},
      {400, nullptr, nullptr, "Bad BOX request", false},
      {401, nullptr, nullptr, "PERMISSION_DENIED", false},
      {404, nullptr, nullptr, "PATH_NOT_FOUND", false},
      {409, nullptr, nullptr, "PATH_EXISTS\nGridFTP-Path: (null)", false},
      {429, nullptr, nullptr, "TOO_BUSY", true},
      {418, nullptr, nullptr, "", false},
      {418, nullptr, "7", "", true},
      {503, nullptr, nullptr, "INTERNAL_ERROR", false},
      {503, nullptr, "3", "INTERNAL_ERROR", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.status) + " " + (row.body != nullptr ? row.body : "-"));
    tarvex_dsi_rest_key_value_t wanted = {const_cast<char*>("Retry-After"), const_cast<char*>(row.retry_after)};
    tarvex_dsi_rest_response_arg_t response{};
    response.response_code = row.status;
    response.desired_headers = {1, &wanted};
    json_t* const document = row.body != nullptr ? json_loads(row.body, 0, nullptr) : nullptr;
    bool retry = !row.retry;
    unsigned long seconds = 99;
    EXPECT_EQ(text_of(tarvex_box_translate_response(&response, document, &retry, &seconds)), row.text);
    EXPECT_EQ(retry, row.retry);
    EXPECT_EQ(seconds, row.retry_after != nullptr ? std::stoul(row.retry_after) : 0);
    tarvex_result_release(tarvex_box_translate_response(&response, document, nullptr, nullptr));
    json_decref(document);
  }
}

TEST(TranslateTest, KeepsWhatBoxSaidEmpty) {
  tarvex_dsi_rest_response_arg_t response{};
  response.response_code = 404;
  json_t* const document = json_loads(R"({"code":"not_found","message":""})", 0, nullptr);
  const tarvex::owned_result result(tarvex_box_translate_response(&response, document, nullptr, nullptr));
  EXPECT_STREQ(tarvex_box_error_get_info(tarvex_error_peek(result.get()), "message"), "");
  EXPECT_EQ(tarvex_box_error_get_info(tarvex_error_peek(result.get()), "help_url"), nullptr);
  json_decref(document);
}

}  // namespace
