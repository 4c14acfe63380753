#include <ka/signature.hpp>

#include <cstring>

namespace ka {
namespace {

constexpr const char* kLeafLetters = "vbcCwWiIlLfdsmoX";

// Returns the position just past the one type starting at `pos`, or npos when the
// text there is not a well-formed type.
std::size_t skipType(const std::string& s, std::size_t pos) {
  if (pos >= s.size()) {
    return std::string::npos;
  }
  const char c = s[pos];
  if (std::strchr(kLeafLetters, c) != nullptr && c != '\0') {
    return pos + 1;
  }
  if (c == '[') {
    const std::size_t end = skipType(s, pos + 1);
    if (end == std::string::npos || end >= s.size() || s[end] != ']') {
      return std::string::npos;
    }
    return end + 1;
  }
  if (c == '{') {
    std::size_t end = skipType(s, pos + 1);
    if (end == std::string::npos) {
      return end;
    }
    end = skipType(s, end);
    if (end == std::string::npos || end >= s.size() || s[end] != '}') {
      return std::string::npos;
    }
    return end + 1;
  }
  if (c == '(') {
    std::size_t p = pos + 1;
    while (p < s.size() && s[p] != ')') {
      p = skipType(s, p);
      if (p == std::string::npos) {
        return p;
      }
    }
    return p < s.size() ? p + 1 : std::string::npos;
  }
  return std::string::npos;
}

}  // namespace

bool Signature::isValid() const {
  return !_text.empty() && skipType(_text, 0) == _text.size();
}

std::vector<Signature> Signature::children() const {
  std::vector<Signature> out;
  if (!isValid() || _text.size() < 2) {
    return out;
  }
  const char open = _text.front();
  if (open != '(' && open != '[' && open != '{') {
    return out;
  }
  std::size_t p = 1;
  while (p < _text.size() - 1) {
    const std::size_t end = skipType(_text, p);
    out.emplace_back(_text.substr(p, end - p));
    p = end;
  }
  return out;
}

}  // namespace ka
