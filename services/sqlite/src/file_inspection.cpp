#include "file_inspection.hpp"

#include <cstdio>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include "busy_wait.hpp"
#include "file_header.hpp"
#include "file_identity.hpp"
#include "store_error.hpp"
#include "triplet_schema.hpp"

namespace QV::detail {

namespace {

enum class Outcome { Accepted, NeedsRollback };

// "file:" URI of `path`, escaping the characters a URI gives a meaning to.
std::string fileUri(const std::string& path, bool immutable) {
  std::string uri = path.front() == '/' ? "file://" : "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(c));
      uri += escaped;
    } else {
      uri += c;
    }
  }
  return uri + (immutable ? "?mode=ro&immutable=1" : "?mode=ro");
}

// A read-only connection that can change nothing: it cannot checkpoint the WAL or roll back a hot
// journal, and it neither checkpoints nor deletes the WAL when it closes. `immutable` also skips
// locking and the WAL: only for a WAL file without a -wal, whose main file is then complete.
SQLite::Database openReadOnly(const std::string& path, bool immutable,
                              const TripletStoreOptions& options) {
  SQLite::Database db(fileUri(path, immutable),
                      SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX);
  sqlite3_db_config(db.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  int persistWal = 1;
  sqlite3_file_control(db.getHandle(), "main", SQLITE_FCNTL_PERSIST_WAL, &persistWal);
  installBusyHandler(db.getHandle(), options.busyTimeout);
  return db;
}

void requireWholePages(const std::string& path, std::uint64_t size, std::uint32_t pageSize) {
  if (size % pageSize != 0) {
    throw storeError(path, "the file is damaged: its " + std::to_string(size) +
                               " bytes are not a whole number of " + std::to_string(pageSize) +
                               "-byte pages (the end of the file is missing)");
  }
}

void checkIntegrity(SQLite::Database& db, const std::string& path, OpenCheck check) {
  const std::string pragma = check == OpenCheck::Full ? "integrity_check" : "quick_check";
  constexpr int kShown = 3;
  SQLite::Statement statement(db, "PRAGMA " + pragma + "(" + std::to_string(kShown) + ")");
  std::string problems;
  while (statement.executeStep()) {
    const std::string line = statement.getColumn(0).getString();
    if (line != "ok") {
      problems += (problems.empty() ? "" : "; ") + line;
    }
  }
  if (!problems.empty()) {
    throw storeError(path, "the file is damaged: " + pragma + " found: " + problems);
  }
}

Outcome inspectOnce(const std::string& path, const FileHeader& header, bool immutable,
                    const TripletStoreOptions& options) {
  try {
    SQLite::Database db = openReadOnly(path, immutable, options);
    if (judge(readIdentity(db), path) == Verdict::CurrentStore) {
      checkIntegrity(db, path, options.openCheck);
    }
  } catch (const SQLite::Exception& error) {
    if (error.getExtendedErrorCode() != SQLITE_READONLY_ROLLBACK) {
      throwReadError(error, path);
    }
    // Another connection's transaction was interrupted: the main file may hold part of it until
    // the journal is rolled back, which writes. That is the store's business only if it is ours.
    if (header.applicationId == static_cast<std::uint32_t>(kApplicationId)) {
      return Outcome::NeedsRollback;
    }
    throw storeError(path,
                     "an interrupted transaction left a hot journal and the file is not a store: "
                     "left for its owner to roll back");
  }
  // Checked after the read, which saw no hot journal that could still restore the missing end.
  const FileStamp stamp = stampOf(path);
  if (header.validPageSize() && stamp.size > 0) {
    requireWholePages(path, static_cast<std::uint64_t>(stamp.size), header.pageSize);
  }
  return Outcome::Accepted;
}

Outcome inspect(const std::string& path, const TripletStoreOptions& options) {
  const FileHeader header = readFileHeader(path);
  const std::string wal = path + "-wal";
  const std::string journal = path + "-journal";
  if (!header.readable) {
    return Outcome::Accepted;  // missing or not a file: the read-write open creates or reports it
  }
  if (header.size == 0) {
    return Outcome::Accepted;  // nothing stored: SQLite discards a -wal or journal beside it
  }
  if (!header.sqlite) {
    throw storeError(path, "the file is not a SQLite database");
  }
  if (header.writeVersion > 2) {
    throw storeError(path,
                     "the file cannot be written (its header requires file format write "
                     "version " +
                         std::to_string(header.writeVersion) + ", SQLite may only read it)");
  }
  if (header.validPageSize() && !fileExists(journal)) {
    requireWholePages(path, header.size, header.pageSize);
  }
  // A read-only connection to a WAL file without a -wal would create an empty -wal: read the
  // complete main file without locks instead, and again with locks if anyone wrote meanwhile.
  bool immutable = header.walMode() && !fileExists(wal) && !fileExists(journal);
  for (;;) {
    const FileStamp before = stampOf(path);
    const auto undisturbed = [&] {
      return !immutable || (stampOf(path) == before && !fileExists(wal) && !fileExists(journal));
    };
    try {
      const Outcome outcome = inspectOnce(path, header, immutable, options);
      if (undisturbed()) {
        return outcome;
      }
    } catch (const KnowledgeStoreError&) {
      if (undisturbed()) {
        throw;
      }
    }
    immutable = false;
  }
}

// Opens the file read-write just long enough for SQLite to roll back its hot journal.
void rollBack(const std::string& path, const TripletStoreOptions& options) {
  SQLite::Database db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
  installBusyHandler(db.getHandle(), options.busyTimeout);
  db.execAndGet("SELECT count(*) FROM sqlite_master");
}

}  // namespace

void inspectFile(const std::string& path, const TripletStoreOptions& options) {
  if (inspect(path, options) == Outcome::Accepted) {
    return;
  }
  rollBack(path, options);
  if (inspect(path, options) == Outcome::NeedsRollback) {
    throw storeError(path, "cannot roll back the hot journal of an interrupted transaction");
  }
}

}  // namespace QV::detail
