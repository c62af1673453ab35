// The command-line parser: declarations build getopt_long's tables and the usage text; Parse()
// reads the options, blanks them in argv and handles "help".
#include "base/utils/command_line.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

#include "base/logging.h"

namespace velmora {
namespace base {
namespace utils {

namespace {

constexpr const char* kHelpOption = "help";

// Blanks the first argument that contains text, and the value getopt_long points optarg to, so
// that neither shows in the process's argument list any more. Allocates nothing.
void clear_option(const char* text, int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (argv[i] == nullptr || strstr(argv[i], text) == nullptr) {
      continue;
    }
    if (optarg != nullptr) {
      optarg[0] = '\0';
    }
    argv[i][0] = '\0';
    VELMORA_LOG(kLogVerbose, "clear  %s done\n", text);
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

// Makes room for extra more entries, growing geometrically, so that the push_backs that follow
// cannot fail.
void reserveFor(std::vector<struct option>& options, size_t extra) {
  const size_t needed = options.size() + extra;
  if (needed > options.capacity()) {
    options.reserve(std::max(needed, 2 * options.capacity()));
  }
}

// The declarations, as saved before a group of declarations that must take effect together.
struct Declarations {
  std::map<char, std::string> shortToLong;
  std::string shortOptions;
  std::vector<struct option> longOptions;
  std::string usage;
};

// Everything Parse's option loop needs, allocated before getopt_long first runs, so that the loop
// itself allocates nothing.
struct ParseScratch {
  // The letter's long form "--name", searched for once a long option has been matched.
  std::map<char, std::string> longForms;
  // One node per long name, its value's capacity reserved for the longest argument: moved into
  // values the first time its option is given.
  std::map<std::string, std::string> spareValues;
  // The values given so far.
  std::map<std::string, std::string> values;
};

// The scratch for parsing argv with the options that shortToLong declares.
ParseScratch scratchFor(const std::map<char, std::string>& shortToLong, int argc,
                        char* const* argv) {
  size_t longest = 0;
  for (int i = 0; i < argc; ++i) {
    if (argv[i] != nullptr) {
      longest = std::max(longest, strlen(argv[i]));
    }
  }
  ParseScratch scratch;
  for (const auto& declared : shortToLong) {
    scratch.longForms.emplace(declared.first, "--" + declared.second);
    if (scratch.spareValues.count(declared.second) == 0) {
      scratch.spareValues.emplace(declared.second, std::string()).first->second.reserve(longest);
    }
  }
  return scratch;
}

// Stores the value of the option named name (the last one wins) without allocating.
void storeValue(ParseScratch& scratch, const std::string& name, const char* value) {
  auto stored = scratch.values.find(name);
  if (stored == scratch.values.end()) {
    stored = scratch.values.insert(scratch.spareValues.extract(name)).position;
  }
  stored->second.assign(value);
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
  // Everything that allocates comes first, the changes that cannot fail after it: a failed
  // allocation leaves the declarations as they were.
  std::string longName(name);
  const std::string block = usageOf(name, letter, withLongName, description, takesValue, aliases);
  usage_.reserve(usage_.size() + block.size());
  short_options_.reserve(short_options_.size() + 2);
  if (withLongName) {
    reserveFor(long_options_,
               1 + std::count_if(aliases.begin(), aliases.end(),
                                 [](const char* alias) { return alias != nullptr; }));
  }
  auto mapped = short_to_long_.find(letter);
  if (mapped != short_to_long_.end()) {
    VELMORA_LOG(kLogError, "Command line argument -%c is already used for --%s\n", letter,
                mapped->second.c_str());
  } else {
    mapped = short_to_long_.emplace(letter, std::string()).first;
  }

  mapped->second.swap(longName);
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
  usage_ += block;
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
  // The seven take effect together: if one fails, those before it are undone.
  Declarations saved{short_to_long_, short_options_, long_options_, usage_};
  try {
    declareDefaults();
  } catch (...) {
    short_to_long_.swap(saved.shortToLong);
    short_options_.swap(saved.shortOptions);
    long_options_.swap(saved.longOptions);
    usage_.swap(saved.usage);
    throw;
  }
}

void CommandLine::declareDefaults() {
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
  // All allocation happens here, before getopt_long first runs: a failed one leaves this object,
  // argv and getopt_long's state as they were, for a later call to parse them whole.
  ParseScratch scratch = scratchFor(short_to_long_, argc_, argv_);
  reserveFor(long_options_, 1);
  long_options_.push_back({nullptr, 0, nullptr, 0});
  opterr = 0;
  // getopt_long writes index only when it matches a long option; it is never reset here.
  int index = 0;
  for (;;) {
    const int c = getopt_long(argc_, argv_, short_options_.c_str(), long_options_.data(), &index);
    if (c == -1) {
      break;
    }
    const auto declared = c != 0 ? short_to_long_.find(static_cast<char>(c)) : short_to_long_.end();
    if (declared == short_to_long_.end()) {
      continue;
    }
    storeValue(scratch, declared->second, optarg != nullptr ? optarg : "");
    const char short_form[] = {'-', declared->first, '\0'};
    clear_option(index > 0 ? scratch.longForms.find(declared->first)->second.c_str() : short_form,
                 argc_, argv_);
  }
  option_values_.swap(scratch.values);
  parsed_ = 1;
  if (HasOption(kHelpOption)) {
    std::cerr << header_ << usage_ << std::flush;
    exit(0);
  }
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
