#include "repotool/Options.h"

#include <stdexcept>

Options::Options(const std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i].size() > 2 && args[i].compare(0, 2, "--") == 0) {
      if (i + 1 >= args.size()) throw std::runtime_error(args[i] + " needs a value");
      m_options.emplace_back(args[i].substr(2), args[i + 1]);
      ++i;
    } else {
      m_positional.push_back(args[i]);
    }
  }
}

void Options::Allow(std::initializer_list<const char*> names, size_t positional) const {
  for (const auto& [name, value] : m_options) {
    bool known = false;
    for (const char* allowed : names) known = known || name == allowed;
    if (!known) throw std::runtime_error("unknown option --" + name);
  }
  if (m_positional.size() > positional) throw std::runtime_error("unexpected argument " + m_positional[positional]);
}

bool Options::Has(const std::string& name) const {
  for (const auto& option : m_options)
    if (option.first == name) return true;
  return false;
}

std::string Options::Require(const std::string& name) const {
  if (!Has(name)) throw std::runtime_error("--" + name + " is required");
  return Get(name);
}

std::string Options::Get(const std::string& name, const std::string& fallback) const {
  std::string value = fallback;
  for (const auto& option : m_options)
    if (option.first == name) value = option.second;
  return value;
}

std::vector<std::string> Options::All(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& option : m_options)
    if (option.first == name) values.push_back(option.second);
  return values;
}

long long Options::Number(const std::string& name, long long fallback, long long min, long long max) const {
  if (!Has(name)) return fallback;
  std::string text = Get(name);
  size_t used = 0;
  long long value = 0;
  try {
    value = std::stoll(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (text.empty() || used != text.size() || value < min || value > max)
    throw std::runtime_error("--" + name + " needs a number from " + std::to_string(min) + " to " +
                             std::to_string(max) + ": " + text);
  return value;
}
