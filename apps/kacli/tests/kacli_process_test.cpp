// The kacli program against a middleware served by this test on a temporary unix socket: what a
// user sees on stdout and stderr, and the exit codes, for each command and failure.

#include "process_harness.hpp"

#include <ka/future.hpp>
#include <ka/objecttypebuilder.hpp>
#include <ka/session.hpp>

#include <gtest/gtest.h>
#include <boost/make_shared.hpp>

#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace {

using e2e::Finished;
using namespace std::chrono_literals;

// Every kacli run ends well within this, or the test fails instead of hanging.
constexpr auto kRunLimit = 30s;

constexpr auto kWait = 20s;
constexpr int kWaitMs = 20000;

// Whether someone subscribes to the served signal, to wait on before emitting.
class Subscriptions {
 public:
  void set(bool has) {
    std::lock_guard<std::mutex> lock(_mutex);
    _has = has;
    _changed.notify_all();
  }
  bool waitFor(bool has) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, kWait, [&] { return _has == has; });
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _has = false;  // guarded by _mutex
};

// Overloads, every kind of result, a failure, a call that never answers and a signal.
class Probe {
 public:
  int addInts(int a, int b) const { return a + b; }
  std::int64_t addLongs(std::int64_t a, std::int64_t b) const { return a + b; }
  std::string addTexts(const std::string& a, const std::string& b) const { return a + b; }
  ka::AnyValue echo(const ka::AnyValue& v) const { return v; }
  int fail() const { throw std::runtime_error("the probe refuses: broken on purpose"); }
  void nothing() const {}
  ka::AnyValue empty() const { return ka::AnyValue(); }
  std::tuple<int, std::string> pair() const { return {1, "one"}; }
  std::map<int, std::string> table() const { return {{2, "two"}, {1, "one"}}; }
  ka::Future<int> never() const { return _never.future(); }

  // Declared before the signal: the signal's hook may run while the signal is destroyed.
  Subscriptions subscriptions;
  ka::Signal<int, std::string> ticked{[this](bool has) { subscriptions.set(has); }};

 private:
  ka::Promise<int> _never;
};

void registerProbe() {
  static std::once_flag once;
  std::call_once(once, [] {
    ka::ObjectTypeBuilder<Probe> b;
    b.buildFor(true);
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    b.advertiseMethod("add", &Probe::addInts);
    b.advertiseMethod("add", &Probe::addLongs);
    b.advertiseMethod("add", &Probe::addTexts);
    b.advertiseMethod("echo", &Probe::echo);
    b.advertiseMethod("fail", &Probe::fail);
    b.advertiseMethod("nothing", &Probe::nothing);
    b.advertiseMethod("empty", &Probe::empty);
    b.advertiseMethod("pair", &Probe::pair);
    b.advertiseMethod("table", &Probe::table);
    b.advertiseMethod("never", &Probe::never);
    b.advertiseSignal("ticked", &Probe::ticked);
    b.registerType();
  });
}

// The probe published as "Probe" on a session listening on a unix socket.
class KacliAgainstAServedSession : public ::testing::Test {
 protected:
  void SetUp() override {
    registerProbe();
    std::filesystem::create_directories(dir.path / "var");
    socket = dir.path / "var" / "qvuserinfod.sock";
    url = "unix://" + socket.string();
    server->listen(url).value(kWaitMs);
    server->registerService("Probe", ka::AnyObject(probe)).value(kWaitMs);
  }
  void TearDown() override { server->close(); }

  Finished kacli(const std::vector<std::string>& args) {
    std::vector<std::string> all{"--url", url};
    all.insert(all.end(), args.begin(), args.end());
    return e2e::run(KACLI_PROGRAM, all, kRunLimit);
  }

  e2e::TempDir dir{"kacli"};
  std::filesystem::path socket;
  std::string url;
  ka::SessionPtr server = ka::makeSession();
  boost::shared_ptr<Probe> probe = boost::make_shared<Probe>();
};

void expectOk(const Finished& f, const std::string& out) {
  EXPECT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(f.out, out);
  EXPECT_EQ(f.err, "");
}

void expectFailure(const Finished& f, int code, const std::string& errLine) {
  EXPECT_EQ(f.exitCode, code);
  EXPECT_EQ(f.out, "");
  EXPECT_EQ(f.err, errLine + "\n");
}

TEST_F(KacliAgainstAServedSession, ServicesListsTheDirectoryInIdOrder) {
  expectOk(kacli({"services"}), "ServiceDirectory\nProbe\n");
}

