// A caller that declares dbg_location with C linkage, as modules built against the library in
// the field do, links to the library's plain-named symbol and gets the same texts.
//
// This program deliberately does not include base/logging.h: its one declaration of the function
// is the C-linkage one below.
#include <gtest/gtest.h>

#include <string>

// A C-linkage function returning a std::string is what those callers declare; clang warns that C
// cannot call it, which is true and beside the point here.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
extern "C" std::string dbg_location(const char* file, int line, const char* function);
#ifdef __clang__
#pragma clang diagnostic pop
#endif

namespace {

TEST(DbgLocationCCallerTest, GetsTheTextsOfTheLibrary) {
  EXPECT_EQ(dbg_location("f.txt", 12, "g"), "f.txt:12:g():");
  EXPECT_EQ(dbg_location("f.txt", 12, nullptr), "f.txt:12:");
  EXPECT_EQ(dbg_location(nullptr, 12, "g"), "");
}

}  // namespace
