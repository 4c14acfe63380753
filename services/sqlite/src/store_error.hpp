#pragma once
// Builds the KnowledgeStoreError texts, so every failure names the file it concerns.

#include <string>

#include <SQLiteCpp/Exception.h>

#include "qvstorage/triplet_store.hpp"

namespace QV::detail {

// "knowledge store '<path>': <reason>"
KnowledgeStoreError storeError(const std::string& path, const std::string& reason);

// "knowledge store '<path>': <operation> failed: <SQLite message>"
KnowledgeStoreError callFailed(const std::string& path, const char* operation,
                               const SQLite::Exception& error);

}  // namespace QV::detail