TEST_F(KacliAgainstAServedSession, InfoListsMethodsAndSignalsSortedWithSignatures) {
  expectOk(kacli({"info", "Probe"}),
           "method add(ii) -> i\n"
           "method add(ll) -> l\n"
           "method add(ss) -> s\n"
           "method echo(m) -> m\n"
           "method empty() -> m\n"
           "method fail() -> i\n"
           "method never() -> i\n"
           "method nothing() -> v\n"
           "method pair() -> (is)\n"
           "method table() -> {is}\n"
           "signal ticked(is)\n");
}

TEST_F(KacliAgainstAServedSession, CallsPickTheOverloadFromTheArgumentsAndPrefixes) {
  expectOk(kacli({"call", "Probe.add", "1", "2"}), "3\n");
  expectOk(kacli({"--signature", "call", "Probe.add", "1", "2"}), "i 3\n");
  expectOk(kacli({"--signature", "call", "Probe.add", "l:1", "l:2"}), "l 3\n");
  // 2^31 does not fit the int overload: only the 64-bit one accepts it.
  expectOk(kacli({"--signature", "call", "Probe.add", "2147483648", "1"}), "l 2147483649\n");
  expectOk(kacli({"call", "Probe.add", "\"ab\"", "s:cd"}), "\"abcd\"\n");
  expectOk(kacli({"call", "Probe.add", "-5", "-1"}), "-6\n");
  expectOk(kacli({"call", "Probe.add", "--", "-5", "i:3"}), "-2\n");
  // Options may follow the subcommand, but not the method: what follows it is arguments.
  expectOk(kacli({"call", "--signature", "Probe.add", "s:1", "s:2"}), "s \"12\"\n");
  expectOk(kacli({"call", "Probe.add", "s:--signature", "s:2"}), "\"--signature2\"\n");
}

TEST_F(KacliAgainstAServedSession, FailuresPrintOneLineAndExitOneForCallsAndTwoForUsage) {
  expectFailure(kacli({"call", "Nope.add", "1"}), 1, "kacli: Cannot find service \"Nope\"");
  expectFailure(kacli({"info", "Nope"}), 1, "kacli: Cannot find service \"Nope\"");
  expectFailure(kacli({"call", "Probe.nope"}), 1, "kacli: Method \"nope\" not found");
  expectFailure(kacli({"call", "Probe.add", "[1]", "2"}), 1,
                "kacli: No overload of \"add\" accepts arguments ([i]i); candidates: "
                "add(ii), add(ll), add(ss)");
  expectFailure(kacli({"call", "Probe.fail"}), 1, "kacli: the probe refuses: broken on purpose");
  expectFailure(kacli({"watch", "Probe.nope"}), 1, "kacli: Signal \"nope\" not found");
  expectFailure(kacli({"--timeout", "0.3", "call", "Probe.never"}), 1,
                "kacli: Probe.never did not answer within 0.3 s");

  expectFailure(kacli({"call", "Probe.add", "1", "x"}), 2,
                "kacli: argument 2 (x): 'x' is not valid JSON (strings need quotes or the prefix "
                "s:): parse error at line 1, column 1: syntax error while parsing value - invalid "
                "literal; last read: 'x'");
  expectFailure(kacli({"call", "Probe.add", "i:4294967296", "1"}), 2,
                "kacli: argument 1 (i:4294967296): Cannot convert 'l' to 'i': 4294967296 is out "
                "of range");
  expectFailure(kacli({"call", "Probe.add", "i:\"x\"", "1"}), 2,
                "kacli: argument 1 (i:\"x\"): Cannot convert 's' to 'i': no conversion from "
                "string to int");
  expectFailure(kacli({"call", "Probe"}), 2, "kacli: expected SERVICE.METHOD, got \"Probe\"");
  expectFailure(kacli({"call"}), 2, "kacli: SERVICE.METHOD is required (see kacli --help)");
  expectFailure(kacli({"--timeout", "0", "services"}), 2,
                "kacli: --timeout: expected a positive number of seconds, got 0");
  expectFailure(kacli({"--timeout", "soon", "services"}), 2,
                "kacli: Could not convert: --timeout = soon (see kacli --help)");
  expectFailure(kacli({"watch", "Probe.ticked", "--count", "0"}), 2,
                "kacli: --count: expected a positive number, got 0");
}

TEST_F(KacliAgainstAServedSession, NoDaemonIsOneLineNamingTheUrl) {
  const std::string missing = "unix://" + (dir.path / "none.sock").string();
  const Finished f = e2e::run(KACLI_PROGRAM, {"--url", missing, "services"}, kRunLimit);
  expectFailure(f, 1, "kacli: no daemon at " + missing + ": No such file or directory");
}

