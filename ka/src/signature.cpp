#include <ka/signature.hpp>
#include <ka/valuekinds.hpp>

namespace ka {
namespace {

// Returns the position just past the one type starting at `pos`, or npos when the text there
// is not a well-formed type. Iterative: texts come from peers, and a recursive descent would
// let a text of a million '[' overflow the stack before any length or nesting limit applies.
std::size_t skipType(const std::string& s, std::size_t pos) {
  // One byte per open container, saying how far it is: '(' takes any number of members; '['
  // needs one (then kListFull); '{' needs two (kMapHalf after the key, then kMapFull).
  constexpr char kListFull = 1;
  constexpr char kMapHalf = 2;
  constexpr char kMapFull = 3;
  std::string open;
  while (pos < s.size()) {
    const char c = s[pos++];
    if (c == '[' || c == '{' || c == '(') {
      open.push_back(c);
      continue;
    }
    if (!isBasicTypeLetter(c)) {
      // A closing byte ends the innermost container when it has all its members.
      if (open.empty()) {
        return std::string::npos;
      }
      const char state = open.back();
      const bool closes = (c == ']' && state == kListFull) || (c == '}' && state == kMapFull) ||
                          (c == ')' && state == '(');
      if (!closes) {
        return std::string::npos;
      }
      open.pop_back();
    }
    // One complete type: it ends the text's type or counts towards its container's members.
    if (open.empty()) {
      return pos;
    }
    char& state = open.back();
    switch (state) {
      case '[':
        state = kListFull;
        break;
      case '{':
        state = kMapHalf;
        break;
      case kMapHalf:
        state = kMapFull;
        break;
      case '(':
        break;
      default:  // a full list or map given one type too many
        return std::string::npos;
    }
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
