#include "store_error.hpp"

namespace QV {

// Out of line so the type information lives in this library only.
KnowledgeStoreError::~KnowledgeStoreError() = default;

namespace detail {

KnowledgeStoreError storeError(const std::string& path, const std::string& reason) {
  return KnowledgeStoreError("knowledge store '" + path + "': " + reason);
}

KnowledgeStoreError callFailed(const std::string& path, const char* operation,
                               const SQLite::Exception& error) {
  return storeError(path, std::string(operation) + " failed: " + error.what());
}

}  // namespace detail
}  // namespace QV
