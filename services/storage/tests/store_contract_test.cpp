// What every backend's stores answer alike, run on each backend the store factory knows: the
// SQLite file and a PostgreSQL database. A store opened again on the same place sees the same
// data, as a restarted daemon, or another daemon, would.

#include <qvstorage/store_factory.hpp>
#include <qvusersession/usersession_service.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pg_test_server.hpp"

namespace {

using namespace std::string_literals;
using QV::TripletStore;
using QV::UserSessionService;
using testing::ElementsAre;
using testing::HasSubstr;
using Objects = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;

// Where one test's stores live, gone with the object: the URI the factory opens them from.
class Place {
 public:
  virtual ~Place() = default;
  virtual std::string uri() const = 0;
};

class SqliteFile final : public Place {
 public:
  SqliteFile() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qv-store-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot make a temporary directory");
    }
    dir_ = pattern;
  }
  ~SqliteFile() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string uri() const override { return "sqlite:" + dir_ + "/knowledge.db"; }

 private:
  std::string dir_;
};

class PostgresSchema final : public Place {
 public:
  std::string uri() const override { return database_.uri(); }

 private:
  pgtest::TestDatabase database_;
};

struct Backend {
  const char* name;
  std::unique_ptr<Place> (*place)();
};

// Names the backend in the test list and in failures, instead of the struct's bytes.
void PrintTo(const Backend& backend, std::ostream* out) {
  *out << backend.name;
}

template <typename P>
std::unique_ptr<Place> make() {
  return std::make_unique<P>();
}

// Every backend of the factory: a new one is one more line here.
const Backend kBackends[] = {
    {"Sqlite", &make<SqliteFile>},
    {"Postgres", &make<PostgresSchema>},
};

// Durability is each backend's own test; here a commit need not wait for the disk.
const QV::StoreOptions kOptions{QV::Durability::Normal};

class StoreContract : public testing::TestWithParam<Backend> {
 protected:
  std::shared_ptr<TripletStore> openTriplets() const {
    return QV::openStorage(place->uri(), kOptions)->openTripletStore();
  }
  std::unique_ptr<UserSessionService> openUsers() const {
    return std::make_unique<UserSessionService>(
        QV::openStorage(place->uri(), kOptions)->openUserStore());
  }

  const std::unique_ptr<Place> place = GetParam().place();
  const std::shared_ptr<TripletStore> store = openTriplets();
};

INSTANTIATE_TEST_SUITE_P(Backends, StoreContract, testing::ValuesIn(kBackends),
                         [](const testing::TestParamInfo<Backend>& info) {
                           return std::string(info.param.name);
                         });

void fill(TripletStore& store, const Rows& rows) {
  for (const auto& row : rows) {
    store.add(row[0], row[1], row[2], row[3]);
  }
}

Rows all(const TripletStore& store) {
  return store.queryTriplet("*", "*", "*", "*");
}

// --- the knowledge store ---------------------------------------------------------------------

TEST_P(StoreContract, AddStoresADuplicateTripletOnceAtItsFirstPlaceAlsoInABatch) {
  store->add("users", "alice", "group", "staff");
  store->add("users", "alice", "group", "admins");
  store->add("users", "alice", "group", "staff");
  store->addMany({});
  store->addMany({{"users", "alice", "group", "ops"},
                  {"users", "bob", "group", "staff"},
                  {"users", "alice", "group", "admins"},
                  {"users", "bob", "group", "staff"}});
  EXPECT_EQ(store->getObject("users", "alice", "group"), (Objects{"staff", "admins", "ops"}));
  EXPECT_EQ(store->getObject("users", "bob", "group"), Objects{"staff"});
  EXPECT_EQ(store->getObject("users", "bob", "other"), Objects{});
}

TEST_P(StoreContract, UpdateLeavesOnlyTheNewObjectAsTheNewestRowOfItsKeyAndOtherKeysAlone) {
  fill(*store, {{"users", "alice", "email", "old1"},
                {"users", "alice", "email", "old2"},
                {"users", "alice", "phone", "555"},
                {"users", "bob", "email", "b"},
                {"groups", "alice", "email", "g"}});
  store->update("users", "alice", "email", "old2");  // already stored: kept once
  EXPECT_EQ(store->getObject("users", "alice", "email"), Objects{"old2"});
  store->update("users", "alice", "email", "new");
  store->update("users", "carol", "email", "c");  // a key that did not exist
  store->update("users", "?", "email", "q");      // wildcards are literal keys here
  store->update("users", "*", "*", "s");
  EXPECT_EQ(all(*store), (Rows{{"users", "alice", "phone", "555"},
                               {"users", "bob", "email", "b"},
                               {"groups", "alice", "email", "g"},
                               {"users", "alice", "email", "new"},
                               {"users", "carol", "email", "c"},
                               {"users", "?", "email", "q"},
                               {"users", "*", "*", "s"}}));
}

