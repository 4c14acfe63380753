#include "statement_sql.hpp"

namespace QV::detail {

namespace {

// Rough share of the rows that one value of a column selects in the expected data: a few domains,
// about ten predicates, many subjects, mostly distinct objects. Only the ranking matters.
constexpr double kSelectivity[kColumnCount] = {0.3, 1e-4, 0.1, 1e-4};

std::string indexedBy(Shape shape) {
  const char* index = indexFor(shape);
  return index == nullptr ? std::string() : std::string(" INDEXED BY ") + index;
}

std::string where(Shape shape) {
  std::string clause;
  for (unsigned column = 0; column < kColumnCount; ++column) {
    if (shape & (1u << column)) {
      clause += clause.empty() ? " WHERE " : " AND ";
      clause += kColumnNames[column] + std::string(" = ?") + std::to_string(column + 1);
    }
  }
  return clause;
}

std::string from(Shape shape) {
  return std::string(" FROM ") + kTableName + indexedBy(shape);
}

std::string shapeName(const char* method, Shape shape, char wildcard) {
  static constexpr char kLetters[kColumnCount] = {'d', 's', 'p', 'o'};
  std::string name = std::string(method) + "(";
  for (unsigned column = 0; column < kColumnCount; ++column) {
    name += column == 0 ? "" : ",";
    name += (shape & (1u << column)) ? kLetters[column] : wildcard;
  }
  return name + ")";
}

}  // namespace

// The index whose leading fixed columns select the fewest rows wins; on a tie the earlier index
// (the covering key first) does.
const char* indexFor(Shape shape) {
  const char* best = nullptr;
  double bestShare = 1.0;
  for (const auto& index : tripletIndexes()) {
    double share = 1.0;
    for (Column column : index.columns) {
      if (!(shape & fixedBit(column))) {
        break;
      }
      share *= kSelectivity[column];
    }
    if (share < bestShare) {
      best = index.name;
      bestShare = share;
    }
  }
  return best;
}

// The key index holds id (the rowid) after the object, so both come from the index alone. Its
// rows arrive by object bytes; the caller puts them in id order, which saves SQLite building a
// temporary B-tree to sort them on every call.
std::string getObjectSql() {
  const Shape key = fixedBit(kDomain) | fixedBit(kSubject) | fixedBit(kPredicate);
  return "SELECT id, object" + from(key) + where(key);
}

std::string containsSql(Shape shape) {
  return "SELECT 1" + from(shape) + where(shape) + " LIMIT 1";
}

std::string querySql(Shape shape) {
  return "SELECT domain, subject, predicate, object" + from(shape) + where(shape) + " ORDER BY id";
}

std::string removeSql(Shape shape) {
  return "DELETE" + from(shape) + where(shape);
}

std::string insertSql() {
  return std::string("INSERT INTO ") + kTableName +
         " (domain, subject, predicate, object) VALUES (?1, ?2, ?3, ?4)"
         " ON CONFLICT (domain, subject, predicate, object) DO NOTHING";
}

std::vector<StatementText> allStatements() {
  std::vector<StatementText> statements;
  statements.push_back({"getObject(d,s,p)", getObjectSql()});
  for (std::size_t slot = 0; slot < kDomainFixedShapes; ++slot) {
    statements.push_back(
        {shapeName("contains", domainFixedShape(slot), '?'), containsSql(domainFixedShape(slot))});
  }
  for (Shape shape = 0; shape < kQueryShapes; ++shape) {
    statements.push_back({shapeName("queryTriplet", shape, '*'), querySql(shape)});
  }
  for (std::size_t slot = 0; slot < kDomainFixedShapes; ++slot) {
    statements.push_back(
        {shapeName("remove", domainFixedShape(slot), '?'), removeSql(domainFixedShape(slot))});
  }
  statements.push_back({"insert(d,s,p,o)", insertSql()});
  return statements;
}

}  // namespace QV::detail
