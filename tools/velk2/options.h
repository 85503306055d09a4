// Option parsing shared by the commands, as GNU users expect it: "--name
// VALUE" or "--name=VALUE", "-x VALUE" or "-xVALUE" for the short forms,
// switches as "--name" (or "--name=yes|no"), "--" ending the options. Each
// command's options come from its row of the command table; anything else
// is a usage error.
#ifndef VELK2_TOOLS_VELK2_OPTIONS_H_
#define VELK2_TOOLS_VELK2_OPTIONS_H_

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "tools/velk2/commands.h"

namespace velk2::cli {

class Options {
 public:
  // The options of the command named |command| in the table.
  explicit Options(const char* command);
  explicit Options(std::span<const OptionSpec> specs) : specs_(specs) {}

  // Parse reads |args|; false with error() set on an unknown option, a missing
  // value, an option given twice, a switch given a value that is not yes or
  // no, or an operand when none are allowed.
  bool Parse(const Args& args, bool allow_positional = false);
  const std::string& error() const { return error_; }

  std::optional<std::string> Get(const std::string& name) const;
  // Every value of a repeated option, in the order given.
  std::vector<std::string> GetAll(const std::string& name) const;
  // Whether a valued option was given, or a switch is on.
  bool Has(const std::string& name) const { return values_.count(name) || on_.count(name); }
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  const OptionSpec* Find(const std::string& name) const;
  const OptionSpec* FindShort(char name) const;
  // Takes |spec| with its value: |inline_value| when given in the same
  // word, else the next argument.
  bool Take(const OptionSpec& spec, const std::string& shown,
            const std::optional<std::string>& inline_value, const Args& args, size_t* i);

  std::span<const OptionSpec> specs_;
  std::map<std::string, std::vector<std::string>> values_;
  std::set<std::string> on_;     // switches that are on
  std::set<std::string> given_;  // every option given, on or off
  std::vector<std::string> positional_;
  std::string error_;
};

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_OPTIONS_H_
