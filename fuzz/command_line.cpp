// CommandLine with the default options and, chosen by the input, a few of the caller's own
// (one with an alias, one without long name, one that takes the letter 'u' over). The argv is
// built from the input; getopt_long's optind is reset before every run.
//
// Structured runs use whole option names and values that cannot be taken for options, so that a
// model can follow the parse exactly: HasOption and GetOptionValue for every name, the argv bytes
// after the blanking (the first element holding "-<letter>" while getopt_long's index is 0,
// "--<name>" after the first long option), the "clear  %s done" lines in order, and the
// duplicate-letter line. Raw runs feed arbitrary arguments and check what must hold for any
// input: only declared names are reported, an absent option has the value "", and a second
// Parse changes nothing. No run ever asks for "help", which would end the process.
#include <getopt.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/utils/command_line.h"
#include "support/fuzz_check.h"
#include "support/log_sink.h"

namespace {

using velmora::base::utils::CommandLine;
using velmora::fuzzing::escaped;

struct Declared {
  const char* name;
  char letter;
  bool withLongName;
  bool takesValue;
  const char* alias;
};

// The default options in declaration order (their long-table positions are their indices).
const Declared kDefaults[] = {{"help", 'h', true, false, nullptr},
                              {"url", 'u', true, true, nullptr},
                              {"sw", 's', true, false, nullptr},
                              {"hw-dfb", 'd', true, false, nullptr},
                              {"hw-gles", 'g', true, false, nullptr},
                              {"quit-on-render-crash", '%', true, false, nullptr},
                              {"disable-input", '#', true, false, nullptr}};

const Declared kExtras[] = {{"extra", 'x', true, true, "extra-alias"},
                            {"short-only", 'o', false, false, nullptr},
                            {"uri", 'u', true, true, nullptr}};

// One entry of getopt_long's table as the parser builds it.
struct LongEntry {
  std::string name;
  bool takesValue;
  char letter;
};

struct Setup {
  std::vector<Declared> declared;  // every option in declaration order, defaults first
  std::vector<LongEntry> table;
  std::map<char, std::string> letterToName;
  std::vector<std::string> names;  // every declared long name
};

Setup makeSetup(unsigned extras) {
  Setup setup;
  for (const Declared& option : kDefaults) {
    setup.declared.push_back(option);
  }
  for (unsigned i = 0; i < 3; ++i) {
    if (extras & (1u << i)) {
      setup.declared.push_back(kExtras[i]);
    }
  }
  for (const Declared& option : setup.declared) {
    setup.letterToName[option.letter] = option.name;
    setup.names.push_back(option.name);
    if (option.withLongName) {
      setup.table.push_back({option.name, option.takesValue, option.letter});
      if (option.alias != nullptr) {
        setup.table.push_back({option.alias, option.takesValue, option.letter});
      }
    }
  }
  return setup;
}

// A value that getopt_long can never take for an option: no '-' at all.
std::string plainValue(FuzzedDataProvider& provider) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789./:_=#%";
  std::string value;
  const std::size_t length = provider.ConsumeIntegralInRange<std::size_t>(0, 6);
  for (std::size_t i = 0; i < length; ++i) {
    value += kAlphabet[provider.ConsumeIntegralInRange<std::size_t>(0, sizeof(kAlphabet) - 2)];
  }
  return value;
}

// A value inside an option's own argument, where a '-' does no harm.
std::string innerValue(FuzzedDataProvider& provider) {
  std::string value = plainValue(provider);
  if (provider.ConsumeBool() && !value.empty()) {
    value.insert(provider.ConsumeIntegralInRange<std::size_t>(0, value.size()), "-s");
  }
  return value;
}

