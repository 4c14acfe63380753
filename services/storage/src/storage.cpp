#include "qvstorage/storage.hpp"
#include "qvstorage/event_feed.hpp"

namespace QV {

// Out of line so the type information lives in this library only.
EventFeed::~EventFeed() = default;
Storage::~Storage() = default;

}  // namespace QV
