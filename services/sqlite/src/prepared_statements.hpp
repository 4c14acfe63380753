#pragma once
// The statements one connection keeps prepared for the whole life of the store, and the helpers
// that bind and read their values as exact bytes.

#include <array>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "statement_sql.hpp"

namespace QV::detail {

// The values of one call by column; a null entry is a wildcard and is not bound.
using CallValues = std::array<const std::string*, kColumnCount>;

// Resets the statement when the call is done with it, whether it succeeded or threw, so that the
// connection's read snapshot ends and the next call starts from a clean statement.
class StatementUse {
 public:
  explicit StatementUse(SQLite::Statement& statement) : statement_(statement) {}
  ~StatementUse() { statement_.tryReset(); }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

  SQLite::Statement& operator*() const { return statement_; }
  SQLite::Statement* operator->() const { return &statement_; }

 private:
  SQLite::Statement& statement_;
};

// Binds every non-null value as a BLOB at the parameter numbered after its column. The bytes are
// not copied: the values must outlive the statement's execution.
void bindValues(SQLite::Statement& statement, const CallValues& values);

std::string columnBytes(const SQLite::Statement& statement, int column);

struct ReadStatements {
  explicit ReadStatements(const SQLite::Database& db);

  SQLite::Statement getObject;
  std::vector<SQLite::Statement> contains;  // by domainFixedSlot(shape)
  std::vector<SQLite::Statement> query;     // by shape
};

struct WriteStatements {
  explicit WriteStatements(const SQLite::Database& db);

  SQLite::Statement insert;
  std::vector<SQLite::Statement> remove;  // by domainFixedSlot(shape)
};

}  // namespace QV::detail
