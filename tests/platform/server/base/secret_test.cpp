#include "base/secret.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tarvex::server {
namespace {

TEST(Secret, LeavesNothingWhereItCameFrom) {
  for (const std::size_t length : {5U, 100U}) {  // within the string itself, and beside it
    std::string typed(length, 'p');
    typed.resize(length - 1);  // the spare room holds the last byte
    const char* const place = typed.data();
    secret first(std::move(typed));
    EXPECT_EQ(first.text(), std::string(length - 1, 'p'));
    if (length == 5) {
      EXPECT_EQ(std::count(place, place + length, 'p'), 0) << "where it was typed";
    }

    secret second(std::move(first));
    EXPECT_EQ(second.text().size(), length - 1);
    const std::string& left = first.text();
    EXPECT_EQ(std::count(left.data(), left.data() + left.capacity(), 'p'), 0) << "where it was moved from";

    std::string used(length, 'p');
    const char* const bytes = used.data();
    wipe(used);
    EXPECT_TRUE(used.empty());
    EXPECT_EQ(std::count(bytes, bytes + used.capacity(), 'p'), 0);
  }
}

}  // namespace
}  // namespace tarvex::server
