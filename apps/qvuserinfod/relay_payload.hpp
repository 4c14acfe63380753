#pragma once
// The payloads of the announcements that carry userInfoEdited and userInfoRemoved between the
// daemons of one database; docs/postgresql-store.md gives their layout as a grammar.

#include <ka/anyvalue.hpp>

#include <string>

namespace qvuserinfod {

struct RelayedChange {
  int userId = 0;
  std::string dataName;
  // The new value of an edit; empty for a removal.
  ka::AnyValue value;
};

// Throws std::runtime_error for a value with no wire form (an object handle, a type "X").
std::string editedPayload(int userId, const std::string& dataName, const ka::AnyReference& value);
std::string removedPayload(int userId, const std::string& dataName);

// Read what editedPayload and removedPayload wrote; readEdited also reads the value as daemons
// before the msgpack form wrote it. Throw std::runtime_error for a payload that is neither.
RelayedChange readEdited(const std::string& payload);
RelayedChange readRemoved(const std::string& payload);

}  // namespace qvuserinfod
