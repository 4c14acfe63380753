#pragma once
// Types built from signature texts at run time, for values whose C++ type is not known where
// they are read (values that arrive over a connection, descriptions of remote methods).

#include <ka/api.hpp>
#include <ka/signature.hpp>
#include <ka/typeinterface.hpp>

namespace ka {

// A type for every valid signature text: basic letters give the builtin types (typeOf<int>()
// for "i", the dynamic type for "m", the object handle type for "o", void for "v"); lists,
// maps and tuples get run-time types whose values convert to and from the matching C++
// containers through the usual conversions. The same text always gives the same pointer, and
// the type is never freed. Throws std::invalid_argument for an invalid text and for "X",
// which names no type outside its own program.
KA_API const TypeInterface* typeFromSignature(const Signature& signature);

}  // namespace ka
