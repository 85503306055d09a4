#include "tools/velk2/options.h"

#include "platform/utf.h"
#include "tools/velk2/support.h"

namespace velk2::cli {

Options::Options(const char* command) {
  if (const Command* found = FindCommandNamed(command)) specs_ = found->options;
}

const OptionSpec* Options::Find(const std::string& name) const {
  for (const OptionSpec& spec : specs_) {
    if (name == spec.name) return &spec;
  }
  return nullptr;
}

const OptionSpec* Options::FindShort(char name) const {
  for (const OptionSpec& spec : specs_) {
    if (spec.short_name != 0 && spec.short_name == name) return &spec;
  }
  return nullptr;
}

bool Options::Take(const OptionSpec& spec, const std::string& shown,
                   const std::optional<std::string>& inline_value, const Args& args, size_t* i) {
  if (!spec.repeated && !given_.insert(spec.name).second) {
    error_ = shown + " given twice";
    return false;
  }
  if (spec.value == nullptr) {
    const std::string word = inline_value.value_or("yes");
    if (word == "yes" || word == "true" || word == "1" || word == "on") {
      on_.insert(spec.name);
    } else if (word != "no" && word != "false" && word != "0" && word != "off") {
      error_ = shown + " takes yes or no, not '" + EscapeForDisplay(word) + "'";
      return false;
    }
    return true;
  }
  if (!inline_value && *i + 1 >= args.size()) {
    error_ = shown + " needs a value (" + spec.value + ")";
    return false;
  }
  values_[spec.name].push_back(inline_value ? *inline_value : args[++*i]);
  return true;
}

bool Options::Parse(const Args& args, bool allow_positional) {
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (!options_ended && a == "--") {
      options_ended = true;
      continue;
    }
    // "-" alone names standard input or output: an operand.
    if (options_ended || a.size() < 2 || a[0] != '-') {
      if (!allow_positional) {
        error_ = "unexpected argument '" + EscapeForDisplay(a) + "'";
        return false;
      }
      positional_.push_back(a);
      continue;
    }
    if (a[1] == '-') {
      std::string name = a.substr(2);
      std::optional<std::string> inline_value;
      if (size_t eq = name.find('='); eq != std::string::npos) {
        inline_value = name.substr(eq + 1);
        name.resize(eq);
      }
      const OptionSpec* spec = Find(name);
      if (spec == nullptr) {
        error_ = "unknown option '--" + EscapeForDisplay(name) + "'";
        return false;
      }
      if (!Take(*spec, "--" + name, inline_value, args, &i)) return false;
      continue;
    }
    // Short forms: switches may be grouped ("-qj4"); a valued one takes
    // the rest of the word, or the next argument.
    for (size_t k = 1; k < a.size(); ++k) {
      const OptionSpec* spec = FindShort(a[k]);
      if (spec == nullptr) {
        error_ = "unknown option '-" + EscapeForDisplay(std::string(1, a[k])) + "'";
        return false;
      }
      const std::string shown = std::string("-") + a[k];
      if (spec->value == nullptr) {
        if (!Take(*spec, shown, std::nullopt, args, &i)) return false;
        continue;
      }
      const std::optional<std::string> rest =
          k + 1 < a.size() ? std::optional<std::string>(a.substr(k + 1)) : std::nullopt;
      if (!Take(*spec, shown, rest, args, &i)) return false;
      break;
    }
  }
  return true;
}

std::optional<std::string> Options::Get(const std::string& name) const {
  auto it = values_.find(name);
  if (it == values_.end() || it->second.empty()) return std::nullopt;
  return it->second.back();
}

std::vector<std::string> Options::GetAll(const std::string& name) const {
  auto it = values_.find(name);
  return it == values_.end() ? std::vector<std::string>() : it->second;
}

}  // namespace velk2::cli