// Structured arguments: whole long names, "-<letter>", values after '=' or glued to "-u", and
// separate values.
std::vector<std::string> structuredArguments(FuzzedDataProvider& provider, const Setup& setup) {
  std::vector<std::string> arguments;
  const std::size_t count = provider.ConsumeIntegralInRange<std::size_t>(0, 12);
  for (std::size_t i = 0; i < count; ++i) {
    if (provider.ConsumeIntegralInRange<int>(0, 9) == 0) {
      arguments.push_back(plainValue(provider));  // a non-option argument
      continue;
    }
    const Declared& option =
        setup.declared[provider.ConsumeIntegralInRange<std::size_t>(1, setup.declared.size() - 1)];
    const bool useLong = option.withLongName && provider.ConsumeBool();
    if (useLong) {
      const bool useAlias = option.alias != nullptr && provider.ConsumeBool();
      const std::string name = std::string("--") + (useAlias ? option.alias : option.name);
      if (!option.takesValue) {
        arguments.push_back(name);
      } else if (provider.ConsumeBool()) {
        arguments.push_back(name + "=" + innerValue(provider));
      } else {
        arguments.push_back(name);
        if (provider.ConsumeIntegralInRange<int>(0, 7) != 0) {  // sometimes missing at the end
          arguments.push_back(plainValue(provider));
        }
      }
    } else {
      const std::string flag = std::string("-") + option.letter;
      if (!option.takesValue) {
        arguments.push_back(flag);
      } else if (provider.ConsumeBool()) {
        arguments.push_back(flag + innerValue(provider) + "v");
      } else {
        arguments.push_back(flag);
        if (provider.ConsumeIntegralInRange<int>(0, 7) != 0) {
          arguments.push_back(plainValue(provider));
        }
      }
    }
  }
  return arguments;
}

// Arbitrary arguments, with every way of asking for "help" spelled differently.
std::vector<std::string> rawArguments(FuzzedDataProvider& provider) {
  std::vector<std::string> arguments;
  const std::size_t count = provider.ConsumeIntegralInRange<std::size_t>(0, 10);
  for (std::size_t i = 0; i < count; ++i) {
    std::string argument = provider.ConsumeRandomLengthString(16);
    argument = argument.substr(0, argument.find('\0'));
    if (argument.compare(0, 2, "--") == 0) {
      const std::string name = argument.substr(2, argument.find('=') - 2);
      if (!name.empty() && std::string("help").compare(0, name.size(), name) == 0) {
        argument[2] = 'H';
      }
    } else if (!argument.empty() && argument[0] == '-') {
      for (char& c : argument) {
        c = c == 'h' ? 'H' : c;
      }
    }
    arguments.push_back(argument);
  }
  return arguments;
}

// The model's view of the run: the argument bytes, values, blank texts and duplicate lines.
struct Expected {
  std::vector<std::vector<char>> bytes;
  std::map<std::string, std::string> values;
  std::vector<std::string> cleared;
  std::size_t duplicates = 0;
};

const LongEntry* findLong(const Setup& setup, const std::string& name, int& position) {
  for (std::size_t i = 0; i < setup.table.size(); ++i) {
    if (setup.table[i].name == name) {
      position = static_cast<int>(i);
      return &setup.table[i];
    }
  }
  return nullptr;
}

const Declared* findLetter(const Setup& setup, char letter) {
  const Declared* found = nullptr;
  for (const Declared& option : setup.declared) {
    if (option.letter == letter) {
      found = &option;  // the last declaration of a letter decides whether it takes a value
    }
  }
  return found;
}

// Follows getopt_long and the parser over the structured arguments.
Expected model(const Setup& setup, const std::vector<std::vector<char>>& start) {
  Expected e;
  e.bytes = start;
  std::map<char, int> seen;
  for (const Declared& option : setup.declared) {
    e.duplicates += seen[option.letter]++ > 0 ? 1 : 0;
  }
  const std::size_t argc = start.size();
  auto text = [&](std::size_t i) { return std::string(e.bytes[i].data()); };
  int index = 0;
  std::size_t i = 1;
  while (i < argc) {
    const std::string current = text(i);
    if (current.size() < 2 || current[0] != '-') {
      ++i;  // a non-option argument (blanked options included)
      continue;
    }
    char letter = 0;
    bool takesValue = false;
    long valueElement = -1;
    std::size_t valueOffset = 0;
    if (current[1] == '-') {
      const std::size_t equals = current.find('=');
      int position = 0;
      const LongEntry* entry = findLong(setup, current.substr(2, equals - 2), position);
      index = position;
      letter = entry->letter;
      takesValue = entry->takesValue;
      if (takesValue && equals != std::string::npos) {
        valueElement = static_cast<long>(i);
        valueOffset = equals + 1;
      }
    } else {
      letter = current[1];
      takesValue = findLetter(setup, letter)->takesValue;
      if (takesValue && current.size() > 2) {
        valueElement = static_cast<long>(i);
        valueOffset = 2;
      }
    }
    ++i;
    if (takesValue && valueElement < 0) {
      if (i >= argc) {
        break;  // missing value: getopt_long reports '?', which is ignored
      }
      valueElement = static_cast<long>(i++);
    }
    const std::string& name = setup.letterToName.at(letter);
    e.values[name] =
        valueElement < 0 ? std::string() : std::string(&e.bytes[valueElement][valueOffset]);
    const std::string search = index > 0 ? "--" + name : std::string("-") + letter;
    for (std::size_t k = 0; k < argc; ++k) {
      if (strstr(e.bytes[k].data(), search.c_str()) != nullptr) {
        if (valueElement >= 0) {
          e.bytes[valueElement][valueOffset] = '\0';
        }
        e.bytes[k][0] = '\0';
        e.cleared.push_back(search);
        break;
      }
    }
  }
  return e;
}

