// The daemon as a user runs it: the real qvuserinfod binary on a fresh temporary directory and
// socket, driven through the middleware by a client session in this process.

#include "daemon_fixture.hpp"

#include <qvsqlite/sqlite_user_store.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/anyvalue.hpp>
#include <ka/session.hpp>

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using e2e::AcknowledgedWrites;
using e2e::Client;
using e2e::contains;
using e2e::Daemon;
using e2e::expectNoSanitizerReport;
using e2e::kCallMs;
using e2e::kLimit;
using e2e::lines;
using e2e::Millis;
using e2e::Process;

namespace {

TEST_F(Daemon, PrintsItsSettingsThenOneReadyLineAndStopsCleanlyOnSigterm) {
  auto daemon = start();
  ASSERT_TRUE(daemon);
  const std::string db = (stateDir() / "knowledge.db").string();
  EXPECT_EQ(
      lines(daemon->out()),
      (std::vector<std::string>{"database: " + db, "durability: full", "listen: " + socketUrl(),
                                "user session: own", "log: warning", "ready " + socketUrl()}));
  EXPECT_TRUE(fs::exists(db));
  EXPECT_TRUE(fs::exists(db + ".users"));
  stop(*daemon);
  EXPECT_FALSE(fs::exists(stateDir() / "qvuserinfod.sock")) << "the socket file is left behind";

  // The same store named as a URI, its relative path taken from where the daemon starts.
  auto again =
      start({"--state-dir", stateDir().string(), "--store", "sqlite:" + fs::relative(db).string()});
  ASSERT_TRUE(again);
  EXPECT_EQ(lines(again->out()).front(), "store: sqlite:" + db);
  stop(*again);
}

TEST_F(Daemon, WithoutFlagsPutsTheSocketInTheRuntimeDirAndTheStoreInTheDataDir) {
  auto daemon = start({"--log", "QVUser*=verbose"});
  ASSERT_TRUE(daemon);
  const std::string url = "unix://" + (dir_ / "run/qvuserinfo/qvuserinfod.sock").string();
  const auto out = lines(daemon->out());
  EXPECT_EQ(out.front(), "database: " + (dir_ / "data/qvuserinfo/knowledge.db").string());
  EXPECT_EQ(out.back(), "ready " + url);
  EXPECT_TRUE(contains(daemon->out(), "log: warning QVUser*=verbose\n")) << daemon->out();
  Client client(url);
  EXPECT_GT(client.createUser(), 0);
  stop(*daemon);
}

TEST_F(Daemon, ASecondDaemonOnTheSameSocketExitsWithOneLineWhileTheFirstKeepsServing) {
  auto first = start();
  ASSERT_TRUE(first);
  const std::string line = startFails({"--state-dir", stateDir().string()});
  EXPECT_EQ(line.rfind("qvuserinfod: listen: ", 0), 0u) << line;
  EXPECT_TRUE(contains(line, socketUrl()) && contains(line, "already served")) << line;

  Client client(socketUrl());
  EXPECT_GT(client.createUser(), 0);
  stop(*first);
}

TEST_F(Daemon, RefusesToStartWithOneLineNamingWhatItCannotUse) {
  // A directory where the database should be.
  fs::create_directories(dir_ / "adir");
  std::string line =
      startFails({"--state-dir", stateDir().string(), "--database", (dir_ / "adir").string()});
  EXPECT_EQ(line.rfind("qvuserinfod: database: ", 0), 0u) << line;
  EXPECT_TRUE(contains(line, (dir_ / "adir").string())) << line;

  // A damaged file: not a SQLite database.
  const fs::path damaged = dir_ / "damaged.db";
  std::ofstream(damaged) << std::string(8192, 'x');
  line = startFails({"--state-dir", stateDir().string(), "--database", damaged.string()});
  EXPECT_EQ(line.rfind("qvuserinfod: database: ", 0), 0u) << line;
  EXPECT_TRUE(contains(line, damaged.string())) << line;

  // A directory nobody may write into (skipped as root, who may write anywhere).
  if (::geteuid() != 0) {
    fs::create_directories(dir_ / "locked");
    fs::permissions(dir_ / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    line = startFails({"--state-dir", stateDir().string(), "--database",
                       (dir_ / "locked/knowledge.db").string()});
    EXPECT_EQ(line.rfind("qvuserinfod: database: ", 0), 0u) << line;
    fs::permissions(dir_ / "locked", fs::perms::owner_all);
  }

  // Nothing serves the directory it should join.
  line = startFails({"--database", (dir_ / "k.db").string(), "--connect",
                     "unix://" + (dir_ / "nobody.sock").string()});
  EXPECT_EQ(line.rfind("qvuserinfod: connect: ", 0), 0u) << line;

  // A runtime dir that others could enter.
  fs::create_directories(dir_ / "run/qvuserinfo");
  fs::permissions(dir_ / "run/qvuserinfo", fs::perms::owner_all | fs::perms::group_all);
  line = startFails({"--database", (dir_ / "k.db").string()});
  EXPECT_EQ(line.rfind("qvuserinfod: state directory: ", 0), 0u) << line;
  EXPECT_TRUE(contains(line, "0770")) << line;
}

TEST_F(Daemon, RefusesAnEndpointItCannotBindAndBadUsageWithExitCodeTwo) {
  auto first = start({"--state-dir", stateDir().string(), "--listen", "tcp://127.0.0.1:0"});
  ASSERT_TRUE(first);
  const std::string ready = *first->waitForLine("ready ", kLimit);
  const std::string taken = ready.substr(std::string("ready ").size());
  const std::string line =
      startFails({"--state-dir", (dir_ / "other").string(), "--listen", taken});
  EXPECT_EQ(line.rfind("qvuserinfod: listen: ", 0), 0u) << line;
  stop(*first);

  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"--listen", socketUrl(), "--connect", socketUrl()},
        {"--durability", "sometimes"},
        {"--store", "mysql://db/qv"},
        {"--log", "loud"},
        {"--no-such-flag"}}) {
    const auto done = e2e::run(QV_DAEMON_PATH, bad, kLimit, env_);
    EXPECT_EQ(done.exitCode, 2) << bad.front() << ": " << done.err;
    EXPECT_FALSE(done.err.empty());
  }
  const auto help = e2e::run(QV_DAEMON_PATH, {"--help"}, kLimit, env_);
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_TRUE(contains(help.out, "--state-dir") && contains(help.out, "--no-user-session"))
      << help.out;
}

