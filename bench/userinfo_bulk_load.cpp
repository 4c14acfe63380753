// Builds a user information database for the benches: USERS users in the user-session store
// beside DATABASE (ids 1..USERS) and, in the knowledge store DATABASE, ten data per user in the
// service's domain with their declared types: USERS x 10 triplets (plus ten type records).
// Writes in bulk through the stores themselves, with synchronous=NORMAL.
//
// Usage: userinfo_bulk_load DATABASE USERS

#include <qvsqlite/sqlite_triplet_store.hpp>
#include <qvsqlite/sqlite_user_store.hpp>
#include <qvusersession/usersession_service.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "bench_store.hpp"

int main(int argc, char** argv) {
  if (argc != 3 || std::atoi(argv[2]) <= 0) {
    std::fprintf(stderr, "usage: userinfo_bulk_load DATABASE USERS\n");
    return 2;
  }
  const std::string path = argv[1];
  const int users = std::atoi(argv[2]);
  const auto start = std::chrono::steady_clock::now();
  try {
    QV::TripletStoreOptions options;
    options.durability = QV::Durability::Normal;
    QV::SqliteTripletStore store(path, options);
    std::vector<QV::Triplet> batch;
    for (const char* name : bench::kNames) {
      batch.push_back({bench::kDomain, name, bench::kRangeType, bench::typeOf(name)});
    }
    // One transaction per 10,000 users keeps the batch small and the commits few.
    constexpr int kUsersPerBatch = 10000;
    for (int user = 1; user <= users; ++user) {
      for (const char* name : bench::kNames) {
        batch.push_back({bench::kDomain, std::to_string(user), name, bench::valueOf(name, user)});
      }
      if (user % kUsersPerBatch == 0 || user == users) {
        store.addMany(batch);
        batch.clear();
      }
    }

    QV::UserSessionOptions sessionOptions;
    sessionOptions.durability = QV::Durability::Normal;
    QV::UserSessionService userSession(
        QV::openSqliteUserStore(QV::userSessionPathBeside(path), sessionOptions));
    const auto known = userSession.users();
    for (int created = static_cast<int>(known.size()); created < users; ++created) {
      userSession.createUser();
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "userinfo_bulk_load: %s\n", e.what());
    return 1;
  }
  std::printf("%s: %d users, %d triplets in %.1f s\n", path.c_str(), users,
              users * bench::kNamesPerUser + bench::kNamesPerUser,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  return 0;
}
