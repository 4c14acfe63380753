#pragma once
// Decides whether an existing file may be opened as a store before any read-write connection to
// it exists, reading only: a refused file stays byte for byte as it was.

#include <string>

#include "qvsqlite/sqlite_triplet_store.hpp"

namespace QV::detail {

// Returns if `path` is missing, empty, or a store of this schema version that passes
// options.openCheck; throws KnowledgeStoreError naming `path` otherwise. Refuses, besides files
// of other applications and other versions: a main file that is not a whole number of pages, a
// header SQLite may only read, and a damaged file. A hot rollback journal is rolled back only
// when the file is ours, then the file is inspected again.
void inspectFile(const std::string& path, const TripletStoreOptions& options);

}  // namespace QV::detail
