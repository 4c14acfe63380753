#pragma once
// QV::QVError: the exception every QV component throws, carrying where it was raised
// (module, method, source position) and a human-readable description.

#include <exception>
#include <string>

// libqverror is built with hidden visibility; this marks what it exports.
#define QVERROR_API __attribute__((visibility("default")))

namespace QV {

class QVERROR_API QVError : public std::exception {
 public:
  // `file` may be empty (no source position known); `line` is then ignored in what().
  QVError(const std::string& module, const std::string& method, const std::string& description,
          const std::string& file, unsigned int line);

  const std::string& module() const noexcept { return module_; }
  const std::string& method() const noexcept { return method_; }
  const std::string& description() const noexcept { return description_; }
  const std::string& file() const noexcept { return file_; }
  unsigned int line() const noexcept { return line_; }

  // "Module::method(): description (file:line)"; composed once at construction so that
  // reading it never allocates.
  const char* what() const noexcept override;

 private:
  std::string module_;
  std::string method_;
  std::string description_;
  std::string file_;
  unsigned int line_;
  std::string what_;
};

}  // namespace QV
