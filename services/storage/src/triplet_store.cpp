#include "qvknowledge/triplet_store.hpp"

namespace QV {

TripletStore::~TripletStore() = default;

}  // namespace QV
