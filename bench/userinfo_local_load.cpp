// In-process cost of the service front QV::QVUserInfo, with the real "QVKnowledge" and
// "QVUserSession" served on a session of the same process, next to the raw SQLite statements
// the same operations run, prepared on connections of their own to the same files:
// - get, has and _set on the database given with --db (synchronous=NORMAL on both sides);
// - _set with Durability Full next to a raw replace with synchronous=FULL;
// - get on the databases given with --small and --large, to compare how both sides grow.
// Each case runs in alternating rounds (ours, raw, ours, raw): the best round counts, which
// keeps the figures of a shared machine closer to what the code costs.
//
// Prints one "result <key> <value>" line per figure: p50 in microseconds, ops per second.
//
// Usage: userinfo_local_load --db PATH [--small PATH --large PATH] [--seconds S]
// (databases as userinfo_bulk_load builds them; S: the time given to each side of a case).

#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>
#include <qvsqlite/sqlite_user_store.hpp>
#include <qvuserinfo/qvuserinfo.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/session.hpp>

#include <SQLiteCpp/SQLiteCpp.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench_store.hpp"
#include "bench_timing.hpp"

namespace {

using bench::Budget;
using bench::Result;

const std::string kDomain = bench::kDomain;
const std::string kRangeType = bench::kRangeType;
const std::string kDataName = "birthyear";

// The front on its own session, and raw connections to the files it uses, with the store's own
// SQL and the user-session store's existence check.
class World {
 public:
  World(const std::string& path, QV::Durability durability) {
    QV::TripletStoreOptions storeOptions;
    storeOptions.durability = durability;
    store_ = std::make_shared<QV::SqliteTripletStore>(path, storeOptions);
    QV::UserSessionOptions sessionOptions;
    sessionOptions.durability = durability;
    userSession_ = boost::make_shared<QV::UserSessionService>(
        QV::openSqliteUserStore(QV::userSessionPathBeside(path), sessionOptions));
    users = static_cast<int>(userSession_->users().size());
    if (users == 0) {
      throw std::runtime_error(path + " has no users: build it with userinfo_bulk_load");
    }
    session_ = ka::makeSession();
    session_->registerService("QVKnowledge", QV::makeKnowledgeObject(store_)).value();
    session_->registerService("QVUserSession", QV::makeUserSessionObject(userSession_)).value();
    info = std::make_unique<QV::QVUserInfo>(session_);

    std::map<std::string, std::string> sql;
    for (const auto& plan : store_->explainQueryPlans()) {
      sql[plan.statement] = plan.sql;
    }
    const int flags = SQLite::OPEN_NOMUTEX;
    reader_ = std::make_unique<SQLite::Database>(path, flags | SQLite::OPEN_READONLY, 5000);
    writer_ = std::make_unique<SQLite::Database>(path, flags | SQLite::OPEN_READWRITE, 5000);
    usersReader_ = std::make_unique<SQLite::Database>(QV::userSessionPathBeside(path),
                                                      flags | SQLite::OPEN_READONLY, 5000);
    for (auto* db : {reader_.get(), writer_.get(), usersReader_.get()}) {
      db->exec("PRAGMA temp_store = MEMORY");
      db->exec("PRAGMA mmap_size = " + std::to_string(std::size_t{2} << 30));
    }
    writer_->exec(durability == QV::Durability::Full ? "PRAGMA synchronous = FULL"
                                                     : "PRAGMA synchronous = NORMAL");
    getObject_ = std::make_unique<SQLite::Statement>(*reader_, sql.at("getObject(d,s,p)"));
    contains_ = std::make_unique<SQLite::Statement>(*reader_, sql.at("contains(d,s,p,?)"));
    remove_ = std::make_unique<SQLite::Statement>(*writer_, sql.at("remove(d,s,p,?)"));
    insert_ = std::make_unique<SQLite::Statement>(*writer_, sql.at("insert(d,s,p,o)"));
    // The user-session store's doesUserExist statement.
    userExists_ =
        std::make_unique<SQLite::Statement>(*usersReader_, "SELECT 1 FROM users WHERE id = ?");
  }

  ~World() {
    getObject_.reset();
    contains_.reset();
    remove_.reset();
    insert_.reset();
    userExists_.reset();
    reader_.reset();
    writer_.reset();
    usersReader_.reset();
    info.reset();
    session_->close();
  }

  // What get(id, name) runs: the user check, the datum, its declared type.
  std::string rawGet(int user) {
    check(rawUserExists(user));
    const std::string subject = std::to_string(user);
    auto value = bench::selectObjects(*getObject_, kDomain, subject, kDataName);
    auto type = bench::selectObjects(*getObject_, kDomain, kDataName, kRangeType);
    check(!value.empty() && !type.empty());
    return value.front();
  }

  // What has(id, name) runs: the user check, then whether any object is under the key.
  bool rawHas(int user) {
    check(rawUserExists(user));
    const std::string subject = std::to_string(user);
    return bench::yieldsRow(*contains_, {&kDomain, &subject, &kDataName});
  }

