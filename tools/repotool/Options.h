// The command line of one repotool command: "--name value" options (a name may repeat) and
// positional words.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

class Options {
 public:
  // Throws std::runtime_error for an option without its value.
  explicit Options(const std::vector<std::string>& args);

  // Throws when an option outside `names` was given, or more positional words than `positional`.
  void Allow(std::initializer_list<const char*> names, size_t positional = 0) const;
  bool Has(const std::string& name) const;
  // The last value given; throws when the option is missing.
  std::string Require(const std::string& name) const;
  std::string Get(const std::string& name, const std::string& fallback = "") const;
  // Every value given for a repeatable option.
  std::vector<std::string> All(const std::string& name) const;
  // A decimal number in [min, max]; `fallback` when the option is missing.
  long long Number(const std::string& name, long long fallback, long long min, long long max) const;
  const std::vector<std::string>& Positional() const { return m_positional; }

 private:
  std::vector<std::pair<std::string, std::string>> m_options;
  std::vector<std::string> m_positional;
};
