// CommandLine over real, writable argv arrays. Every test case runs in its own process, so
// getopt_long's global state starts fresh in each.
#include "base/utils/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "arguments.h"
#include "log_capture.h"

namespace {

using velmora::base::utils::CommandLine;
using velmora::testing::Arguments;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;

const char* const kHeader = "Usage: prog [options]\n";

const char* const kDefaultUsage =
    "-h or --help\n\t\t\tPrints this message\n"
    "-u# or --url=#\n\t\t\tSpecify the URL\n"
    "-s or --sw\n\t\t\tUse software backend\n"
    "-d or --hw-dfb\n\t\t\tUse DirectFB backend\n"
    "-g or --hw-gles\n\t\t\tUse OpenGL ES 2.0 backend\n"
    "-% or --quit-on-render-crash\n\t\t\tQuit integration on renderer crash\n"
    "-# or --disable-input\n\t\t\tDisable input passing of keyboard and mouse input to browser. "
    "Useful to avoid accidental breakage of test runs with input meant for the neighbouring "
    "device.\n";

// A regular expression matching exactly this text.
std::string literally(const std::string& text) {
  static const std::string kSpecial = "\\^$.|?*+()[]{}";
  std::string pattern;
  for (char c : text) {
    if (kSpecial.find(c) != std::string::npos) {
      pattern += '\\';
    }
    pattern += c;
  }
  return pattern;
}

// Whether text is before, a decimal line number, then after.
bool isLineWithNumber(const std::string& text, const std::string& before,
                      const std::string& after) {
  if (text.compare(0, before.size(), before) != 0) {
    return false;
  }
  size_t position = before.size();
  while (position < text.size() && isdigit(static_cast<unsigned char>(text[position]))) {
    ++position;
  }
  return position > before.size() && text.substr(position) == after;
}

// The log lines of this file at this level whose text ends, after the line number, in after.
int logLines(uint16_t level, const std::string& after) {
  int matching = 0;
  for (const auto& entry : LogCapture::entries()) {
    if (entry.level == level && isLineWithNumber(entry.text, "[B-LOG] command_line.cpp:", after)) {
      ++matching;
    }
  }
  return matching;
}

std::string clearLine(const std::string& text) {
  return ":clear_option(): clear  " + text + " done\n";
}

class CommandLineTest : public LogCaptureTest {};

TEST_F(CommandLineTest, ShortThenLongOptionAreBothReadAndBlanked) {
  Arguments args{"prog", "-s", "--url=start.html"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("url"));
  EXPECT_TRUE(line.HasOption("sw"));
  EXPECT_EQ(line.GetOptionValue("url"), "start.html");
  EXPECT_EQ(line.GetOptionValue("sw"), "");
  EXPECT_EQ(args.charAt(1, 0), '\0');
  EXPECT_EQ(args.charAt(2, 0), '\0');
  // The value inside "--url=start.html" is blanked too.
  EXPECT_EQ(args.charAt(2, 6), '\0');
  EXPECT_EQ(args.at(0), "prog");
  EXPECT_EQ(logLines(5000, clearLine("-s")), 1);
  EXPECT_EQ(logLines(5000, clearLine("--url")), 1);
}

TEST_F(CommandLineTest, AfterALongOptionAShortOneIsSearchedInItsLongFormAndStays) {
  Arguments args{"prog", "--url=start.html", "-s"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("url"));
  EXPECT_TRUE(line.HasOption("sw"));
  EXPECT_EQ(line.GetOptionValue("url"), "start.html");
  EXPECT_EQ(args.charAt(1, 0), '\0');
  EXPECT_EQ(args.at(2), "-s");
  EXPECT_EQ(logLines(5000, clearLine("--url")), 1);
  EXPECT_EQ(LogCapture::countContaining("clear  --sw done"), 0u);
  EXPECT_EQ(LogCapture::countContaining("clear  -s done"), 0u);
}

TEST(CommandLineDeathTest, ShortHelpPrintsHeaderAndUsageToStandardErrorAndExitsZero) {
  Arguments args{"prog", "-h"};
  CommandLine line(args.argc(), args.argv(), kHeader, "second text", true);
  EXPECT_EXIT(line.Parse(), ::testing::ExitedWithCode(0),
              "^" + literally(std::string(kHeader) + kDefaultUsage) + "$");
}

TEST(CommandLineDeathTest, LongHelpAlsoPrintsAndExitsZero) {
  Arguments args{"prog", "-s", "--help", "--url=x"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  EXPECT_EXIT(line.Parse(), ::testing::ExitedWithCode(0),
              "^" + literally(std::string(kHeader) + kDefaultUsage) + "$");
}

TEST(CommandLineDeathTest, UsageListsCallersOptionsWithValueMarksAndAliasesInOrder) {
  Arguments args{"prog", "--help"};
  CommandLine line(args.argc(), args.argv(), "H\n", "", false);
  line.AddOption("help", 'h', true, "Help", false, nullptr);
  line.AddOption("extra", 'x', true, "Extra value", true, {"more", "plus"});
  line.AddOption("verbose", 'v', true, "Talk more", false, "chatty");
  line.AddOption("quiet", 'q', false, "Talk less", false, nullptr);
  line.AddOption("level", 'l', false, "Level", true, "ignored");
  const std::string usage =
      "H\n"
      "-h or --help\n\t\t\tHelp\n"
      "-x# or --extra=# or --more=# or --plus=#\n\t\t\tExtra value\n"
      "-v or --verbose or --chatty\n\t\t\tTalk more\n"
      "-q\n\t\t\tTalk less\n"
      "-l#\n\t\t\tLevel\n";
  EXPECT_EXIT(line.Parse(), ::testing::ExitedWithCode(0), "^" + literally(usage) + "$");
}

TEST_F(CommandLineTest, UnknownLongOptionIsIgnoredSilentlyAndParsingContinues) {
  Arguments args{"prog", "-s", "--bogus", "-d"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("sw"));
  EXPECT_TRUE(line.HasOption("hw-dfb"));
  EXPECT_FALSE(line.HasOption("bogus"));
  EXPECT_EQ(args.at(2), "--bogus");
  EXPECT_EQ(LogCapture::countContaining("bogus"), 0u);
  EXPECT_EQ(LogCapture::entries().size(), 2u);  // the two blanking lines only
}

TEST_F(CommandLineTest, UnknownShortOptionAndMissingValueAreIgnoredSilently) {
  Arguments args{"prog", "-z", "-g", "-u"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("hw-gles"));
  EXPECT_FALSE(line.HasOption("url"));
  EXPECT_EQ(line.GetOptionValue("url"), "");
  EXPECT_EQ(args.at(1), "-z");
  EXPECT_EQ(args.at(3), "-u");
  EXPECT_EQ(LogCapture::entries().size(), 1u);
  EXPECT_EQ(logLines(5000, clearLine("-g")), 1);
}

TEST_F(CommandLineTest, DuplicateLetterIsLoggedAndTheNewOptionTakesTheLetterOver) {
  Arguments args{"prog", "-u", "file.bin"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.AddOption("upload", 'u', true, "Upload a file", true, nullptr);
  EXPECT_EQ(logLines(1000, ":AddOption(): Command line argument -u is already used for --url\n"),
            1);
  line.Parse();
  EXPECT_TRUE(line.HasOption("upload"));
  EXPECT_FALSE(line.HasOption("url"));
  EXPECT_EQ(line.GetOptionValue("upload"), "file.bin");
  // The separate value is blanked with the option.
  EXPECT_EQ(args.charAt(1, 0), '\0');
  EXPECT_EQ(args.charAt(2, 0), '\0');
}

TEST_F(CommandLineTest, DuplicateLetterKeepsTheOldLongOptionEntryWorking) {
  Arguments args{"prog", "--url=a.html"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.AddOption("upload", 'u', true, "Upload a file", true, nullptr);
  line.Parse();
  // "--url" still matches its table entry, whose letter now maps to "upload".
  EXPECT_TRUE(line.HasOption("upload"));
  EXPECT_EQ(line.GetOptionValue("upload"), "a.html");
  EXPECT_FALSE(line.HasOption("url"));
  // The text searched for is "--upload", which no argument contains.
  EXPECT_EQ(args.at(1), "--url=a.html");
}

TEST_F(CommandLineTest, UndeclaredOrAbsentOptionHasNoValue) {
  Arguments args{"prog", "-s"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_EQ(line.GetOptionValue("nothing-like-this"), "");
  EXPECT_EQ(line.GetOptionValue("url"), "");
  EXPECT_FALSE(line.HasOption("url"));
  EXPECT_FALSE(line.HasOption("nothing-like-this"));
}

TEST_F(CommandLineTest, AliasStoresUnderTheOptionsNameButIsNotBlanked) {
  Arguments args{"prog", "--more=7"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", false);
  line.AddOption("extra", 'x', true, "Extra value", true, {"more", "plus"});
  line.Parse();
  EXPECT_TRUE(line.HasOption("extra"));
  EXPECT_EQ(line.GetOptionValue("extra"), "7");
  EXPECT_FALSE(line.HasOption("more"));
  // The long form searched for is "--extra".
  EXPECT_EQ(args.at(1), "--more=7");
  EXPECT_EQ(LogCapture::countContaining("clear "), 0u);
}

TEST_F(CommandLineTest, CallersOptionWithSeparateValueAndFlagWithout) {
  Arguments args{"prog", "-x", "value", "-v"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", false);
  line.AddOption("extra", 'x', true, "Extra value", true, nullptr);
  line.AddOption("verbose", 'v', true, "Talk more", false, nullptr);
  line.Parse();
  EXPECT_EQ(line.GetOptionValue("extra"), "value");
  EXPECT_TRUE(line.HasOption("verbose"));
  EXPECT_EQ(line.GetOptionValue("verbose"), "");
  EXPECT_EQ(args.charAt(1, 0), '\0');
  EXPECT_EQ(args.charAt(2, 0), '\0');
  EXPECT_EQ(args.charAt(2, 1), 'a');
  EXPECT_EQ(args.charAt(3, 0), '\0');
}

TEST_F(CommandLineTest, OptionWithoutLongNameIsNotAcceptedInLongForm) {
  Arguments args{"prog", "--quiet", "-q"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", false);
  line.AddOption("quiet", 'q', false, "Talk less", false, nullptr);
  line.Parse();
  EXPECT_TRUE(line.HasOption("quiet"));
  // "--quiet" is unknown and ignored; "-q" is read, and blanking hits the first argument that
  // contains "-q", which is "--quiet".
  EXPECT_EQ(args.at(1), "");
  EXPECT_EQ(args.at(2), "-q");
  EXPECT_EQ(LogCapture::entries().size(), 1u);
}

TEST_F(CommandLineTest, RepeatedOptionKeepsTheLastValue) {
  Arguments args{"prog", "-u", "a", "-u", "b"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_EQ(line.GetOptionValue("url"), "b");
  for (size_t i = 1; i < 5; ++i) {
    EXPECT_EQ(args.charAt(i, 0), '\0') << i;
  }
  EXPECT_EQ(logLines(5000, clearLine("-u")), 2);
}

TEST_F(CommandLineTest, PercentAndHashLettersSelectTheirDefaultOptions) {
  Arguments args{"prog", "-%", "-#"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("quit-on-render-crash"));
  EXPECT_TRUE(line.HasOption("disable-input"));
  EXPECT_EQ(args.at(1), "");
  EXPECT_EQ(args.at(2), "");
}

TEST_F(CommandLineTest, EveryDefaultLongOptionIsRecognised) {
  Arguments args{
      "prog",  "--sw", "--hw-dfb", "--hw-gles", "--quit-on-render-crash", "--disable-input",
      "--url", "x"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  for (const char* name : {"sw", "hw-dfb", "hw-gles", "quit-on-render-crash", "disable-input"}) {
    EXPECT_TRUE(line.HasOption(name)) << name;
    EXPECT_EQ(line.GetOptionValue(name), "") << name;
  }
  EXPECT_EQ(line.GetOptionValue("url"), "x");
}

TEST_F(CommandLineTest, BlankingScansFromTheProgramName) {
  // The first argument containing "-s" is the program's own name, and it is the one blanked.
  Arguments args{"./my-sw-prog", "-s"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("sw"));
  EXPECT_EQ(args.charAt(0, 0), '\0');
  EXPECT_EQ(args.at(1), "-s");
}

TEST_F(CommandLineTest, NullNameIsIgnored) {
  Arguments args{"prog", "-n"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", false);
  line.AddOption(nullptr, 'n', true, "Nothing", false, nullptr);
  line.Parse();
  EXPECT_EQ(args.at(1), "-n");
  EXPECT_EQ(LogCapture::entries().size(), 0u);
}

TEST_F(CommandLineTest, WithoutDefaultsTheDefaultLettersAreUnknown) {
  Arguments args{"prog", "-s", "--url=x"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", false);
  line.Parse();
  EXPECT_FALSE(line.HasOption("sw"));
  EXPECT_FALSE(line.HasOption("url"));
  EXPECT_EQ(args.at(1), "-s");
  EXPECT_EQ(args.at(2), "--url=x");
}

TEST_F(CommandLineTest, SecondParseReturnsAtOnce) {
  Arguments args{"prog", "-s"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  const size_t lines = LogCapture::entries().size();
  line.Parse();
  EXPECT_EQ(LogCapture::entries().size(), lines);
  EXPECT_TRUE(line.HasOption("sw"));
}

TEST_F(CommandLineTest, ArgcAndArgvAreTheStoredValues) {
  Arguments args{"prog", "-s"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  EXPECT_EQ(line.argc(), 2);
  EXPECT_EQ(line.argv(), args.argv());
  line.Parse();
  EXPECT_EQ(line.argc(), 2);
  EXPECT_EQ(line.argv(), args.argv());
}

TEST_F(CommandLineTest, NonOptionArgumentsAreLeftAlone) {
  Arguments args{"prog", "page.html", "-s", "other"};
  CommandLine line(args.argc(), args.argv(), kHeader, "", true);
  line.Parse();
  EXPECT_TRUE(line.HasOption("sw"));
  EXPECT_EQ(line.argc(), 4);
  // getopt_long may reorder the pointers; the strings themselves keep their text.
  EXPECT_EQ(args.at(1), "page.html");
  EXPECT_EQ(args.at(2), "");
  EXPECT_EQ(args.at(3), "other");
}

}  // namespace
