// What single requests answer: status, error bodies and the shapes of objects.
#include "box_process.h"

#include <gtest/gtest.h>

namespace emulator_test {
namespace {

/// "{a}" stands for the id of the folder /a, "{b}" for /a/b, "{f}" for the file /a/f.txt, "{t}" for a trashed file.
class Answers : public testing::Test {
 protected:
  Answers() : a_(box_.folder("0", "a")), b_(box_.folder(a_, "b")), f_(box_.file(a_, "f.txt", "12345")) {
    t_ = box_.file("0", "gone", "x");
    (void)box_.check({{"delete", "DELETE /2.0/files/" + t_, "", 204}});
  }

  [[nodiscard]] std::string fill(std::string text) const {
    for (const auto& [key, value] : {std::pair("{a}", a_), {"{b}", b_}, {"{f}", f_}, {"{t}", t_}}) {
      for (auto at = text.find(key); at != std::string::npos; at = text.find(key)) text.replace(at, 3, value);
    }
    return text;
  }

  reply run(std::vector<exchange> rows) const {
    for (exchange& each : rows) {
      for (std::string* text : {&each.request, &each.body, &each.members}) *text = fill(*text);
    }
    return box_.check(rows);
  }

  box_process box_;
  std::string a_, b_, f_, t_;
};

TEST_F(Answers, RefuseAddressesAndIdsWithBoxsCodes) {
  (void)run({
      {"unknown folder", "GET /2.0/folders/77/items", "", 404,
       "type=error|status=404|code=not_found|context_info.errors.0.name=folder|"
       "context_info.errors.0.message=Invalid value 'd_77'. 'folder' with value 'd_77' not found"},
      {"a folder's id as a file", "GET /2.0/files/9{a}", "", 404, "context_info.errors.0.name=item"},
      {"trashed", "GET /2.0/files/{t}/content", "", 404, "code=trashed"},
      {"id with letters", "GET /2.0/files/abc", "", 405, "code=method_not_allowed"},
      {"method", "PATCH /2.0/files/{f}", "", 405, "code=method_not_allowed"},
      {"unknown address", "GET /2.0/nothing", "", 404, "code=not_found"},
      {"limit", "GET /2.0/folders/0/items?limit=ten", "", 400, "code=invalid_limit"},
      {"marker without usemarker", "GET /2.0/folders/0/items?marker=x", "", 400, "code=invalid_parameter"},
      {"marker of nobody", "GET /2.0/folders/0/items?usemarker=true&marker=zz", "", 400, "code=bad_request"},
      {"root cannot be renamed", "PUT /2.0/folders/0", R"({"name":"x"})", 403},
      {"root cannot be deleted", "DELETE /2.0/folders/0?recursive=true", "", 403},
      {"folder not empty", "DELETE /2.0/folders/{a}", "", 400, "code=folder_not_empty"},
      {"trash of an active item", "DELETE /2.0/files/{f}/trash", "", 404, "code=not_trashed"},
  });
}

TEST_F(Answers, RefuseNamesThatBoxRefuses) {
  const std::string x255(255, 'x');
  const std::string make = "POST /2.0/folders";
  (void)run({
      {"no name", make, R"({"parent":{"id":"0"}})", 400, "code=bad_request"},
      {"no parent", make, R"({"name":"n"})", 400, "code=bad_request"},
      {"no JSON", make, "name=n", 400, "code=bad_request"},
      {"parent missing", make, named("n", "77"), 404, "context_info.errors.0.name=parent"},
      {"slash", make, named("a/b"), 400, "code=item_name_invalid"},
      {"backslash", make, named("a\\\\b"), 400, "code=item_name_invalid"},
      {"control character", make, named("a\\u0007"), 400, "code=item_name_invalid"},
      {"dots", make, named(".."), 400, "code=item_name_invalid"},
      {"space at the end", make, named("a "), 400, "code=item_name_invalid"},
      {"empty", make, named(""), 400, "code=item_name_invalid"},
      {"256 characters", make, named(x255 + "x"), 400, "code=item_name_too_long"},
      {"255 characters", make, named(x255), 201, "name=" + x255},
      {"255 characters of two bytes", make, named("\xc3\xa4" + x255.substr(1)), 201},
      {"taken by a folder", make, named("A"), 409,
       "code=item_name_in_use|context_info.conflicts.0.id={a}|context_info.conflicts.0.name=a"},
      {"taken beyond ASCII", make, named("\xc3\x84" + x255.substr(1)), 409},
  });
}

TEST_F(Answers, UpdatesCountTheEtagAndLookAtIt) {
  const std::string file = "PUT /2.0/files/{f}";
  const header_list stale = {{"If-Match", "0"}};
  (void)run({
      {"below itself", "PUT /2.0/folders/{a}", R"({"parent":{"id":"{b}"}})", 400, "code=cyclical_folder_structure"},
      {"taken", file, R"({"name":"B"})", 409, "code=item_name_in_use|context_info="},
      {"in case only", file, R"({"name":"F.txt"})", 200, "name=F.txt|etag=1"},
      {"nothing changed", file, R"({"name":"F.txt"})", 200, "etag=1"},
      {"stale etag", file, R"({"name":"g"})", 412, "code=precondition_failed", stale},
      {"move with a stale etag", file, R"({"parent":{"id":"{b}"}})", 200, "etag=2", stale},
      {"known etag", "GET /2.0/files/{f}", "", 304, "", {{"If-None-Match", "2"}}},
      {"fraction of a second", file, R"({"content_modified_at":"2017-04-08T00:58:08.5Z"})", 400,
       "message=not a valid rfc 3339 formatted date"},
      {"before 1970", file, R"({"content_modified_at":"1969-12-31T23:59:59Z"})", 400},
      {"30 February", file, R"({"content_modified_at":"2017-02-30T00:00:00Z"})", 400},
      {"with an offset", file, R"({"content_modified_at":"2017-04-08T02:58:08+02:00"})", 200,
       "content_modified_at=2017-04-07T16:58:08-08:00"},
  });
}

TEST_F(Answers, ShowTheFieldsThatWereAskedFor) {
  const std::string asked = "fields=type,id,name,parent,size,content_modified_at,sha1,metadata.global.properties";
  const reply file = run({{"file", "GET /2.0/files/{f}/?" + asked, "", 200,
                           "parent.id={a}|size=5|metadata=null|sha1=" + sha1_hex("12345")}});
  EXPECT_EQ(json_object_size(file.json().get()), 9U) << file.body;  // etag comes uncalled
  const reply folder = run({{"folder", "GET /2.0/folders/{a}?fields=size%2Csha1%2Cunheard_of", "", 200, "size=5"}});
  EXPECT_EQ(json_object_size(folder.json().get()), 4U) << folder.body;
  (void)run({
      {"root", "GET /2.0/folders/0", "", 200,
       "id=0|parent=null|etag=null|modified_at=null|size=5|item_collection.total_count=1"},
      {"standard set", "GET /2.0/files/{f}", "", 200,
       "path_collection.total_count=2|path_collection.entries.1.id={a}|item_status=active|"
       "owned_by.login=alice@example.com"},
      {"user", "GET /2.0/users/me/", "", 200, "type=user|space_used=6|max_upload_size=5368709120"},
      {"user's fields", "GET /2.0/users/me?fields=name", "", 200, "name=alice|login="},
  });
  EXPECT_NE(box_.send("GET /2.0/users/me").body.find("avatar_url\":\"http:\\/\\/"), std::string::npos);
}

TEST_F(Answers, NeedAToken) {
  const std::string bare = "Bearer realm=\"Service\"";
  for (const auto& [token, words] :
       {std::pair<std::string, std::string>("", bare),
        {"wrong", bare + ", error=\"invalid_token\", error_description=\"The access token provided is invalid.\""}}) {
    const reply answer = box_.send("GET /2.0/users/me", "", {}, token);
    EXPECT_EQ(answer.status, 401);
    EXPECT_EQ(answer.header("WWW-Authenticate"), words);
    EXPECT_EQ(answer.body, "");
  }
  EXPECT_EQ(box_.send("GET /2.0/users/me?access_token=alice-token", "", {}, "").status, 200);
}

TEST_F(Answers, MetadataFollowsTheItem) {
  const std::string at = " /2.0/files/{f}/metadata/global/properties";
  const header_list patch = {{"Content-Type", "application/json-patch+json"}};
  (void)run({
      {"none yet", "GET" + at, "", 404, "code=instance_not_found|status="},
      {"patch of none", "PUT" + at, R"([{"op":"add","path":"/k","value":"v"}])", 404, "code=instance_not_found", patch},
      {"not a text", "POST" + at, R"({"k":1})", 400, "code=schema_validation_failed"},
      {"create", "POST" + at, R"({"k":"v"})", 201, "k=v|$version=0|$parent=file_{f}"},
      {"create again", "POST" + at, R"({"k":"v"})", 409, "code=conflict|type="},
      {"add, replace", "PUT" + at, R"([{"op":"add","path":"/a~1b","value":"1"},{"op":"add","path":"/k","value":"w"}])",
       200, "a/b=1|k=w|$version=1", patch},
      {"all or nothing", "PUT" + at, R"([{"op":"remove","path":"/k"},{"op":"replace","path":"/x","value":"1"}])", 409,
       "code=failed_json_patch_application", patch},
      {"test fails", "PUT" + at, R"([{"op":"test","path":"/k","value":"v"}])", 409,
       "message=value differs from expectations", patch},
      {"move and copy", "PUT" + at, R"([{"op":"move","from":"/k","path":"/m"},{"op":"copy","from":"/m","path":"/c"}])",
       200, "k=|m=w|c=w|$version=2", patch},
      {"add without value", "PUT" + at, R"([{"op":"add","path":"/k"}])", 409, "message=value is missing", patch},
      {"move without from beside a member without a name", "PUT" + at,
       R"([{"op":"add","path":"/","value":"e"},{"op":"move","path":"/m"}])", 409,
       "code=failed_json_patch_application|message=from is missing", patch},
      {"other content type", "PUT" + at, R"([{"op":"remove","path":"/m"}])", 400, "code=bad_request"},
      {"after a rename", "PUT /2.0/files/{f}", R"({"name":"g.txt"})", 200},
      {"inside the item", "GET /2.0/files/{f}?fields=metadata.global.properties", "", 200,
       "metadata.global.properties.m=w"},
      {"folder", "POST /2.0/folders/{a}/metadata/global/properties", R"({"k":"v"})", 201, "$parent=folder_{a}"},
      {"delete", "DELETE" + at, "", 204},
      {"gone", "GET" + at, "", 404},
  });
}

TEST_F(Answers, TrashKeepsAndGivesBack) {
  (void)run({
      {"delete the tree", "DELETE /2.0/folders/{a}?recursive=true", "", 204},
      {"file went with it", "GET /2.0/files/{f}", "", 404, "code=trashed"},
      {"only what was deleted is listed", "GET /2.0/folders/trash/items?fields=item_status,path_collection", "", 200,
       "total_count=2|entries.0.item_status=trashed|entries.0.path_collection.entries.0.id=1"},
      {"name is free", "POST /2.0/folders", named("a"), 201},
      {"restore onto it", "POST /2.0/folders/{a}", "", 409, "code=item_name_in_use"},
      {"restore elsewhere", "POST /2.0/folders/{a}", R"({"name":"a2"})", 201, "name=a2|size=5"},
      {"file is back", "GET /2.0/files/{f}", "", 200, "item_status=active"},
      {"copy", "POST /2.0/folders/{a}/copy", named("a3"), 201, "size=5"},
      {"purge", "DELETE /2.0/files/{t}/trash", "", 204},
      {"nothing left of it", "GET /2.0/files/{t}", "", 404, "code=not_found"},
      {"web link", "POST /2.0/web_links", named("w", "0", R"(,"url":"https://example.com/x")"), 201},
      {"stands last", "GET /2.0/folders/0/items", "", 200,
       "total_count=4|entries.3.type=web_link|entries.3.url=https://example.com/x"},
      {"delete the tree again", "DELETE /2.0/folders/{a}?recursive=true", "", 204},
      {"purge it", "DELETE /2.0/folders/{a}/trash", "", 204},
      {"file went with it", "GET /2.0/files/{f}", "", 404, "code=not_found"},
      {"only the copy counts", "GET /2.0/users/me", "", 200, "space_used=5"},
  });
  const std::string id = box_.file("0", "now", "x");
  box_.set(R"({"trash":false})");
  (void)run({{"without a trash", "DELETE /2.0/files/" + id, "", 204},
             {"gone at once", "GET /2.0/files/" + id, "", 404, "code=not_found"}});
}

TEST_F(Answers, LocksHoldForTheirTime) {
  (void)run({{"lock", "POST /_emulator/locks", R"({"folder":"{a}","for_ms":60000})", 204},
             {"below it", "DELETE /2.0/folders/{b}", "", 409, "code=operation_blocked_temporary"},
             {"reserve", "POST /_emulator/locks", R"({"name":"n","for_ms":60000})", 204},
             {"reserved", "POST /2.0/folders", named("n"), 409, "code=name_temporarily_reserved"},
             {"unlock", "DELETE /_emulator/locks", "", 204},
             {"free", "DELETE /2.0/folders/{b}", "", 204}});
}

TEST_F(Answers, TokensComeFromTheSignIn) {
  const reply consent = box_.send(
      "GET /api/oauth2/authorize?response_type=code&client_id=c&redirect_uri=http://h/back&state=a%26b", "", {}, "");
  ASSERT_EQ(consent.status, 302);
  const std::string back = consent.header("Location");
  const std::string code = back.substr(back.find("code=") + 5, 48);
  EXPECT_EQ(back, "http://h/back?code=" + code + "&state=a%26b");
  const std::string client = "&client_id=c&client_secret=s";
  const auto ask_for = [&](const std::string& form, const std::string& expected) {
    const reply answer = box_.send("POST /oauth2/token/", form, {}, "");
    EXPECT_EQ(answer.status, expected.empty() ? 200 : 400) << form;
    answer.expect(expected);
    return answer;
  };
  const reply first = ask_for("grant_type=authorization_code&code=" + code + client, "");
  box_.send("GET /2.0/users/me", "", {}, first.at("access_token")).expect("name=alice");
  const std::string refresh = "grant_type=refresh_token&refresh_token=" + first.at("refresh_token") + client;
  const reply second = ask_for(refresh, "");
  (void)ask_for(refresh, "error_description=Refresh token has expired");
  (void)ask_for("grant_type=refresh_token&refresh_token=x" + client, "error_description=Invalid refresh token");
  const std::string grant = "grant_type=client_credentials&box_subject_type=";
  (void)ask_for(grant + "user&box_subject_id=77" + client, "error=invalid_grant");
  (void)ask_for(grant + "enterprise" + client, "");
  (void)ask_for("grant_type=refresh_token", "error=invalid_client");
  EXPECT_EQ(box_.send("POST /oauth2/revoke", "token=" + second.at("access_token") + client, {}, "").status, 200);
  EXPECT_EQ(box_.send("GET /2.0/users/me", "", {}, second.at("access_token")).status, 401);
}

}  // namespace
}  // namespace emulator_test
