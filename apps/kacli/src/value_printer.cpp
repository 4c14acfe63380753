#include "value_printer.hpp"

#include <ka/typeinterface.hpp>

#include <cmath>
#include <cstdint>

namespace kacli {
namespace {

using nlohmann::json;

bool isValidUtf8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    std::size_t extra = 0;
    std::uint32_t code = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= text.size()) {
      return false;  // cut short
    }
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) {
        return false;
      }
      code = (code << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
    static const std::uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (code < kMinimum[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    i += extra + 1;
  }
  return true;
}

std::string base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const std::uint32_t n = (static_cast<unsigned char>(bytes[i]) << 16) |
                            (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                            static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i + 1 == bytes.size()) {
    const std::uint32_t n = static_cast<unsigned char>(bytes[i]) << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += "==";
  } else if (i + 2 == bytes.size()) {
    const std::uint32_t n = (static_cast<unsigned char>(bytes[i]) << 16) |
                            (static_cast<unsigned char>(bytes[i + 1]) << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += '=';
  }
  return out;
}

}  // namespace

json toJson(const ka::AnyReference& value) {
  if (!value.isValid()) {
    return nullptr;
  }
  const ka::TypeInterface* type = value.type();
  switch (type->kind()) {
    case ka::TypeKind::Void:
      return nullptr;
    case ka::TypeKind::Int: {
      const auto* t = static_cast<const ka::IntTypeInterface*>(type);
      const std::int64_t bits = t->get(value.rawValue());
      if (t->size() == 0) {
        return bits != 0;
      }
      if (t->isSigned()) {
        return bits;
      }
      return static_cast<std::uint64_t>(bits);
    }
    case ka::TypeKind::Float: {
      const double d = static_cast<const ka::FloatTypeInterface*>(type)->get(value.rawValue());
      if (!std::isfinite(d)) {
        return nullptr;
      }
      return d;
    }
    case ka::TypeKind::String: {
      const std::string& text =
          static_cast<const ka::StringTypeInterface*>(type)->get(value.rawValue());
      return isValidUtf8(text) ? text : "base64:" + base64(text);
    }
    case ka::TypeKind::List:
    case ka::TypeKind::Tuple: {
      json array = json::array();
      const std::size_t n = value.size();
      for (std::size_t i = 0; i < n; ++i) {
        array.push_back(toJson(value[i]));
      }
      return array;
    }
    case ka::TypeKind::Map: {
      const auto* map = static_cast<const ka::MapTypeInterface*>(type);
      const bool stringKeys = map->keyType()->kind() == ka::TypeKind::String;
      json result = stringKeys ? json::object() : json::array();
      for (const auto& [key, element] : value.mapEntries()) {
        if (stringKeys) {
          result[key.toString()] = toJson(element);
        } else {
          result.push_back(json::array({toJson(key), toJson(element)}));
        }
      }
      return result;
    }
    case ka::TypeKind::Dynamic:
      return toJson(value.content());
    case ka::TypeKind::Object: {
      const auto* object = static_cast<const ka::ObjectTypeInterface*>(type);
      if (object->identity(value.rawValue()) == nullptr) {
        return nullptr;
      }
      return "<object>";
    }
    case ka::TypeKind::Unknown:
      break;
  }
  return "<opaque " + std::string(type->info().name()) + ">";
}

std::string toJsonText(const ka::AnyReference& value) {
  // Strings that are not UTF-8 already print as base64; the handler only keeps dump() from
  // throwing on text that a type converts oddly.
  return toJson(value).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string shownSignature(const ka::AnyReference& value) {
  if (!value.isValid()) {
    return "m";
  }
  const std::string resolved = value.signature(true).toString();
  return resolved.empty() ? "m" : resolved;
}

std::optional<std::string> formatResult(const ka::AnyReference& result, bool withSignature) {
  if (result.isValid() && result.kind() == ka::TypeKind::Void) {
    if (withSignature) {
      return std::string("v");
    }
    return std::nullopt;
  }
  const std::string text = toJsonText(result);
  return withSignature ? shownSignature(result) + " " + text : text;
}

}  // namespace kacli
