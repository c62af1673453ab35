/// @file
/// The browser's command-line parser: declare options (the default set and any of the caller's
/// own), parse argc/argv once with getopt_long, then ask for what was given.
///
///     velmora::base::utils::CommandLine line(argc, argv, "Usage: browser [options]\n", "", true);
///     line.AddOption("proxy", 'p', true, "Use this proxy", true, nullptr);
///     line.Parse();  // "-h" / "--help" prints and ends the process
///     if (line.HasOption("url")) open(line.GetOptionValue("url"));
///
/// Every option has a letter; with withLongName it also has "--name" and any aliases. The usage
/// text is built from the declarations, in declaration order.
///
/// Deliberate behaviour, kept as it is:
/// - Parse() blanks each recognised option in argv (and the value that follows it), so that it no
///   longer shows in the process's argument list; argv must point to writable strings. The text
///   searched for is "-" and the letter until the first long option other than the first declared
///   one has been matched, and "--" and the long name from then on, because getopt_long's index
///   is never reset. So "prog -s --url=x" blanks both, while in "prog --url=x -s" the "-s" stays.
/// - A letter declared twice is logged and the new declaration takes the letter over.
/// - Recognised options are logged as `"clear  %s done\n"` (two blanks; the text found; level
///   5000, function name "clear_option") when blanked.
/// - Unknown options and missing values are ignored without a message (opterr is set to 0).
/// - "help" writes the header and the usage text to standard error and calls exit(0).
/// - getopt_long's global state is not reset: only one CommandLine per process can parse.
/// - Option names and aliases are kept as pointers: they must outlive the object. A null alias in
///   the list is skipped.
///
/// Single-threaded use at start-up: getopt_long's state, optarg and opterr are process-wide and
/// Parse() writes into argv. Nothing is returned or thrown on bad input.
///
/// Only an allocation failure throws (std::bad_alloc). It leaves the object as it was: a
/// declaration (AddOption, the seven of AddDefaultOptions together) takes effect whole or not at
/// all, and Parse() allocates all it needs before it first calls getopt_long, so that argv and
/// getopt_long's state are untouched too and a later Parse() parses everything.
#ifndef VELMORA_BASE_UTILS_COMMAND_LINE_H
#define VELMORA_BASE_UTILS_COMMAND_LINE_H

#include <getopt.h>

#include <map>
#include <string>
#include <vector>

#include "base/export.h"

namespace velmora {
namespace base {
namespace utils {

/// Declares, parses and answers for the process's options; see the file's description.
class VELMORA_BASE_EXPORT CommandLine {
 public:
  /// Stores the arguments and texts; header is printed before the usage text, second is kept but
  /// not read. addDefaults declares the default options at once.
  CommandLine(int argc, char** argv, const std::string& header, const std::string& second,
              bool addDefaults);
  /// argv is not touched.
  ~CommandLine();

  /// Not copyable.
  CommandLine(const CommandLine&) = delete;
  /// Not assignable.
  CommandLine& operator=(const CommandLine&) = delete;

  /// Declares an option: its long name (null is ignored), its letter, whether "--name" and the
  /// aliases are accepted, its usage description and whether it takes a value. Adds a usage
  /// block such as "-u# or --url=#", a line break with three tabs, the description and a line
  /// break. A letter already declared logs
  /// `"Command line argument -%c is already used for --%s\n"` (level 1000) and is taken over.
  /// Declarations after Parse() have no effect.
  void AddOption(const char* name, char letter, bool withLongName, const std::string& description,
                 bool takesValue, const std::vector<const char*>& aliases);
  /// The same with one alias, or none when alias is null.
  void AddOption(const char* name, char letter, bool withLongName, const std::string& description,
                 bool takesValue, const char* alias);
  /// Declares "help" (h), "url" (u, with value), "sw" (s), "hw-dfb" (d), "hw-gles" (g),
  /// "quit-on-render-crash" (%) and "disable-input" (#), in this order, each with its long
  /// name. The letters % and # are deliberate: a short form nobody types by accident.
  void AddDefaultOptions();
  /// Parses argv once; later calls return at once. Stores each recognised option's value (the
  /// last one for a repeated option) and blanks it in argv. When "help" was given, writes the
  /// header and the usage text to standard error and calls exit(0).
  void Parse();
  /// Whether the option with this long name was given.
  bool HasOption(const std::string& name) const;
  /// Its value ("" for an option without value), or "" when it was not given or not declared.
  std::string GetOptionValue(const std::string& name) const;
  /// The argument count given to the constructor.
  int argc() const;
  /// The argument vector given to the constructor (its strings blanked by Parse()).
  char** argv() const;

 private:
  // The seven AddOption calls of AddDefaultOptions (not exported).
  __attribute__((visibility("hidden"))) void declareDefaults();

  int parsed_;
  int argc_;
  char** argv_;
  std::map<std::string, std::string> option_values_;
  std::map<char, std::string> short_to_long_;
  std::string short_options_;
  std::vector<struct option> long_options_;
  std::string usage_;
  std::string header_;
  std::string second_;
};

}  // namespace utils
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_UTILS_COMMAND_LINE_H
