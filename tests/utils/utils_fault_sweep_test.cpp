// The free string, number and path helpers under allocation failure: each one that allocates
// either completes with its normal result or throws std::bad_alloc with the caller's strings and
// vectors as they were; rmDir closes every directory stream it opened and a repeat removes the
// rest; the others allocate nothing.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "atomic_sweep.h"
#include "base/utils.h"
#include "log_capture.h"

namespace {

using namespace velmora::base;
using velmora::testing::completesOrKeepsState;
using velmora::testing::FaultRun;
using velmora::testing::noState;
using velmora::testing::ScratchFolder;
using velmora::testing::sweepAllocations;
using velmora::testing::sweepAllocationsOf;

using Texts = std::vector<std::string>;

// Longer than any string kept inside the string object itself, so that copies allocate.
const std::string kLongText = "a text too long to be kept without an allocation";

std::string joined(const Texts& texts) {
  std::string text;
  for (const std::string& piece : texts) {
    text += "[" + piece + "]";
  }
  return text;
}

TEST(UtilsFaultSweep, ToLowerCase) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              const std::string text = "A Mixed-Case TEXT that needs an Allocation";
              EXPECT_EQ("a mixed-case text that needs an allocation",
                        completesOrKeepsState(run, noState, [&] { return toLowerCase(text); }));
            }),
            0);
}

TEST(UtilsFaultSweep, GenerateUuid) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              const std::string uuid = completesOrKeepsState(run, noState, generateUUID);
              ASSERT_EQ(36u, uuid.size());
              for (size_t i = 0; i < uuid.size(); ++i) {
                const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
                EXPECT_TRUE(dash ? uuid[i] == '-' : isxdigit(uuid[i]) && !islower(uuid[i])) << uuid;
              }
            }),
            0);
}

TEST(UtilsFaultSweep, ExactIniKeyValue) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              const std::string line =
                  "  a key long enough to allocate = a value long enough to allocate # note";
              std::string key = kLongText;
              std::string value = "old value";
              const bool found = completesOrKeepsState(
                  run, [&] { return key + "|" + value; },
                  [&] { return exactIniKeyValue(line, key, value); });
              EXPECT_TRUE(found);
              EXPECT_EQ("a key long enough to allocate", key);
              EXPECT_EQ("a value long enough to allocate", value);
            }),
            0);
}

// convert2HexStr appending to an out one character short of what it holds without allocating:
// the digits after the first need the allocation.
template <typename T>
long sweepHexAppend(const char* name, T value, const std::string& digits) {
  return sweepAllocationsOf(name, [&](FaultRun& run) {
    std::string out = "fourteen chars";
    const int result = completesOrKeepsState(
        run, [&] { return out; }, [&] { return convert2HexStr(value, out, true); });
    EXPECT_EQ(0, result);
    EXPECT_EQ("fourteen chars" + digits, out);
  });
}

TEST(UtilsFaultSweep, Convert2HexStrAppending) {
  EXPECT_GT(sweepHexAppend("char", static_cast<char>(-1), "FF"), 0);
  EXPECT_GT(sweepHexAppend("unsigned char", static_cast<unsigned char>(0xAB), "AB"), 0);
  EXPECT_GT(sweepHexAppend("int", -2, "FFFFFFFE"), 0);
  EXPECT_GT(sweepHexAppend("unsigned int", 0x1234u, "1234"), 0);
  EXPECT_GT(sweepHexAppend("long", 0x7FL, "7F"), 0);
  EXPECT_GT(sweepHexAppend("unsigned long", 0xABCDEFUL, "ABCDEF"), 0);
}

TEST(UtilsFaultSweep, StrSplit) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              const std::string text = "first piece long enough,,second piece long enough,x";
              const Texts pieces =
                  completesOrKeepsState(run, noState, [&] { return strSplit(text, ","); });
              EXPECT_EQ("[first piece long enough][second piece long enough][x]", joined(pieces));
            }),
            0);
}

TEST(UtilsFaultSweep, SeparateStr) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              const std::string text = "a field long enough to allocate,,b,";
              Texts out = {kLongText, "kept"};
              const int result = completesOrKeepsState(
                  run, [&] { return joined(out); }, [&] { return separateStr(text, ",", out); });
              EXPECT_EQ(0, result);
              EXPECT_EQ("[" + kLongText + "][kept][a field long enough to allocate][][b][]",
                        joined(out));
            }),
            0);
}

// A tree of folders and regular files, two levels deep, with names long enough to allocate.
void makeTree(const std::string& root) {
  const std::string deeper = root + "/a folder with a long name/another folder below it";
  ASSERT_EQ(0, mkdir(root.c_str(), 0700));
  ASSERT_EQ(0, mkdir((root + "/a folder with a long name").c_str(), 0700));
  ASSERT_EQ(0, mkdir(deeper.c_str(), 0700));
  for (const std::string& file : {root + "/first file", deeper + "/second file"}) {
    FILE* stream = fopen(file.c_str(), "w");
    ASSERT_NE(nullptr, stream);
    fclose(stream);
  }
}

