// Interposition of system calls in a test executable: the executable defines the call itself,
// fails it on demand and otherwise forwards to the next definition. Sanitizer runtimes intercept
// many of these calls, so their interceptor is preferred over the C library's own symbol.
//
// Test executables are built with hidden visibility, so an interposing definition must be
// exported explicitly (VELMORA_TEST_INTERPOSER) for calls made inside the library to reach it.
//
//   velmora::testing::Fault g_pipe_fault;
//   extern "C" VELMORA_TEST_INTERPOSER int pipe(int fds[2]) {
//     if (g_pipe_fault.shouldFail()) { errno = EMFILE; return -1; }
//     return VELMORA_REAL(pipe)(fds);
//   }
#ifndef VELMORA_TESTS_SUPPORT_INTERPOSE_H
#define VELMORA_TESTS_SUPPORT_INTERPOSE_H

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace velmora {
namespace testing {

// The definition of name that this executable's own definition hides.
template <typename Function>
Function nextDefinition(const char* name) {
  const std::string interceptor = std::string("__interceptor_") + name;
  void* symbol = dlsym(RTLD_DEFAULT, interceptor.c_str());
  if (symbol == nullptr) {
    symbol = dlsym(RTLD_NEXT, name);
  }
  if (symbol == nullptr) {
    fprintf(stderr, "interpose: no next definition of %s\n", name);
    abort();
  }
  return reinterpret_cast<Function>(symbol);
}

// A switch that makes an interposed call fail a given number of times, or always.
class Fault {
 public:
  // The next n calls fail.
  void failNext(int n = 1) { remaining_.store(n); }
  void failAlways() { remaining_.store(kAlways); }
  void off() { remaining_.store(0); }
  // True when this call is to fail; counts the failures made.
  bool shouldFail() {
    int left = remaining_.load();
    while (left != 0) {
      if (left == kAlways) {
        ++failures_;
        return true;
      }
      if (remaining_.compare_exchange_weak(left, left - 1)) {
        ++failures_;
        return true;
      }
    }
    return false;
  }
  int failures() const { return failures_.load(); }

 private:
  static constexpr int kAlways = -1;
  std::atomic<int> remaining_{0};
  std::atomic<int> failures_{0};
};

}  // namespace testing
}  // namespace velmora

// Makes an interposing definition visible to the whole process, the library included.
#define VELMORA_TEST_INTERPOSER __attribute__((visibility("default")))

// The hidden definition of a function, looked up once.
#define VELMORA_REAL(name)                                                           \
  ([]() {                                                                            \
    static auto real = ::velmora::testing::nextDefinition<decltype(&::name)>(#name); \
    return real;                                                                     \
  }())

#endif  // VELMORA_TESTS_SUPPORT_INTERPOSE_H
