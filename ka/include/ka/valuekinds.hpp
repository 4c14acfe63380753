#pragma once
// The kinds of value the middleware knows, as two tables: what each TypeKind is called and how it
// converts, and what each signature letter (or container bracket) stands for, with the msgpack
// forms a reader accepts for it. Code that treats kinds alike reads these rows; code that differs
// per kind switches on TypeKind. A new value type is a row here, its C++ description, and its
// layout in the wire codec.

#include <ka/typeinterface.hpp>

#include <cstddef>
#include <cstdint>

namespace ka {

// How many TypeKind values there are: TypeKind::Unknown stays the last one.
inline constexpr std::size_t kTypeKindCount = static_cast<std::size_t>(TypeKind::Unknown) + 1;

struct KindInfo {
  TypeKind kind;
  // The kind in texts ("no conversion from int to string").
  const char* name;
  // Numbers convert to each other when the target holds the value exactly (or, between floats,
  // when it is in range); a value of any other kind converts only to a type of its own kind.
  bool number;
};

// In the order of TypeKind, one row each.
inline constexpr KindInfo kKinds[] = {
    {TypeKind::Void, "void", false},     {TypeKind::Int, "int", true},
    {TypeKind::Float, "float", true},    {TypeKind::String, "string", false},
    {TypeKind::List, "list", false},     {TypeKind::Map, "map", false},
    {TypeKind::Tuple, "tuple", false},   {TypeKind::Dynamic, "dynamic", false},
    {TypeKind::Object, "object", false}, {TypeKind::Unknown, "unknown", false},
};
static_assert(sizeof(kKinds) / sizeof(kKinds[0]) == kTypeKindCount,
              "every TypeKind needs its row in kKinds");

constexpr const KindInfo& kindInfo(TypeKind kind) {
  return kKinds[static_cast<std::size_t>(kind)];
}

// The msgpack forms of a value, as a set of bits.
enum WireForm : std::uint16_t {
  kWireNil = 1 << 0,
  kWireBool = 1 << 1,
  kWireInteger = 1 << 2,  // positive or negative, any width
  kWireFloat = 1 << 3,    // float32 or float64
  kWireStr = 1 << 4,
  kWireBin = 1 << 5,
  kWireArray = 1 << 6,
  kWireMap = 1 << 7,
  kWireExt = 1 << 8,
  kWireAny = 0x1ff,
};

// What the first character of a signature stands for: a whole basic type, or the opening
// bracket of a container.
struct TypeCodeInfo {
  char code;
  TypeKind kind;
  // How a reader's refusal names the type ("expected i (int32), got str").
  const char* name;
  // Bytes of an integer or float; 0 for bool and every other kind.
  std::uint8_t width;
  bool isSigned;
  // The msgpack forms a reader accepts; 0 for a type that never travels.
  std::uint16_t wireForms;
  // What a refusal adds when the form does not fit and the letter alone does not say the layout.
  const char* layout;
  constexpr bool isContainer() const { return code == '[' || code == '{' || code == '('; }
};

// Codes are ASCII; a code appears once.
inline constexpr TypeCodeInfo kTypeCodes[] = {
    {'v', TypeKind::Void, "void", 0, false, kWireNil, ""},
    {'b', TypeKind::Int, "bool", 0, false, kWireBool, ""},
    {'c', TypeKind::Int, "int8", 1, true, kWireInteger, ""},
    {'C', TypeKind::Int, "uint8", 1, false, kWireInteger, ""},
    {'w', TypeKind::Int, "int16", 2, true, kWireInteger, ""},
    {'W', TypeKind::Int, "uint16", 2, false, kWireInteger, ""},
    {'i', TypeKind::Int, "int32", 4, true, kWireInteger, ""},
    {'I', TypeKind::Int, "uint32", 4, false, kWireInteger, ""},
    {'l', TypeKind::Int, "int64", 8, true, kWireInteger, ""},
    {'L', TypeKind::Int, "uint64", 8, false, kWireInteger, ""},
    // An integer reads as a float when the float holds it exactly.
    {'f', TypeKind::Float, "float", 4, true, kWireFloat | kWireInteger, ""},
    {'d', TypeKind::Float, "double", 8, true, kWireFloat | kWireInteger, ""},
    // Bytes, whichever of the two a writer chose.
    {'s', TypeKind::String, "string", 0, false, kWireStr | kWireBin, ""},
    {'m', TypeKind::Dynamic, "dynamic value", 0, false, kWireNil | kWireArray,
     "(expected nil or [signature, value])"},
    // nil for a null handle, else whatever the connection writes for a handle.
    {'o', TypeKind::Object, "object", 0, false, kWireAny, ""},
    {'[', TypeKind::List, "list", 0, false, kWireArray, ""},
    {'{', TypeKind::Map, "map", 0, false, kWireMap, ""},
    {'(', TypeKind::Tuple, "tuple", 0, false, kWireArray, ""},
    // A C++ type with no meaning outside its program: valid in a signature, never on the wire.
    {'X', TypeKind::Unknown, "unknown type", 0, false, 0, ""},
};

namespace detail {

// The row of each ASCII character, -1 for none: the codec looks up the type of every value it
// reads, and the signature parser every character of a peer's text.
struct TypeCodeIndex {
  std::int8_t rows[128] = {};
};

constexpr TypeCodeIndex makeTypeCodeIndex() {
  TypeCodeIndex index;
  for (std::int8_t& row : index.rows) {
    row = -1;
  }
  for (std::size_t i = 0; i < sizeof(kTypeCodes) / sizeof(kTypeCodes[0]); ++i) {
    index.rows[static_cast<unsigned char>(kTypeCodes[i].code) & 127] = static_cast<std::int8_t>(i);
  }
  return index;
}

inline constexpr TypeCodeIndex kTypeCodeIndex = makeTypeCodeIndex();

constexpr bool typeCodesAreDistinctAscii() {
  for (std::size_t i = 0; i < sizeof(kTypeCodes) / sizeof(kTypeCodes[0]); ++i) {
    const auto c = static_cast<unsigned char>(kTypeCodes[i].code);
    if (c == 0 || c >= 128 || kTypeCodeIndex.rows[c] != static_cast<std::int8_t>(i)) {
      return false;
    }
  }
  return true;
}
static_assert(typeCodesAreDistinctAscii(),
              "every row of kTypeCodes needs an ASCII code of its own");

}  // namespace detail

// The row of `code`, nullptr for a character that starts no type.
constexpr const TypeCodeInfo* typeCodeInfo(char code) {
  const auto c = static_cast<unsigned char>(code);
  const int row = c < 128 ? detail::kTypeCodeIndex.rows[c] : -1;
  return row < 0 ? nullptr : &kTypeCodes[row];
}

// A letter that is a whole type by itself (not a bracket).
constexpr bool isBasicTypeLetter(char c) {
  const TypeCodeInfo* row = typeCodeInfo(c);
  return row != nullptr && !row->isContainer();
}

// The letter of the integer type of `width` bytes (0: bool) and signedness, or of the float type
// of `width` bytes; a width no row has gets the widest letter of its kind.
constexpr char numberLetter(TypeKind kind, std::size_t width, bool isSigned) {
  char widest = '\0';
  for (const TypeCodeInfo& row : kTypeCodes) {
    if (row.kind != kind || (kind == TypeKind::Int && row.isSigned != isSigned && width != 0)) {
      continue;
    }
    if (row.width == width) {
      return row.code;
    }
    if (row.width == 8) {
      widest = row.code;
    }
  }
  return widest;
}

}  // namespace ka
