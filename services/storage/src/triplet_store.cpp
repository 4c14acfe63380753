#include "qvstorage/triplet_store.hpp"

namespace QV {

// Out of line so the type information lives in this library only.
KnowledgeStoreError::~KnowledgeStoreError() = default;
TripletStore::~TripletStore() = default;

}  // namespace QV
