#pragma once
// A value with its signature as bytes, for programs that keep or forward values outside a
// connection: the layout is that of a dynamic value ("m") on the wire (docs/protocol.md, "Values
// and signatures"), so any reader of the protocol reads it.

#include <ka/anyvalue.hpp>

#include <cstddef>
#include <string>

namespace ka {

// msgpack of `value` as a dynamic value: [signature, value], or nil for the empty value. A
// dynamic value is written as what it finally holds. Throws std::runtime_error for a value with
// no wire form: one holding an object handle or a type "X", or nesting beyond the wire's limit.
KA_API std::string encodeValueWithSignature(const AnyReference& value);

// The value `data` holds, with the type its signature names (the empty value for nil). Throws
// std::runtime_error saying what did not match for malformed, truncated or padded input.
KA_API AnyValue decodeValueWithSignature(const char* data, std::size_t size);

}  // namespace ka