std::string showArguments(const std::vector<std::vector<char>>& bytes) {
  std::string text;
  for (const std::vector<char>& element : bytes) {
    text += "\"" + escaped(std::string(element.begin(), element.end() - 1)) + "\" ";
  }
  return text;
}

void declare(CommandLine& line, const Setup& setup) {
  for (std::size_t i = sizeof(kDefaults) / sizeof(kDefaults[0]); i < setup.declared.size(); ++i) {
    const Declared& option = setup.declared[i];
    line.AddOption(option.name, option.letter, option.withLongName, "fuzzed option",
                   option.takesValue, option.alias);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const bool structured = provider.ConsumeBool();
  const Setup setup = makeSetup(provider.ConsumeIntegralInRange<unsigned>(0, 7));
  std::vector<std::string> arguments = {"prog"};
  const std::vector<std::string> rest =
      structured ? structuredArguments(provider, setup) : rawArguments(provider);
  arguments.insert(arguments.end(), rest.begin(), rest.end());

  std::vector<std::vector<char>> bytes;
  for (const std::string& argument : arguments) {
    bytes.emplace_back(argument.begin(), argument.end());
    bytes.back().push_back('\0');
  }
  const std::vector<std::vector<char>> start = bytes;
  std::vector<char*> argv;
  for (std::vector<char>& element : bytes) {
    argv.push_back(element.data());
  }
  argv.push_back(nullptr);
  const int argc = static_cast<int>(arguments.size());

  optind = 0;  // a fresh getopt_long scan for every run
  velmora::fuzzing::clearLog();
  CommandLine line(argc, argv.data(), "header\n", "second", true);
  declare(line, setup);
  line.Parse();
  const std::string detail = "arguments " + showArguments(start) + "gave " + showArguments(bytes);

  FUZZ_CHECK(line.argc() == argc && line.argv() == argv.data(), detail + " (argc/argv kept)");
  std::map<std::string, std::string> values;
  for (const std::string& name : setup.names) {
    if (line.HasOption(name)) {
      values[name] = line.GetOptionValue(name);
    } else {
      FUZZ_CHECK(line.GetOptionValue(name).empty(), detail + " (absent " + name + " has \"\")");
    }
  }
  FUZZ_CHECK(!line.HasOption("help"), detail + " (help never given)");
  FUZZ_CHECK(!line.HasOption("not-declared") && line.GetOptionValue("not-declared").empty(),
             detail + " (undeclared option)");

  if (structured) {
    const Expected expected = model(setup, start);
    FUZZ_CHECK(values == expected.values, detail + " (option values)");
    FUZZ_CHECK(bytes == expected.bytes,
               detail + " (blanking), expected " + showArguments(expected.bytes));
    std::vector<std::string> cleared;
    std::size_t duplicates = 0;
    for (const velmora::fuzzing::LogLine& logged : velmora::fuzzing::loggedLines()) {
      const std::size_t at = logged.text.find("clear  ");
      if (logged.level == 5000 && at != std::string::npos) {
        const std::size_t end = logged.text.rfind(" done\n");
        cleared.push_back(logged.text.substr(at + 7, end - at - 7));
      } else if (logged.level == 1000 &&
                 logged.text.find("Command line argument -u is already used for --url\n") !=
                     std::string::npos) {
        ++duplicates;
      }
    }
    FUZZ_CHECK(cleared == expected.cleared, detail + " (\"clear  %s done\" lines)");
    FUZZ_CHECK(duplicates == expected.duplicates, detail + " (duplicate-letter line)");
  }

  const std::vector<std::vector<char>> afterFirst = bytes;
  line.Parse();
  FUZZ_CHECK(bytes == afterFirst, detail + " (a second Parse changes nothing)");
  for (const std::string& name : setup.names) {
    FUZZ_CHECK(line.HasOption(name) == (values.count(name) != 0) &&
                   line.GetOptionValue(name) == (values.count(name) ? values[name] : ""),
               detail + " (a second Parse keeps " + name + ")");
  }
  return 0;
}