TEST(UtilsFaultSweep, RmDirRemovesTheRestWhenRepeated) {
  EXPECT_GT(sweepAllocations([](FaultRun& run) {
              ScratchFolder folder;
              const std::string root = folder / "tree";
              makeTree(root);
              int result = -9;
              const bool threw = run.throws<std::bad_alloc>([&] { result = rmDir(root.c_str()); });
              EXPECT_EQ(threw, run.injected());
              if (threw) {
                EXPECT_EQ(0, access(root.c_str(), F_OK)) << "the folder went, yet it threw";
                result = rmDir(root.c_str());
              }
              EXPECT_EQ(0, result);
              EXPECT_NE(0, access(root.c_str(), F_OK));
            }),
            0);
}

// One helper that must not allocate, run armed, with its result checked.
struct QuietHelper {
  const char* name;
  std::function<void(FaultRun&)> check;
};

// Runs parse armed on text and expects it to succeed with expected.
template <typename Out>
QuietHelper parsing(const char* name, int (*parse)(const std::string&, Out&), Out expected) {
  return {name, [parse, expected](FaultRun& run) {
            const std::string text = "-12abc";
            Out out{};
            int result = -1;
            run.armed([&] { result = parse(text, out); });
            EXPECT_EQ(0, result);
            EXPECT_EQ(expected, out);
          }};
}

// Runs trimmer armed on text and expects expected.
QuietHelper trimming(const char* name, std::function<void(std::string&)> trimmer,
                     std::string expected) {
  return {name, [trimmer, expected](FaultRun& run) {
            std::string text = " \t a text long enough to allocate, trimmed \r\n";
            run.armed([&] { trimmer(text); });
            EXPECT_EQ(expected, text);
          }};
}

TEST(UtilsFaultSweep, ParsersTrimsAndChecksAllocateNothing) {
  const std::string trimmed = "a text long enough to allocate, trimmed";
  const std::vector<QuietHelper> helpers = {
      parsing<int>("dstoi", dstoi, -12),
      parsing<long>("dstol", dstol, -12L),
      parsing<long long>("dstoll", dstoll, -12LL),
      parsing<unsigned int>("dstoui", dstoui, 4294967284u),
      parsing<unsigned long>("dstoul", dstoul, static_cast<unsigned long>(-12L)),
      parsing<unsigned long long>("dstoull", dstoull, 18446744073709551604ULL),
      {"strToInt and strToReal",
       [](FaultRun& run) {
         const std::string hex = "0x1A";
         const std::string real = "2.5e3 and more";
         const std::string bad = "zz";
         long long number = 0;
         double value = 0;
         long long fallback = 0;
         run.armed([&] {
           number = strToInt(hex, 16, -1);
           value = strToReal(real, -1.0);
           fallback = strToInt(bad, 10, 7);
         });
         EXPECT_EQ(26, number);
         EXPECT_EQ(2500.0, value);
         EXPECT_EQ(7, fallback);
       }},
      trimming(
          "ltrim", [](std::string& s) { ltrim(s); }, trimmed + " \r\n"),
      trimming(
          "rtrim", [](std::string& s) { rtrim(s); }, " \t " + trimmed),
      trimming(
          "trim", [](std::string& s) { trim(s); }, trimmed),
      trimming(
          "ltrim and rtrim with a set",
          [](std::string& s) {
            const std::string set = " \t\r\n";
            rtrim(ltrim(s, set), set);
          },
          trimmed),
      {"hasSuffix and isPathExists",
       [](FaultRun& run) {
         const std::string path = "a/folder/with/a/file.json";
         const std::string suffix = ".json";
         bool suffixed = false;
         bool exists = false;
         bool missing = true;
         run.armed([&] {
           suffixed = hasSuffix(path, suffix);
           exists = isPathExists("/");
           missing = isPathExists("/a/path/that/is/not/there");
         });
         EXPECT_TRUE(suffixed);
         EXPECT_TRUE(exists);
         EXPECT_FALSE(missing);
       }},
      {"convert2HexStr replacing and currentThread",
       [](FaultRun& run) {
         std::string out = kLongText;
         int thread = 0;
         run.armed([&] {
           convert2HexStr(10, out, false);
           thread = currentThread();
         });
         EXPECT_EQ("a", out);
         EXPECT_EQ(getpid(), thread);
       }},
      {"exactIniKeyValue without '='",
       [](FaultRun& run) {
         const std::string line = "a line without any key and value in it";
         std::string key = "k";
         std::string value = "v";
         bool found = true;
         run.armed([&] { found = exactIniKeyValue(line, key, value); });
         EXPECT_FALSE(found);
         EXPECT_EQ("k|v", key + "|" + value);
       }},
      {"separateStr without delimiter",
       [](FaultRun& run) {
         const std::string text = "no delimiter in this text at all";
         Texts out = {"kept"};
         int result = 0;
         run.armed([&] { result = separateStr(text, ",", out); });
         EXPECT_EQ(-1, result);
         EXPECT_EQ("[kept]", joined(out));
       }},
  };
  for (const QuietHelper& helper : helpers) {
    EXPECT_EQ(0, sweepAllocationsOf(helper.name, helper.check)) << helper.name;
  }
}

}  // namespace
