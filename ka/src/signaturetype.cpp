#include <ka/signaturetype.hpp>

#include <stdexcept>

namespace ka {

const TypeInterface* typeFromSignature(const Signature& signature) {
  throw std::invalid_argument("typeFromSignature: not implemented yet for '" +
                              signature.toString() + "'");
}

}  // namespace ka
