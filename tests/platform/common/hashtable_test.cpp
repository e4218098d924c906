#include "tarvex_common.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

void* key_of(const std::string& text) {
  return const_cast<char*>(text.c_str());
}

/// `tarvex_hashtable_string_hash`, one that always collides, and one that breaks its bound.
constexpr tarvex_hashtable_hash_func_t HASHES[] = {
    tarvex_hashtable_string_hash,
    [](void*, int) { return 0; },
    [](void* key, int limit) { return -5 - tarvex_hashtable_string_hash(key, limit); },
};

TEST(Hashtable, KeepsEveryEntryWhileItGrowsAndShrinks) {
  for (const auto hash : HASHES) {
    tarvex_hashtable_t table = nullptr;
    ASSERT_EQ(tarvex_hashtable_init(&table, 1, hash, tarvex_hashtable_string_keyeq), 0);
    std::vector<std::string> keys;
    for (int i = 0; i < 500; ++i) keys.push_back("/folder/" + std::to_string(i));
    for (auto& key : keys) ASSERT_EQ(tarvex_hashtable_insert(&table, key_of(key), &key), 0);
    EXPECT_EQ(tarvex_hashtable_insert(&table, key_of(std::string(keys[7])), nullptr), EEXIST);
    for (size_t i = 0; i < keys.size(); i += 2) ASSERT_EQ(tarvex_hashtable_remove(&table, key_of(keys[i])), &keys[i]);
    EXPECT_EQ(tarvex_hashtable_size(&table), keys.size() / 2);
    for (size_t i = 0; i < keys.size(); ++i) {
      EXPECT_EQ(tarvex_hashtable_lookup(&table, key_of(std::string(keys[i]))), i % 2 == 0 ? nullptr : &keys[i]);
    }
    tarvex_hashtable_destroy_all(&table, nullptr);
    EXPECT_EQ(table, nullptr);
  }
}

TEST(Hashtable, DestroyAllReleasesDataThatHoldTheirKeysOnce) {
  static int released;
  released = 0;
  tarvex_hashtable_t table = nullptr;
  ASSERT_EQ(tarvex_hashtable_init(&table, 3, HASHES[0], tarvex_hashtable_string_keyeq), 0);
  for (int i = 0; i < 100; ++i) {
    auto* datum = new std::string("/item/" + std::to_string(i));
    ASSERT_EQ(tarvex_hashtable_insert(&table, datum->data(), datum), 0);
  }
  tarvex_hashtable_destroy_all(&table, [](void* datum) {
    ++released;
    delete static_cast<std::string*>(datum);
  });
  EXPECT_EQ(released, 100);
}

TEST(Hashtable, WithoutStorageIsEmptyAndRefusesInsertions) {
  tarvex_hashtable_t table = nullptr;
  EXPECT_EQ(tarvex_hashtable_init(&table, 0, HASHES[0], tarvex_hashtable_string_keyeq), EINVAL);
  EXPECT_EQ(tarvex_hashtable_insert(&table, key_of("a"), &table), EINVAL);
  EXPECT_EQ(tarvex_hashtable_lookup(&table, key_of("a")), nullptr);
  tarvex_hashtable_destroy_all(&table, nullptr);
}

}  // namespace
