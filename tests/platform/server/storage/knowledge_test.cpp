#include "session_fixture.h"

#include <set>
#include <sstream>

namespace tarvex::server::test {
namespace {

tarvex_result_t error(int code, const char* word) {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, code, word, nullptr));
}

/// A storage that knows what it has listed, for as long as its session lives. Names that end in "/" are folders.
class KnowledgeTest : public SessionTest {
 protected:
  KnowledgeTest() {
    script.start = [this](auto op, auto*) { start(op); };
    script.stat = [this](auto op, tarvex_gfs_stat_info_t* info) { stat(op, *info); };
    script.command = [this](auto op, tarvex_gfs_command_info_t* info) { run(op, *info); };
    log_in();
  }

  struct row {
    /// What happens before: others add (+), remove (-) or replace (~) an item; the storage's session cannot start (!),
    /// or no folder can be listed (?).
    const char* before;
    const char *line, *reply;
    const char* asks;  ///< of the storage
  };

  void expect_asked(const std::vector<row>& rows) {
    for (const row& of : rows) {
      fails = 0;
      std::istringstream before(of.before);
      for (std::string word; before >> word;) happens(word[0], word.substr(1));
      asked.clear();
      expect(of.line, of.reply);
      EXPECT_EQ(asked, of.asks) << of.before << " " << of.line;
    }
  }

  std::set<std::string> there = {"/", "/a/", "/a/f"};  ///< what the storage would find
  std::string asked;                                   ///< by the operation thread, read between commands

 private:
  void happens(char what, const std::string& item) {
    if (item.empty()) fails = what;
    if (item.empty()) return;
    const std::string path = item.substr(0, item.find_last_not_of('/') + 1);
    if (what == '+') there.insert(item);
    if (what == '-') there.erase(item);
    what == '+' ? others_add(path) : others_change(path);
  }

  void start(tarvex_gfs_operation_t op) {
    asked += "start;";
    if (fails == '!')
      return tarvex_gridftp_server_finished_session_start(op, error(451, "TOO_BUSY"), nullptr, nullptr, nullptr);
    known = {"/"};
    listed_.clear();
    find("/");
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, "/");
  }

  /// Makes what lies in a folder known.
  void find(const std::string& path) {
    const std::string prefix = path == "/" ? "/" : path + "/";
    for (const std::string& item : there) {
      const std::size_t slash = item.find('/', prefix.size());
      if (item.starts_with(prefix) && (slash == std::string::npos || slash + 1 == item.size())) known.insert(item);
    }
    listed_.insert(path);
  }

  /// Lists what was never listed on the way to a path.
  void resolve(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      const std::string above = path.substr(0, slash);
      if (folder(known, above) && !listed_.contains(above)) find(above);
    }
  }

  bool folder(const std::set<std::string>& of, const std::string& path) {
    return of.contains(path == "/" ? path : path + "/");
  }

  void stat(tarvex_gfs_operation_t op, const tarvex_gfs_stat_info_t& info) {
    const std::string path = info.pathname;
    resolve(path);
    const bool exists = folder(known, path) || (info.file_only && known.contains(path));
    if (!exists || (!info.file_only && !folder(there, path)))
      return tarvex_gridftp_server_finished_stat(op, not_found(info.pathname), nullptr, 0);
    if (info.file_only) return answer_item(op, folder(known, path), 5);
    asked += (info.internal ? "again " : "list ") + path + ";";
    if (fails == '?') return tarvex_gridftp_server_finished_stat(op, error(451, "TOO_BUSY"), nullptr, 0);
    find(path);
    answer_listing(op, 0, 100);
  }

  /// Does what it was told to, and knows only that of it.
  void run(tarvex_gfs_operation_t op, const tarvex_gfs_command_info_t& info) {
    const std::string path = info.pathname;
    const std::string parent = path.substr(0, path.rfind('/'));
    const std::string from = info.from_pathname ? info.from_pathname : "";
    asked += "run " + path + ";";
    tarvex_result_t result = TARVEX_SUCCESS;
    resolve(path);
    if (!parent.empty() && !folder(known, parent)) {
      result = error(553, "NOT_A_DIRECTORY");
    } else if (info.command == TARVEX_GFS_CMD_MKD && folder(there, path) && !folder(known, path)) {
      result = error(553, "PATH_EXISTS");
    } else if (info.command == TARVEX_GFS_CMD_MKD) {
      there.insert(path + "/");
      known.insert(path + "/");
    } else if (!from.empty() && !known.contains(from) && !folder(known, from)) {
      result = not_found(info.from_pathname);
    } else {
      const std::string gone = from.empty() ? path : from;
      const char* const slash = folder(known, gone) ? "/" : "";
      for (auto* of : {&there, &known}) of->erase(gone + slash);
      for (auto* of : {&there, &known})
        if (!from.empty()) of->insert(path + slash);
    }
    tarvex_gridftp_server_finished_command(op, result, nullptr);
  }

  std::set<std::string> known;  ///< what it has found
  std::set<std::string> listed_;
  char fails = 0;
};

