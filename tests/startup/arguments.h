// argv as a process gets it, for the CommandLine tests: writable strings and a terminating null
// pointer, which Parse() may blank and getopt_long may reorder.
#ifndef VELMORA_TESTS_STARTUP_ARGUMENTS_H
#define VELMORA_TESTS_STARTUP_ARGUMENTS_H

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace velmora {
namespace testing {

class Arguments {
 public:
  Arguments(std::initializer_list<const char*> arguments) {
    for (const char* argument : arguments) {
      storage_.emplace_back(argument, argument + strlen(argument) + 1);
    }
    for (auto& text : storage_) {
      pointers_.push_back(text.data());
    }
    pointers_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(storage_.size()); }
  char** argv() { return pointers_.data(); }
  // The string at position i (of the original order) as it now reads.
  std::string at(size_t i) const { return storage_[i].data(); }
  // The character at offset of the original string at position i.
  char charAt(size_t i, size_t offset) const { return storage_[i][offset]; }
  // The arguments as they now read, in argv's present order, each in brackets.
  std::string text() const {
    std::string text;
    for (const char* pointer : pointers_) {
      text += pointer != nullptr ? std::string("[") + pointer + "]" : "";
    }
    return text;
  }

 private:
  std::vector<std::vector<char>> storage_;
  std::vector<char*> pointers_;
};

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_STARTUP_ARGUMENTS_H
