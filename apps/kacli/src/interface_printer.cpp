#include "interface_printer.hpp"

#include <algorithm>
#include <utility>

namespace kacli {

std::vector<std::string> describeInterface(const ka::MetaObject& meta) {
  std::vector<std::pair<std::string, std::string>> methods;
  for (const auto& m : meta.methods()) {
    methods.emplace_back(
        m.name, m.parametersSignature().toString() + " -> " + m.returnSignature().toString());
  }
  std::sort(methods.begin(), methods.end());
  std::vector<std::pair<std::string, std::string>> signals;
  for (const auto& s : meta.signals()) {
    signals.emplace_back(s.name, s.signature().toString());
  }
  std::sort(signals.begin(), signals.end());

  std::vector<std::string> lines;
  lines.reserve(methods.size() + signals.size());
  for (const auto& [name, signature] : methods) {
    lines.push_back("method " + name + signature);
  }
  for (const auto& [name, signature] : signals) {
    lines.push_back("signal " + name + signature);
  }
  return lines;
}

}  // namespace kacli
