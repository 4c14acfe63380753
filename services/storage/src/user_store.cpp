#include "qvstorage/user_store.hpp"

namespace QV {

// Out of line so the type information lives in this library only.
UserSessionError::~UserSessionError() = default;
UserStore::~UserStore() = default;
void UserStore::onForeignChange(ForeignChangeHandler) {}

}  // namespace QV
