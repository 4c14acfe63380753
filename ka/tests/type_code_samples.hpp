#pragma once
// One sample value for each row of ka::kTypeCodes, shared by the tests that check that every
// value kind is handled by every layer (codec, conversions, signatures, kacli's printer). Numbers
// all hold 1 so that each converts to every other.

#include <ka/anyvalue.hpp>
#include <ka/object.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace ka_test {

// A C++ type with no middleware meaning ("X").
struct Opaque {
  int x = 0;
};

inline std::map<char, ka::AnyValue> typeCodeSamples() {
  std::map<char, ka::AnyValue> s;
  s['v'] = ka::AnyValue::makeVoid();
  s['b'] = ka::AnyValue(true);
  s['c'] = ka::AnyValue(std::int8_t{1});
  s['C'] = ka::AnyValue(std::uint8_t{1});
  s['w'] = ka::AnyValue(std::int16_t{1});
  s['W'] = ka::AnyValue(std::uint16_t{1});
  s['i'] = ka::AnyValue(std::int32_t{1});
  s['I'] = ka::AnyValue(std::uint32_t{1});
  s['l'] = ka::AnyValue(std::int64_t{1});
  s['L'] = ka::AnyValue(std::uint64_t{1});
  s['f'] = ka::AnyValue(1.0f);
  s['d'] = ka::AnyValue(1.0);
  s['s'] = ka::AnyValue(std::string("a"));
  s['m'] = ka::AnyValue::make(ka::AnyValue(std::int32_t{1}));
  s['o'] = ka::AnyValue(ka::AnyObject());
  s['['] = ka::AnyValue(std::vector<std::int32_t>{1});
  s['{'] = ka::AnyValue(std::map<std::string, std::int32_t>{{"a", 1}});
  s['('] = ka::AnyValue(std::tuple<std::int32_t, std::string>{1, "a"});
  s['X'] = ka::AnyValue::make(Opaque{});
  return s;
}

}  // namespace ka_test
