#include "results.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

extern "C" int c_face_error_round_trip(void);
extern "C" int c_face_uuids_differ(void);

namespace {

tarvex_object_t* make_error(int type, const char* message, tarvex_object_t* cause = nullptr) {
  return tarvex_error_construct_error(&tarvex_i_common_module, cause, type, "file.c", "func", 7, "%s", message);
}

/// The printed chain of a result or an error that lives on.
std::string print(tarvex_object_t* error) {
  return tarvex::c_string(tarvex_error_print_chain(error)).get();
}
std::string print(tarvex_result_t result) {
  return print(tarvex_error_peek(result));
}

/// An error type of a module's own, whose instance data is a counted string.
int strings_alive = 0;
bool copies_fail = false;

void* new_string(const char* text) {
  ++strings_alive;
  return strdup(text);
}

const tarvex_object_type_t STRING_ERROR_TYPE = {
    .parent_type = &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    .copy_func =
        [](void* source, void** copy) {
          if (!copies_fail) *copy = new_string(static_cast<const char*>(source));
        },
    .destructor =
        [](void* data) {
          --strings_alive;
          std::free(data);
        },
    .class_data = reinterpret_cast<void*>(+[](tarvex_object_t* error) {
      return strdup(static_cast<const char*>(tarvex_object_get_instance_data(error)));
    }),
};
const tarvex_object_type_t SILENT_ERROR_TYPE = {&STRING_ERROR_TYPE, nullptr, nullptr, nullptr};

tarvex_object_t* make_string_error(const char* text, tarvex_object_t* cause = nullptr) {
  tarvex_object_t* error = tarvex_object_construct(&STRING_ERROR_TYPE);
  tarvex_object_set_instance_data(error, new_string(text));
  tarvex_error_set_cause(error, cause);
  return error;
}

TEST(Result, SpecialValuesHaveFixedErrors) {
  EXPECT_EQ(tarvex_error_peek(TARVEX_SUCCESS), nullptr);
  EXPECT_EQ(print(TARVEX_FAILURE), "Operation failed.");
  EXPECT_EQ(print(tarvex_result_t{0x00123456}), "Operation failed.") << "never given out";
  const tarvex_result_t out_of_memory = tarvex_error_put(nullptr);
  EXPECT_NE(out_of_memory, uint32_t{TARVEX_SUCCESS});
  for (const tarvex_result_t result : {TARVEX_FAILURE, out_of_memory, tarvex_result_t{TARVEX_SUCCESS}}) {
    tarvex_object_t* error = tarvex_error_get(result);
    tarvex_error_set_cause(error, make_error(1, "refused"));
    tarvex_object_free(error);
    tarvex_result_release(result);
  }
  EXPECT_EQ(print(out_of_memory), "Out of memory.") << "still there, and unchanged";
}

TEST(Result, StaleHandlesAreRecognisedWhileSlotsAreReused) {
  const tarvex_result_t stale = failure("gone");
  tarvex_result_release(stale);
  const size_t in_use = mallinfo2().uordblks;
  for (int i = 0; i < 200000; ++i) {
    const tarvex::owned_result result(failure("other"));
    ASSERT_TRUE(result.get() != stale && result.get() != TARVEX_FAILURE);
  }
  EXPECT_LT(mallinfo2().uordblks, in_use + 4096);
  tarvex_result_release(stale);
  tarvex_object_free(tarvex_error_get(stale));
  EXPECT_EQ(print(stale), "Operation failed.");
}

TEST(Result, FullTableFallsBackToTheOutOfMemoryError) {
  const tarvex::object_ptr error(make_error(3, "one of many"));
  std::vector<tarvex_result_t> results;
  do {
    tarvex_object_reference(error.get());
    results.push_back(tarvex_error_put(error.get()));
    ASSERT_TRUE(results.back() != TARVEX_FAILURE && results.back() != uint32_t{TARVEX_SUCCESS});
  } while (tarvex_error_peek(results.back()) == error.get() && results.size() < 1u << 24);
  EXPECT_EQ(print(results.back()), "Out of memory.");
  for (const auto result : results) tarvex_result_release(result);
  EXPECT_EQ(print(results.front()), "Operation failed.");
}

TEST(Result, ThreadsDoNotMixTheirErrors) {
  std::atomic<int> mistakes = 0;
  std::vector<std::jthread> threads;
  for (int id = 1; id <= 4; ++id) {
    threads.emplace_back([id, &mistakes] {
      for (int round = 0; round < 200; ++round) {
        std::vector<tarvex::owned_result> results;
        for (int i = 0; i < 20; ++i) results.emplace_back(failure("x", id));
        for (const auto& result : results) mistakes += tarvex_error_get_type(tarvex_error_peek(result.get())) != id;
      }
    });
  }
  threads.clear();
  EXPECT_EQ(mistakes, 0);
}

TEST(Error, ChainPrintsOutermostFirstWithoutEmptyLines) {
  tarvex_object_t* silent = tarvex_object_construct(&SILENT_ERROR_TYPE);
  tarvex_error_set_cause(silent, make_error(1, "disk\nfull"));
  const std::pair<tarvex_object_t*, const char*> rows[] = {
      {nullptr, ""},
      {make_error(1, "alone"), "alone"},
      {make_string_error("outer", make_error(1, "middle", make_error(2, "inner"))), "outer\nmiddle\ninner"},
      {make_string_error("top", make_error(1, "", silent)), "top\ndisk\nfull"},
  };
  for (const auto& [error, chain] : rows) {
    EXPECT_EQ(print(error), chain);
    tarvex_object_free(error);
  }
  EXPECT_EQ(strings_alive, 0);
}

TEST(Error, CauseIsReplacedAndReleased) {
  tarvex_object_t* error = make_string_error("outer", make_string_error("first"));
  tarvex_object_t* second = make_string_error("second");
  tarvex_error_set_cause(error, second);
  EXPECT_EQ(strings_alive, 2);
  EXPECT_EQ(tarvex_error_get_cause(error), second);
  tarvex_object_reference(error);
  tarvex_error_set_cause(second, error);
  EXPECT_EQ(tarvex_error_get_cause(second), nullptr) << "a ring would never end";
  tarvex_object_reference(second);
  tarvex_object_free(error);
  EXPECT_EQ(strings_alive, 1) << "the second reference keeps the cause";
  tarvex_object_free(second);
  EXPECT_EQ(strings_alive, 0);
}

TEST(Object, CopiesAreIndependentAndFailWhole) {
  tarvex_object_t* source = make_error(4, "top", make_string_error("below"));
  tarvex::object_ptr copy(tarvex_object_copy(source));
  copies_fail = true;
  EXPECT_EQ(tarvex_object_copy(source), nullptr) << "the cause could not be copied";
  copies_fail = false;
  tarvex_object_free(source);
  EXPECT_EQ(print(copy.get()), "top\nbelow");
  EXPECT_EQ(tarvex_error_get_type(copy.get()), 4);
  copy.reset();
  EXPECT_EQ(strings_alive, 0);
}

TEST(Object, LongChainsDoNotExhaustTheStack) {
  tarvex_object_t* chain = nullptr;
  for (int i = 0; i < 300000; ++i) chain = make_error(i, "x", chain);
  tarvex_object_free(tarvex_object_copy(chain));
  tarvex_object_free(chain);
}

TEST(CFace, WorksFromC) {
  EXPECT_TRUE(c_face_error_round_trip());
  EXPECT_TRUE(c_face_uuids_differ());
}

}  // namespace
