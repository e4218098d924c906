#include "storage/store_fixture.h"

namespace tarvex::server::test {
namespace {

const std::string DENIED = "550 PERMISSION_DENIED\r\n";

class UploadOnlyTest : public StoreTest {
 protected:
  UploadOnlyTest() { add_to_account("permissions = \"upload-only\"\n"); }

  /// From now on something has the name "/new".
  void take_name() {
    const auto before = script.stat;
    script.stat = [before](auto op, tarvex_gfs_stat_info_t* info) {
      if (info->pathname == std::string("/new")) return answer_item(op, false, 3);
      before(op, info);
    };
  }
};

/// The storage deletes what it knows to be there: it must not be called then.
TEST_F(UploadOnlyTest, NothingGivesWayToWhatComesWhileTheDataDo) {
  for (const bool announced : {false, true}) {
    const auto stat = script.stat;
    log_in();
    loopback_socket data = passive();
    if (announced) {
      command("ALLO 5");
      // Behind the first look: of the operation's own.
      script.stat = [this, stat](auto op, tarvex_gfs_stat_info_t* info) {
        const bool first_look = info->pathname == std::string("/new");
        stat(op, info);
        if (first_look) take_name();
      };
      expect("STOR new", DENIED);
    } else {
      expect("STOR new", "150 ");
      take_name();
      data.write("hello");
      data.close();
      expect_reply(DENIED);
    }
    EXPECT_EQ(calls, 0);
    script.stat = stat;
    close_session();
  }
}

TEST_F(UploadOnlyTest, ABoxThatHasTheNameIsARefusalToo) {
  script.recv = [this](auto op, auto* info) {
    note(op, info);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    take_all(op, 100);
    tarvex_gridftp_server_finished_transfer(
        op, tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 553, "PATH_EXISTS", nullptr)));
  };
  log_in();
  expect_store("new", "hello", DENIED);
  expect_store("file", "hello", DENIED);
  expect_store("dir", "hello", DENIED);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace tarvex::server::test
