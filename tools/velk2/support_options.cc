#include "tools/velk2/options.h"
#include "tools/velk2/support.h"

namespace velk2::cli {

bool Options::Parse(const Args& args, bool allow_positional) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a.rfind("--", 0) != 0 || a == "--") {
      if (!allow_positional) {
        error_ = "unexpected argument '" + a + "'";
        return false;
      }
      positional_.push_back(a);
      continue;
    }
    std::string name = a.substr(2);
    std::optional<std::string> inline_value;
    if (size_t eq = name.find('='); eq != std::string::npos) {
      inline_value = name.substr(eq + 1);
      name.resize(eq);
    }
    const bool repeated = repeated_.count(name) != 0;
    if (!repeated && Has(name)) {
      error_ = "--" + name + " given twice";
      return false;
    }
    if (flags_.count(name) && !inline_value) {
      set_flags_.insert(name);
    } else if (repeated || valued_.count(name)) {
      if (!inline_value && i + 1 >= args.size()) {
        error_ = "--" + name + " needs a value";
        return false;
      }
      std::string value = inline_value ? *inline_value : args[++i];
      if (repeated) {
        repeated_values_[name].push_back(std::move(value));
      } else {
        values_[name] = std::move(value);
      }
    } else {
      error_ = "unknown option '--" + name + "'";
      return false;
    }
  }
  return true;
}

std::optional<std::string> Options::Get(const std::string& name) const {
  auto it = values_.find(name);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

std::vector<std::string> Options::GetAll(const std::string& name) const {
  auto it = repeated_values_.find(name);
  return it == repeated_values_.end() ? std::vector<std::string>() : it->second;
}

}  // namespace velk2::cli