TEST_F(KacliAgainstAServedSession, TheTokenComesFromAFileTheEnvironmentOrTheCommandLine) {
  ka::EndpointOptions options;
  options.token = "s3cret";
  const std::string guarded = "unix://" + (dir.path / "guarded.sock").string();
  server->listen(guarded, options).value(kWaitMs);
  const std::string file = (dir.path / "token").string();
  std::ofstream(file) << "s3cret\n";
  std::filesystem::permissions(
      file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const std::string warning = "kacli: warning: --token shows the secret in every process listing";
  struct Source {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string errStart;
  };
  const Source sources[] = {
      {{"--token-file", file}, {}, ""},
      {{}, {{"QV_TOKEN", "s3cret"}}, ""},
      {{"--token", "s3cret"}, {}, warning},
  };
  for (const Source& source : sources) {
    std::vector<std::string> args = {"--url", guarded};
    args.insert(args.end(), source.args.begin(), source.args.end());
    args.push_back("services");
    const Finished f = e2e::run(KACLI_PROGRAM, args, kRunLimit, source.env);
    EXPECT_EQ(f.exitCode, 0) << f.err;
    EXPECT_EQ(f.out, "ServiceDirectory\nProbe\n");
    EXPECT_EQ(f.err.rfind(source.errStart, 0), 0u) << f.err;
    EXPECT_EQ(f.err.empty(), source.errStart.empty()) << f.err;
  }
  const Finished without = e2e::run(KACLI_PROGRAM, {"--url", guarded, "services"}, kRunLimit);
  EXPECT_EQ(without.exitCode, 1);
  EXPECT_EQ(without.err.rfind("kacli: no daemon at " + guarded + ": ", 0), 0u) << without.err;
}

TEST_F(KacliAgainstAServedSession, TheUrlComesFromQvUrlThenFromTheCheckoutSocket) {
  Finished f = e2e::run(KACLI_PROGRAM, {"services"}, kRunLimit, {{"QV_URL", url}});
  expectOk(f, "ServiceDirectory\nProbe\n");
  // Without QV_URL, a socket at ./var/qvuserinfod.sock of the working directory is the one.
  f = e2e::run(KACLI_PROGRAM, {"services"}, kRunLimit, {{"QV_URL", ""}}, dir.path.string());
  expectOk(f, "ServiceDirectory\nProbe\n");
}

TEST_F(KacliAgainstAServedSession, WatchWithACountPrintsThatManyEventsAndExits) {
  e2e::Process watcher(KACLI_PROGRAM, {"--url", url, "watch", "Probe.ticked", "--count", "2"});
  ASSERT_TRUE(probe->subscriptions.waitFor(true));
  probe->ticked(1, "one");
  probe->ticked(2, "two \"quoted\"");
  probe->ticked(3, "three");  // may arrive before the watcher leaves; it is not printed
  ASSERT_EQ(watcher.waitExit(kWait), 0) << watcher.err();
  EXPECT_EQ(watcher.out(), "[1,\"one\"]\n[2,\"two \\\"quoted\\\"\"]\n");
  EXPECT_EQ(watcher.err(), "kacli: subscribed to Probe.ticked\n");
  EXPECT_TRUE(probe->subscriptions.waitFor(false));
}

TEST_F(KacliAgainstAServedSession, WatchPrintsEachEventAtOnceAndStopsCleanlyOnSigint) {
  e2e::Process watcher(KACLI_PROGRAM, {"--url", url, "--signature", "watch", "Probe.ticked"});
  ASSERT_TRUE(probe->subscriptions.waitFor(true));
  probe->ticked(7, "seven");
  // The line reaches the pipe while the watcher still runs: it is flushed per event.
  ASSERT_EQ(watcher.waitForLine("(is) ", kWait), "(is) [7,\"seven\"]");
  watcher.signal(SIGINT);
  EXPECT_EQ(watcher.waitExit(kWait), 0) << watcher.err();
  EXPECT_EQ(watcher.err(), "kacli: subscribed to Probe.ticked\n");
  EXPECT_TRUE(probe->subscriptions.waitFor(false));
}

TEST_F(KacliAgainstAServedSession, WatchEndsWithAnErrorWhenTheDaemonGoes) {
  e2e::Process watcher(KACLI_PROGRAM, {"--url", url, "watch", "Probe.ticked"});
  ASSERT_TRUE(probe->subscriptions.waitFor(true));
  server->close();
  EXPECT_EQ(watcher.waitExit(kWait), 1);
  // Lost while subscribing, the middleware adds the transport's reason; lost after it, the
  // subscription was announced first.
  std::string err = watcher.err();
  const std::string subscribed = "kacli: subscribed to Probe.ticked\n";
  if (err.rfind(subscribed, 0) == 0) {
    err.erase(0, subscribed.size());
  }
  EXPECT_EQ(err.rfind("kacli: Connection lost to " + url, 0), 0u) << err;
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
  EXPECT_EQ(watcher.out(), "");
}

}  // namespace