TEST_P(StoreContract, UpdateLeavesOneObjectEvenWithManyWritersOnOneKey) {
  // Writers through stores of their own, as several daemons would be.
  std::vector<std::shared_ptr<TripletStore>> writers{store, openTriplets(), openTriplets(),
                                                     openTriplets()};
  std::vector<std::thread> threads;
  for (std::size_t w = 0; w < writers.size(); ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < 40; ++i) {
        if (i % 5 == 4) {
          writers[w]->add("d", "s", "p", "added" + std::to_string(w));
        }
        writers[w]->update("d", "s", "p", std::to_string(w) + ":" + std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const Objects last = store->getObject("d", "s", "p");
  ASSERT_EQ(last.size(), 1u) << "an update is not atomic";
  EXPECT_THAT(last[0], HasSubstr(":39"));
}

// Removes `object` from the expected order and the store.
void removeObject(TripletStore& store, Objects& expected, std::string object) {
  expected.erase(std::find(expected.begin(), expected.end(), object));
  store.remove("users", "alice", "tag", object);
}

// An index returns a key's objects by their bytes; getObject() must still give them oldest
// first, through removals and re-adds, and without mixing in the objects of neighbouring keys.
TEST_P(StoreContract, GetObjectAnswersOldestFirstWhateverTheBytesThroughRemovesAndReAdds) {
  // Byte order far from insertion order: shuffled, with a shared prefix, NUL and high bytes.
  Objects fresh;
  for (int i = 0; i < 200; ++i) {
    fresh.push_back("tag" + std::to_string(i) + (i % 3 == 0 ? "\0x"s : "") +
                    (i % 5 == 0 ? "\xFF" : ""));
  }
  std::shuffle(fresh.begin(), fresh.end(), std::mt19937(11));
  // Neighbouring keys on both sides of the key in the index.
  store->add("users", "alice", "tae", "before");
  store->add("users", "alice", "tag\0"s, "after");
  Objects expected;
  for (std::size_t i = 0; i < fresh.size(); ++i) {
    store->add("users", "alice", "tag", fresh[i]);
    expected.push_back(fresh[i]);
    if (i % 7 == 6) {  // drop an older object now and then, the newest one too
      removeObject(*store, expected,
                   expected[i % 2 == 0 ? expected.size() - 1 : expected.size() / 2]);
    }
  }
  ASSERT_EQ(store->getObject("users", "alice", "tag"), expected);
  // A re-added object is the newest; re-adding a stored one changes nothing.
  const Objects reAdded = {expected.front(), expected[expected.size() / 2]};
  for (const std::string& object : reAdded) {
    removeObject(*store, expected, object);
    store->add("users", "alice", "tag", object);
    expected.push_back(object);
  }
  store->add("users", "alice", "tag", expected.front());
  EXPECT_EQ(store->getObject("users", "alice", "tag"), expected);
  EXPECT_EQ(store->getObject("users", "alice", "tae"), Objects{"before"});
}

// Splits `stored` into the rows `pattern` matches, when `wildcard` matches anything from position
// `first` on, and the rest.
std::pair<Rows, Rows> split(const Rows& stored, const Objects& pattern, const std::string& wildcard,
                            int first) {
  std::pair<Rows, Rows> parts;
  for (const auto& row : stored) {
    bool match = true;
    for (int i = 0; i < 4; ++i) {
      match = match && (pattern[i] == row[i] || (i >= first && pattern[i] == wildcard));
    }
    (match ? parts.first : parts.second).push_back(row);
  }
  return parts;
}

// "?" is a wildcard in the subject, predicate and object of contains() and remove(); "*" in any
// position of queryTriplet(). Everywhere else, getObject() included, both are plain bytes.
TEST_P(StoreContract, EveryCallSelectsTheRowsItsWildcardsAndLiteralsMatchInStorageOrder) {
  // Stored out of every index order, so that the result order shows storage order; the last two
  // keys concatenate like users/bob/email.
  const Rows stored = {
      {"prefs", "carol", "theme", "dark"},
      {"users", "alice", "email", "a@x"},
      {"auth", "alice", "role", "admin"},
      {"users", "bob", "email", "b@x"},
      {"prefs", "alice", "theme", "dark"},
      {"users", "alice", "group", "staff"},
      {"auth", "bob", "role", "user"},
      {"users", "?", "email", "question"},
      {"prefs", "bob", "theme", "light"},
      {"users", "*", "*", "star"},
      {"users", "alice", "group", "admin"},
      {"users", "carol", "email", "dark"},
      {"usersb", "ob", "email", "light"},
      {"users", "bobe", "mail", "dark"},
      {"?", "?", "?", "?"},
  };
  fill(*store, stored);
  // Each removal runs on a store of a place of its own, emptied and refilled before it.
  const auto scratchPlace = GetParam().place();
  const auto scratch = QV::openStorage(scratchPlace->uri(), kOptions)->openTripletStore();
  const Objects domains = {"prefs", "users", "auth", "usersb", "?"};
  std::vector<QV::Triplet> triplets;
  for (const auto& row : stored) {
    triplets.push_back({row[0], row[1], row[2], row[3]});
  }
  Rows probes = stored;  // and probes that miss in one position or hold a wildcard plus more
  probes.insert(probes.end(), {{"auth", "alice", "email", "a@x"},
                               {"users", "bob", "group", "staff"},
                               {"users", "alice", "theme", "dark"},
                               {"users", "alice", "email", "b@x"},
                               {"users", "??", "email", "question"},
                               {"users", "alice", "email", "?\0"s}});
  for (const auto& probe : probes) {
    for (const std::string wildcard : {"?", "*"}) {
      for (unsigned mask = 0; mask < 16; ++mask) {
        Objects p = probe;
        for (int i = 0; i < 4; ++i) {
          p[i] = (mask & (1u << i)) ? wildcard : p[i];
        }
        SCOPED_TRACE(::testing::PrintToString(p));
        EXPECT_EQ(store->queryTriplet(p[0], p[1], p[2], p[3]), split(stored, p, "*", 0).first);
        Objects objects;
        for (const auto& row : split(stored, {p[0], p[1], p[2], "*"}, "*", 3).first) {
          objects.push_back(row[3]);
        }
        EXPECT_EQ(store->getObject(p[0], p[1], p[2]), objects);
        const auto [removed, left] = split(stored, p, "?", 1);
        EXPECT_EQ(store->contains(p[0], p[1], p[2], p[3]), !removed.empty());
        for (const auto& domain : domains) {
          scratch->remove(domain, "?", "?", "?");
        }
        scratch->addMany(triplets);
        scratch->remove(p[0], p[1], p[2], p[3]);
        EXPECT_EQ(all(*scratch), left);
      }
    }
  }
}

TEST_P(StoreContract, KeepsEveryValueAsItsExactBytesWithoutTruncatingFoldingOrTrimming) {
  const std::string utf8 = "J\xC3\xBCrgen \xE2\x9C\x93 \xF0\x9F\x98\x80",
                    binary = "\xFF\xFE\x80 bytes";
  const Objects values = {"a",      "a\0b"s,  "a\0c"s, "alice", "Alice",
                          "alice ", " alice", "",      utf8,    binary};
  for (const auto& value : values) {
    store->add(value, value, value, value);  // every position holds the same bytes
  }
  for (const auto& value : values) {
    SCOPED_TRACE(::testing::PrintToString(value));
    EXPECT_EQ(store->getObject(value, value, value), Objects{value});
    EXPECT_EQ(store->queryTriplet("*", "*", "*", value), (Rows{{value, value, value, value}}));
    for (const auto& other : values) {
      EXPECT_EQ(store->contains(value, value, value, other), value == other);
    }
  }
  // A large object, whole.
  const std::string large(100 * 1024, 'x');
  store->update("a", "b", "c", large);
  EXPECT_EQ(store->getObject("a", "b", "c"), Objects{large});
  EXPECT_FALSE(store->contains("a", "b", "c", large + "y"));
}

// --- the user store ----------------------------------------------------------------------------

TEST_P(StoreContract, UserIdsIncreaseAndAreNeverReusedInARunOrAcrossRestarts) {
  {
    auto users = openUsers();
    EXPECT_EQ(users->createUser(), 1);
    EXPECT_EQ(users->createUser(), 2);
    EXPECT_EQ(users->createUser(), 3);
    ASSERT_TRUE(users->deleteUsers({3}));
    EXPECT_EQ(users->createUser(), 4) << "the deleted highest id came back in the same run";
    ASSERT_TRUE(users->deleteUsers({4, 2}));
  }
  auto restarted = openUsers();
  EXPECT_THAT(restarted->users(), ElementsAre(1));
  EXPECT_EQ(restarted->createUser(), 5) << "the deleted highest id came back after a restart";
}

TEST_P(StoreContract, DeletingUsersIsAllOrNothingAndTakesTheFocusFirst) {
  auto users = openUsers();
  const int a = users->createUser();
  const int b = users->createUser();
  EXPECT_FALSE(users->deleteUsers({a, 99}));
  EXPECT_FALSE(users->deleteUsers({a, a}));
  EXPECT_EQ(users->users(), (std::vector<int>{a, b}));

  EXPECT_FALSE(users->setFocusedUser(99));
  EXPECT_TRUE(users->setFocusedUser(b));
  EXPECT_EQ(users->getFocusedUser(), b);

  std::vector<std::string> heard;  // the subscribers are direct: the test thread writes alone
  (void)users->focusChanged.connect([&](int id) { heard.push_back("focus " + std::to_string(id)); },
                                    ka::MetaCallType::Direct);
  (void)users->deletedUsers.connect(
      [&](std::vector<int> ids) { heard.push_back("deleted " + std::to_string(ids.size())); },
      ka::MetaCallType::Direct);
  EXPECT_TRUE(users->deleteUsers({b, a}));
  EXPECT_THAT(heard, ElementsAre("focus -1", "deleted 2"));
  EXPECT_EQ(users->getFocusedUser(), -1);
  EXPECT_FALSE(users->doesUserExist(a));
}

}  // namespace
