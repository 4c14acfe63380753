#include "prepared_statements.hpp"

#include <climits>

#include <SQLiteCpp/Column.h>
#include <sqlite3.h>

namespace QV::detail {

void bindValues(SQLite::Statement& statement, const CallValues& values) {
  for (unsigned column = 0; column < kColumnCount; ++column) {
    const std::string* value = values[column];
    if (value == nullptr) {
      continue;
    }
    if (value->size() > static_cast<std::size_t>(INT_MAX)) {
      throw SQLite::Exception("a value of " + std::to_string(value->size()) + " bytes is too large",
                              SQLITE_TOOBIG);
    }
    // data() is never null, so even an empty value binds as a zero-length BLOB, not as NULL.
    statement.bindNoCopy(static_cast<int>(column + 1), static_cast<const void*>(value->data()),
                         static_cast<int>(value->size()));
  }
}

std::string columnBytes(const SQLite::Statement& statement, int column) {
  const SQLite::Column value = statement.getColumn(column);
  const auto* bytes = static_cast<const char*>(value.getBlob());
  const int size = value.getBytes();
  return size > 0 ? std::string(bytes, static_cast<std::size_t>(size)) : std::string();
}

ReadStatements::ReadStatements(const SQLite::Database& db) : getObject(db, getObjectSql()) {
  contains.reserve(kDomainFixedShapes);
  for (std::size_t slot = 0; slot < kDomainFixedShapes; ++slot) {
    contains.emplace_back(db, containsSql(domainFixedShape(slot)));
  }
  query.reserve(kQueryShapes);
  for (Shape shape = 0; shape < kQueryShapes; ++shape) {
    query.emplace_back(db, querySql(shape));
  }
}

WriteStatements::WriteStatements(const SQLite::Database& db) : insert(db, insertSql()) {
  remove.reserve(kDomainFixedShapes);
  for (std::size_t slot = 0; slot < kDomainFixedShapes; ++slot) {
    remove.emplace_back(db, removeSql(domainFixedShape(slot)));
  }
}

}  // namespace QV::detail
