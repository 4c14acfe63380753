#pragma once
// The SQL text of every statement the store prepares, one per call shape, each pinned to the index
// that serves it best.

#include <cstddef>
#include <string>
#include <vector>

#include "triplet_schema.hpp"

namespace QV::detail {

// Which positions of a call hold a value (bit 1 << Column); the others are wildcards.
using Shape = unsigned;
inline constexpr Shape fixedBit(Column column) {
  return 1u << column;
}
inline constexpr std::size_t kQueryShapes = 16;

// contains() and remove() always have a literal domain: their shapes are numbered by the subject,
// predicate and object bits alone.
inline constexpr std::size_t kDomainFixedShapes = 8;
inline constexpr std::size_t domainFixedSlot(Shape shape) {
  return shape >> 1;
}
inline constexpr Shape domainFixedShape(std::size_t slot) {
  return static_cast<Shape>(slot << 1) | fixedBit(kDomain);
}

// Value parameters are numbered by column (?1 = domain ... ?4 = object) in every statement.
// getObjectSql() returns (id, object) in index order, not in id order.
std::string getObjectSql();
std::string containsSql(Shape shape);
std::string querySql(Shape shape);
std::string removeSql(Shape shape);
std::string insertSql();

// The index a shape is pinned to, or nullptr when nothing is fixed.
const char* indexFor(Shape shape);

struct StatementText {
  std::string name;  // e.g. "contains(d,?,p,o)"
  std::string sql;
};
std::vector<StatementText> allStatements();

}  // namespace QV::detail
