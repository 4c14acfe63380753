#include "qverror/qverror.hpp"

namespace QV {

namespace {

std::string composeWhat(const std::string& module, const std::string& method,
                        const std::string& description, const std::string& file,
                        unsigned int line) {
  std::string text = module + "::" + method + "(): " + description;
  if (!file.empty()) {
    text += " (" + file + ":" + std::to_string(line) + ")";
  }
  return text;
}

}  // namespace

QVError::QVError(const std::string& module, const std::string& method,
                 const std::string& description, const std::string& file, unsigned int line)
    : module_(module),
      method_(method),
      description_(description),
      file_(file),
      line_(line),
      what_(composeWhat(module, method, description, file, line)) {}

const char* QVError::what() const noexcept {
  return what_.c_str();
}

}  // namespace QV
