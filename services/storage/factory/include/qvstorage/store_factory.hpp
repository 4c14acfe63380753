#pragma once
// Opens the stores' place a URI names, with whichever backend takes that URI:
//   postgresql://... or postgres://...   a PostgreSQL database shared by several daemons
//   sqlite:PATH, or any other text       the SQLite file PATH (the users in PATH.users)
// Libraries that only use the stores depend on qvstorage's interfaces, never on this.

#include <qvstorage/durability.hpp>
#include <qvstorage/storage.hpp>

#include <memory>
#include <string>

// Marks the symbols that libqvstorefactory exports; everything else stays hidden.
#define QVSTOREFACTORY_API __attribute__((visibility("default")))

namespace QV {

// Throws the backend's error (a std::runtime_error naming the place and the reason) when the
// place cannot be reached; a SQLite file is only opened by the Storage's open calls.
QVSTOREFACTORY_API std::unique_ptr<Storage> openStorage(const std::string& uri,
                                                        const StoreOptions& options = {});

}  // namespace QV
