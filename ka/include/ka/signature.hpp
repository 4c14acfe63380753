#pragma once
// A type signature: the compact text that names a value's type on the wire and in
// method resolution ("i", "[s]", "{sm}", "(is)").

#include <ka/api.hpp>

#include <string>
#include <vector>

namespace ka {

// Letters:
//   v void    b bool    c/C int8/uint8    w/W int16/uint16    i/I int32/uint32
//   l/L int64/uint64    f float    d double    s string    m dynamic value
//   o object  X a C++ type with no middleware meaning
//   [T] list of T    {KV} map from K to V    (T...) tuple
// The empty signature belongs to a value that has no type at all.
class KA_API Signature {
 public:
  Signature() = default;
  explicit Signature(std::string text) : _text(std::move(text)) {}

  const std::string& toString() const { return _text; }
  bool empty() const { return _text.empty(); }

  // True when the text is exactly one well-formed type.
  bool isValid() const;

  // The member signatures of a tuple, or of a list (one element) or map (key, value);
  // empty for every other signature.
  std::vector<Signature> children() const;

  friend bool operator==(const Signature& a, const Signature& b) { return a._text == b._text; }
  friend bool operator!=(const Signature& a, const Signature& b) { return a._text != b._text; }

 private:
  std::string _text;
};

}  // namespace ka
