#include "tarvex_common.h"

#include <gtest/gtest.h>
#include <cstdlib>
#include <memory>
#include <string>

extern "C" int c_face_error_round_trip(void);
extern "C" int c_face_uuid_is_version_4(void);

namespace {

TEST(CFace, WorksFromC) {
  EXPECT_TRUE(c_face_error_round_trip());
  EXPECT_TRUE(c_face_uuid_is_version_4());
}

TEST(String, FormatsTextOfAnyLength) {
  const std::string piece(100000, 'x');
  const std::unique_ptr<char, decltype(&std::free)> text(tarvex_common_create_string("%s-%d-%s", piece.c_str(), -1, ""),
                                                         std::free);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text.get(), piece + "--1-");
}

}  // namespace
