// The command-line parser: declarations build getopt_long's tables and the usage text; Parse()
// reads the options, blanks them in argv and handles "help".
#include "base/utils/command_line.h"

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "base/logging.h"

namespace velmora {
namespace base {
namespace utils {

namespace {

constexpr const char* kHelpOption = "help";

// Blanks the first argument that contains text, and the value getopt_long points optarg to, so
// that neither shows in the process's argument list any more.
void clear_option(const std::string& text, int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (argv[i] == nullptr || strstr(argv[i], text.c_str()) == nullptr) {
      continue;
    }
    if (optarg != nullptr) {
      optarg[0] = '\0';
    }
    argv[i][0] = '\0';
    VELMORA_LOG(kLogVerbose, "clear  %s done\n", text.c_str());
    return;
  }
}

// The usage block of one option, e.g. "-u# or --url=#\n\t\t\tSpecify the URL\n".
std::string usageOf(const char* name, char letter, bool withLongName,
                    const std::string& description, bool takesValue,
                    const std::vector<const char*>& aliases) {
  const char* value_mark = takesValue ? "=#" : "";
  std::string usage = std::string("-") + letter + (takesValue ? "#" : "");
  if (withLongName) {
    usage += std::string(" or --") + name + value_mark;
    for (const char* alias : aliases) {
      if (alias != nullptr) {
        usage += std::string(" or --") + alias + value_mark;
      }
    }
  }
  return usage + "\n\t\t\t" + description + "\n";
}

}  // namespace

CommandLine::CommandLine(int argc, char** argv, const std::string& header,
                         const std::string& second, bool addDefaults)
    : parsed_(0), argc_(argc), argv_(argv), header_(header), second_(second) {
  if (addDefaults) {
    AddDefaultOptions();
  }
}

CommandLine::~CommandLine() = default;

void CommandLine::AddOption(const char* name, char letter, bool withLongName,
                            const std::string& description, bool takesValue,
                            const std::vector<const char*>& aliases) {
  if (name == nullptr) {
    return;
  }
  const auto used = short_to_long_.find(letter);
  if (used != short_to_long_.end()) {
    VELMORA_LOG(kLogError, "Command line argument -%c is already used for --%s\n", letter,
                used->second.c_str());
  }
  short_to_long_[letter] = name;
  short_options_ += letter;
  if (takesValue) {
    short_options_ += ':';
  }
  if (withLongName) {
    const int has_arg = takesValue ? required_argument : no_argument;
    long_options_.push_back({name, has_arg, nullptr, letter});
    for (const char* alias : aliases) {
      if (alias != nullptr) {
        long_options_.push_back({alias, has_arg, nullptr, letter});
      }
    }
  }
  usage_ += usageOf(name, letter, withLongName, description, takesValue, aliases);
}

void CommandLine::AddOption(const char* name, char letter, bool withLongName,
                            const std::string& description, bool takesValue, const char* alias) {
  std::vector<const char*> aliases;
  if (alias != nullptr) {
    aliases.push_back(alias);
  }
  AddOption(name, letter, withLongName, description, takesValue, aliases);
}

void CommandLine::AddDefaultOptions() {
  AddOption(kHelpOption, 'h', true, "Prints this message", false, nullptr);
  AddOption("url", 'u', true, "Specify the URL", true, nullptr);
  AddOption("sw", 's', true, "Use software backend", false, nullptr);
  AddOption("hw-dfb", 'd', true, "Use DirectFB backend", false, nullptr);
  AddOption("hw-gles", 'g', true, "Use OpenGL ES 2.0 backend", false, nullptr);
  AddOption("quit-on-render-crash", '%', true, "Quit integration on renderer crash", false,
            nullptr);
  AddOption("disable-input", '#', true,
            "Disable input passing of keyboard and mouse input to browser. Useful to avoid "
            "accidental breakage of test runs with input meant for the neighbouring device.",
            false, nullptr);
}

void CommandLine::Parse() {
  if (parsed_ != 0) {
    return;
  }
  long_options_.push_back({nullptr, 0, nullptr, 0});
  opterr = 0;
  // getopt_long writes index only when it matches a long option; it is never reset here.
  int index = 0;
  for (;;) {
    const int c = getopt_long(argc_, argv_, short_options_.c_str(), long_options_.data(), &index);
    if (c == -1) {
      break;
    }
    if (c != 0) {
      takeOption(c, index);
    }
  }
  parsed_ = 1;
  if (HasOption(kHelpOption)) {
    std::cerr << header_ << usage_ << std::flush;
    exit(0);
  }
}

void CommandLine::takeOption(int letter, int index) {
  const auto declared = short_to_long_.find(static_cast<char>(letter));
  if (declared == short_to_long_.end()) {
    return;
  }
  const std::string& name = declared->second;
  option_values_[name] = optarg != nullptr ? optarg : "";
  const std::string text = index > 0 ? "--" + name : std::string("-") + static_cast<char>(letter);
  clear_option(text, argc_, argv_);
}

bool CommandLine::HasOption(const std::string& name) const {
  return option_values_.count(name) != 0;
}

std::string CommandLine::GetOptionValue(const std::string& name) const {
  const auto found = option_values_.find(name);
  return found == option_values_.end() ? std::string() : found->second;
}

int CommandLine::argc() const {
  return argc_;
}

char** CommandLine::argv() const {
  return argv_;
}

}  // namespace utils
}  // namespace base
}  // namespace velmora
