#pragma once
// Id assignment shared by the object builders.

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace ka {
namespace detail {

// The id for a new method or signal: `requested` when it is >= 0 (std::logic_error when
// an existing member already has it), else one more than the highest id in use.
template <typename Meta>
unsigned int pickMemberId(int requested, const std::vector<Meta>& existing) {
  if (requested >= 0) {
    for (const auto& m : existing) {
      if (m.uid == static_cast<unsigned int>(requested)) {
        throw std::logic_error("Id " + std::to_string(requested) + " is already used by \"" +
                               m.name + "\"");
      }
    }
    return static_cast<unsigned int>(requested);
  }
  unsigned int next = 0;
  for (const auto& m : existing) {
    next = std::max(next, m.uid + 1);
  }
  return next;
}

}  // namespace detail
}  // namespace ka