TEST_F(KnowledgeTest, WhatOthersRemoveOrReplaceIsForgottenBeforeItIsAskedFor) {
  there.insert({"/a/g", "/a/d/", "/a/d/f", "/b/", "/b/x"});
  expect_asked({
      {"~/b", "SIZE /b/x", "213", "start;"},
      {"-/a/g", "SIZE /b/x", "213", ""},
      {"", "SIZE /a/f", "213", ""},
      {"", "SIZE /a/g", "550-PATH_NOT_FOUND", "start;"},
      {"", "SIZE /a/g", "550-", ""},
      {"-/a/d/f -/a/d/", "SIZE /a/d/f", "550-", "start;"},
      {"~/b", "MKD /b/new", "257", "start;run /b/new;"},
      {"-/b/new/", "MKD /b/new", "257", "start;run /b/new;"},
      {"~/a/f", "RNFR /a/f", "350", "start;"},
      {"~/a/f", "RNTO /b/f", "250", "start;run /b/f;"},
      {"~/b/f", "CWD /a", "250", ""},
      {"~/b", "STAT /b", "213-", "start;list /b;"},
  });
  EXPECT_GE(script.destroyed, 7) << "who is replaced is ended";
}

TEST_F(KnowledgeTest, OnesOwnChangesCostNothingUnlessPathsBelowChangeTheirMeaning) {
  there.insert({"/a/g", "/a/d/", "/a/e/", "/a/e/x"});
  expect_asked({
      {"~/a", "SIZE /a/e/x", "213", "start;"},
      {"", "MKD /a/new", "257", "run /a/new;"},
      {"", "DELE /a/g", "250", "run /a/g;"},
      {"", "SIZE /a/g", "550", ""},
      {"", "RNFR /a/f", "350", ""},
      {"", "RNTO /a/g", "250", "run /a/g;"},
      {"", "SIZE /a/f", "550", ""},
      {"", "SIZE /a/g", "213", ""},
      {"", "RMD /a/d", "250", "run /a/d;"},
      {"", "SIZE /a/g", "213", ""},
      {"", "MKD /a/d", "257", "start;run /a/d;"},
      {"", "RNFR /a/e", "350", ""},
      {"", "RNTO /a/h", "250", "run /a/h;"},
      {"", "SIZE /a/e/x", "550", "start;"},
      {"", "RNFR /a/h", "350", ""},
      {"", "RNTO /a/e", "250", "run /a/e;"},
      {"", "SIZE /a/e/x", "213", "start;"},
  });
}

TEST_F(KnowledgeTest, AdditionsAreLookedForWhereTheyAreMissed) {
  expect_asked({
      {"", "SIZE /a/new", "550", ""},
      {"+/a/new", "SIZE /a/f", "213", ""},
      {"", "SIZE /a/none", "550", ""},
      {"", "SIZE /a/new", "213", "again /a;"},
      {"+/b/ +/b/c/ +/b/c/deep", "SIZE /b/c/deep", "213", "again /;again /b;again /b/c;"},
      {"", "SIZE /b/c/none", "550", ""},
      {"+/to/", "MKD /to/x", "257", "run /to/x;again /;run /to/x;"},
      {"+/a/moved", "RNFR /a/moved", "350", "again /a;"},
      {"", "RNTO /a/else", "250", "run /a/else;"},
      {"+/a/quick/", "MKD /a/quick", "257", "again /a;run /a/quick;"},
      {"+/a/onto", "RNFR /a/f", "350", ""},
      {"", "RNTO /a/onto", "250", "again /a;run /a/onto;"},
      {"+/far/ +/a/last", "RNFR /a/last", "350", "again /a;"},
      {"", "RNTO /far/last", "250", "run /far/last;again /;run /far/last;"},
  });
}

/// What cannot be looked at is not said to be missing. The session that knew less goes on.
TEST_F(KnowledgeTest, WhereALookFailsTheCommandAloneFails) {
  expect_asked({
      {"", "SIZE /a/f", "213", ""},
      {"+/a/new ?", "SIZE /a/new", "451 TOO_BUSY", "again /a;"},
      {"?", "MKD /a/new", "451 TOO_BUSY", "again /a;"},
      {"", "SIZE /a/new", "213", "start;"},  // this storage does not say what it has asked for
      {"~/a/f !", "SIZE /a/f", "451 TOO_BUSY", "start;"},
      {"", "SIZE /a/new", "213", ""},
      {"!", "DELE /a/f", "451 TOO_BUSY", "start;"},
      {"", "SIZE /a/f", "213", "start;"},
  });
  EXPECT_EQ(script.destroyed, 2);
}

TEST_F(KnowledgeTest, TransfersAreRunAgainBeforeAByteHasFlowedOnly) {
  for (const bool late : {true, false}) {
    int sends = 0;
    script.send = [&](auto op, auto*) {
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      const bool refused = sends++ == 0;
      EXPECT_TRUE((!late && refused) || write_and_wait(op, "hello", 0));
      tarvex_gridftp_server_finished_transfer(op, refused ? not_found("/a/f") : tarvex_result_t{TARVEX_SUCCESS});
    };
    others_add("/a/f");
    asked.clear();
    EXPECT_EQ(fetch("RETR /a/f"), "hello");
    expect_reply(late ? "550" : "226");
    EXPECT_EQ(sends, late ? 1 : 2);
    EXPECT_EQ(asked, "again /a;") << "so that the client's next try finds what is there";
  }
}

}  // namespace
}  // namespace tarvex::server::test