TEST_F(Daemon, ListensOnTcpLoopbackAndPrintsTheChosenPort) {
  auto daemon = start({"--state-dir", stateDir().string(), "--listen", "tcp://127.0.0.1:0",
                       "--listen", socketUrl()});
  ASSERT_TRUE(daemon);
  const std::string ready = *daemon->waitForLine("ready ", kLimit);
  const std::string prefix = "ready tcp://127.0.0.1:";
  ASSERT_EQ(ready.rfind(prefix, 0), 0u) << ready;
  const std::string tcp = ready.substr(6, ready.find(' ', 6) - 6);
  EXPECT_NE(tcp, "tcp://127.0.0.1:0");
  EXPECT_EQ(ready, "ready " + tcp + " " + socketUrl());
  Client overTcp(tcp);
  const int user = overTcp.createUser();
  EXPECT_TRUE(overTcp.set(user, "name", "Grace"));
  Client overUnix(socketUrl());
  EXPECT_EQ(overUnix.get(user, "name"), "Grace");
  stop(*daemon);
}

TEST_F(Daemon, LosesNoAcknowledgedWriteWhenStoppedDuringAStreamOfWrites) {
  auto daemon = start();
  ASSERT_TRUE(daemon);
  AcknowledgedWrites writes(socketUrl(), 4);
  EXPECT_TRUE(writes.waitFor(40));
  daemon->signal(SIGTERM);
  writes.join();
  const auto code = daemon->waitExit(kLimit);
  ASSERT_TRUE(code);
  EXPECT_EQ(*code, 0) << daemon->err();
  EXPECT_EQ(lines(daemon->out()).back(), "stopped");
  expectNoSanitizerReport(daemon->err());

  daemon = start();
  ASSERT_TRUE(daemon);
  Client client(socketUrl());
  writes.expectAllThere(client);
  stop(*daemon);
}

TEST_F(Daemon, JoinsADirectoryServedElsewhereAndUsesItsUserSession) {
  // Another process serves the directory and the user-session service.
  auto host = ka::makeSession();
  const std::string url = "unix://" + (dir_ / "host.sock").string();
  host->listen(url).value(kCallMs);
  QV::registerUserSessionService(host, QV::openSqliteUserStore((dir_ / "users.db").string()))
      .value(kCallMs);

  auto daemon =
      start({"--connect", url, "--database", (dir_ / "joined.db").string(), "--no-user-session"});
  ASSERT_TRUE(daemon);
  EXPECT_TRUE(contains(daemon->out(), "connect: " + url + "\nuser session: external\n"))
      << daemon->out();
  EXPECT_EQ(lines(daemon->out()).back(), "ready connected " + url);
  {
    Client client(url);
    const int user = client.createUser();
    EXPECT_TRUE(client.set(user, "name", "Hedy"));
    EXPECT_EQ(client.get(user, "name"), "Hedy");
    ka::AnyObject knowledge = client.session->service("QVKnowledge").value(kCallMs);
    EXPECT_FALSE(knowledge
                     ->call<std::vector<std::vector<std::string>>>(
                         "queryTriplet", "*", std::to_string(user), "name", "*")
                     .empty());
  }

  // A second daemon joining the same directory would publish the same names: refused.
  const std::string line = startFails(
      {"--connect", url, "--database", (dir_ / "second.db").string(), "--no-user-session"});
  EXPECT_EQ(line.rfind("qvuserinfod: publish QVKnowledge: ", 0), 0u) << line;

  stop(*daemon);
  host->close();
}

}  // namespace
