// A caller that declares dbg_location as a C++ function links to the library's mangled symbol,
// and that symbol and the plain one are one and the same function.
//
// This program deliberately does not include base/logging.h: its one declaration of the function
// is the C++ one below, as a module built against the library in the field has it.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <string>

std::string dbg_location(const char* file, int line, const char* function);

namespace {

// The Itanium C++ ABI name of std::string dbg_location(const char*, int, const char*), the same
// on every target the library is built for.
constexpr char kMangledName[] = "_Z12dbg_locationB5cxx11PKciS0_";

TEST(DbgLocationCppCallerTest, GetsTheTextOfTheLibrary) {
  EXPECT_EQ(dbg_location("f.txt", 12, "g"), "f.txt:12:g():");
}

TEST(DbgLocationCppCallerTest, PlainAndMangledNamesAreOneDefinition) {
  void* mangled = dlsym(RTLD_DEFAULT, kMangledName);
  void* plain = dlsym(RTLD_DEFAULT, "dbg_location");
  ASSERT_NE(mangled, nullptr);
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(mangled, plain);
}

}  // namespace
