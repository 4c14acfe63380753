#pragma once
// The text `kacli info` prints for an object's interface.

#include <ka/metaobject.hpp>

#include <string>
#include <vector>

namespace kacli {

// One line per method, "method name(params) -> result", sorted by name then parameters, then one
// per signal, "signal name(arguments)", sorted by name: the order does not depend on the order
// in which the object advertised them.
std::vector<std::string> describeInterface(const ka::MetaObject& meta);

}  // namespace kacli
