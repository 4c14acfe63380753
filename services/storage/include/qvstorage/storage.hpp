#pragma once
// One backend's place for the stores (a SQLite file, a PostgreSQL database), as the store factory
// opens it: it opens the knowledge store and the user store there, and gives the feed of changes
// when several daemons share the place.

#include <qvstorage/api.hpp>
#include <qvstorage/event_feed.hpp>
#include <qvstorage/triplet_store.hpp>
#include <qvstorage/user_store.hpp>

#include <memory>

namespace QV {

class QVSTORAGE_API Storage {
 public:
  virtual ~Storage();

  // Throws KnowledgeStoreError when the store cannot be opened.
  virtual std::shared_ptr<TripletStore> openTripletStore() = 0;
  // Throws UserSessionError when the store cannot be opened.
  virtual std::unique_ptr<UserStore> openUserStore() = 0;
  // The changes other daemons sharing the place announce; null when nobody else uses it.
  virtual std::shared_ptr<EventFeed> feed() = 0;

 protected:
  Storage() = default;
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
};

}  // namespace QV
