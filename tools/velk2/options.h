// Option parsing shared by the commands: "--name value" options and "--flag"
// switches, each known in advance; anything else is a usage error.
#ifndef VELK2_TOOLS_VELK2_OPTIONS_H_
#define VELK2_TOOLS_VELK2_OPTIONS_H_

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/velk2/commands.h"

namespace velk2::cli {

class Options {
 public:
  // |valued| are the options that take a value, |flags| those that do not.
  // |repeated| are valued options that may be given more than once.
  Options(std::set<std::string> valued, std::set<std::string> flags,
          std::set<std::string> repeated = {})
      : valued_(std::move(valued)), flags_(std::move(flags)), repeated_(std::move(repeated)) {}

  // Parse reads |args|; false with error() set on an unknown option, a missing
  // value, an option given twice or a stray argument (when none are allowed).
  bool Parse(const Args& args, bool allow_positional = false);
  const std::string& error() const { return error_; }

  std::optional<std::string> Get(const std::string& name) const;
  // Every value of a repeated option, in the order given.
  std::vector<std::string> GetAll(const std::string& name) const;
  bool Has(const std::string& name) const { return values_.count(name) || set_flags_.count(name); }
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  std::set<std::string> valued_;
  std::set<std::string> flags_;
  std::set<std::string> repeated_;
  std::map<std::string, std::vector<std::string>> repeated_values_;
  std::map<std::string, std::string> values_;
  std::set<std::string> set_flags_;
  std::vector<std::string> positional_;
  std::string error_;
};

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_OPTIONS_H_