  // What _set(id, name, int) runs: the user check, the declared type, then the replacement of
  // the datum in one immediate transaction.
  void rawSet(int user, int value) {
    check(rawUserExists(user));
    auto type = bench::selectObjects(*getObject_, kDomain, kDataName, kRangeType);
    check(!type.empty() && type.front() == "int");
    const std::string subject = std::to_string(user);
    const std::string text = std::to_string(value);
    SQLite::Transaction transaction(*writer_, SQLite::TransactionBehavior::IMMEDIATE);
    bench::execute(*remove_, {&kDomain, &subject, &kDataName});
    bench::execute(*insert_, {&kDomain, &subject, &kDataName, &text});
    transaction.commit();
  }

  std::unique_ptr<QV::QVUserInfo> info;
  int users = 0;

 private:
  static void check(bool ok) {
    if (!ok) {
      throw std::runtime_error("the raw statements did not find the bench's data");
    }
  }

  bool rawUserExists(int user) {
    userExists_->bind(1, user);
    const bool found = userExists_->executeStep();
    userExists_->reset();
    return found;
  }

  std::shared_ptr<QV::SqliteTripletStore> store_;
  boost::shared_ptr<QV::UserSessionService> userSession_;
  ka::SessionPtr session_;
  std::unique_ptr<SQLite::Database> reader_;
  std::unique_ptr<SQLite::Database> writer_;
  std::unique_ptr<SQLite::Database> usersReader_;
  std::unique_ptr<SQLite::Statement> getObject_;
  std::unique_ptr<SQLite::Statement> contains_;
  std::unique_ptr<SQLite::Statement> remove_;
  std::unique_ptr<SQLite::Statement> insert_;
  std::unique_ptr<SQLite::Statement> userExists_;
};

void report(const std::string& key, const Result& r) {
  std::printf("result %s.p50 %.3f\nresult %s.ops %.0f\n", key.c_str(), r.p50Us, key.c_str(),
              r.perSecond);
  std::fflush(stdout);
}

Result best(const Result& a, const Result& b) {
  return Result{std::min(a.p50Us, b.p50Us), std::min(a.p99Us, b.p99Us),
                std::max(a.perSecond, b.perSecond), a.calls + b.calls};
}

// Two alternating rounds of ours and raw, half the time each; reports the best of each side.
template <typename Ours, typename Raw>
void compare(const std::string& key, double seconds, Ours&& ours, Raw&& raw) {
  const Budget budget{0, seconds / 2};
  Result o = bench::measure(1, budget, [&](int) { ours(); });
  Result r = bench::measure(1, budget, [&](int) { raw(); });
  o = best(o, bench::measure(1, budget, [&](int) { ours(); }));
  r = best(r, bench::measure(1, budget, [&](int) { raw(); }));
  report(key + ".ours", o);
  report(key + ".raw", r);
}

void checkAnswer(bool ok, const char* what) {
  if (!ok) {
    throw std::runtime_error(std::string("QVUserInfo refused a ") + what + " of the bench");
  }
}

// get, has and _set through the front and as raw statements.
void operations(const std::string& path, double seconds) {
  World w(path, QV::Durability::Normal);
  bench::UserPicker ours(w.users, 1), raw(w.users, 1);
  compare(
      "inproc.get", seconds,
      [&] { checkAnswer(w.info->get(ours.next(), kDataName).kind() == ka::TypeKind::Int, "get"); },
      [&] { (void)w.rawGet(raw.next()); });
  compare(
      "inproc.has", seconds, [&] { checkAnswer(w.info->has(ours.next(), kDataName), "has"); },
      [&] { checkAnswer(w.rawHas(raw.next()), "raw has"); });
  int year = 0;
  compare(
      "inproc.set", seconds,
      [&] {
        checkAnswer(w.info->_set(ours.next(), kDataName, ka::AnyValue(1940 + year++ % 70)), "_set");
      },
      [&] { w.rawSet(raw.next(), 1940 + year++ % 70); });
}

void durableWrites(const std::string& path, double seconds) {
  World w(path, QV::Durability::Full);
  bench::UserPicker ours(w.users, 1), raw(w.users, 1);
  int year = 0;
  compare(
      "durable.set", seconds,
      [&] {
        checkAnswer(w.info->_set(ours.next(), kDataName, ka::AnyValue(1940 + year++ % 70)), "_set");
      },
      [&] { w.rawSet(raw.next(), 1940 + year++ % 70); });
}

void lookups(const std::string& key, const std::string& path, double seconds) {
  World w(path, QV::Durability::Normal);
  bench::UserPicker ours(w.users, 1), raw(w.users, 1);
  compare(
      key, seconds,
      [&] { checkAnswer(w.info->get(ours.next(), kDataName).kind() == ka::TypeKind::Int, "get"); },
      [&] { (void)w.rawGet(raw.next()); });
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> options{{"--seconds", "1"}};
  for (int i = 1; i + 1 < argc; i += 2) {
    options[argv[i]] = argv[i + 1];
  }
  if (argc % 2 == 0 || options.count("--db") == 0 ||
      options.count("--small") != options.count("--large")) {
    std::fprintf(stderr,
                 "usage: userinfo_local_load --db PATH [--small PATH --large PATH] "
                 "[--seconds S]\n");
    return 2;
  }
  const double seconds = std::atof(options["--seconds"].c_str());
  try {
    operations(options["--db"], seconds);
    durableWrites(options["--db"], seconds);
    if (options.count("--small") != 0) {
      lookups("scale.small", options["--small"], seconds);
      lookups("scale.large", options["--large"], seconds);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "userinfo_local_load: %s\n", e.what());
    return 1;
  }
  return 0;
}
