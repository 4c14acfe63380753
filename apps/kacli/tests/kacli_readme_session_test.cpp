// The README's kacli session, command by command, against the real daemon on a temporary state
// directory: what the README shows is what this test sees.

#include "process_harness.hpp"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr auto kWait = 20s;

// The daemon on its own state directory, ready to answer; kacli finds it through QV_URL, as a
// plain `kacli` finds the daemon of scripts/run.sh through ./var.
class ReadmeSession : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto ready = daemon.waitForLine("ready ", kWait);
    ASSERT_TRUE(ready) << daemon.out() << daemon.err();
    const std::string rest = ready->substr(6);
    env["QV_URL"] = rest.substr(0, rest.find(' '));
  }
  void TearDown() override {
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitExit(kWait), 0) << daemon.err();
  }

  // `kacli <args>` answering `out` on stdout with nothing on stderr and exit code 0.
  void expectSession(const std::vector<std::string>& args, const std::string& out) {
    const e2e::Finished f = e2e::run(KACLI_PROGRAM, args, kWait, env);
    std::string command = "kacli";
    for (const auto& a : args) {
      command += " " + a;
    }
    SCOPED_TRACE(command);
    EXPECT_EQ(f.exitCode, 0) << f.err;
    EXPECT_EQ(f.out, out);
    EXPECT_EQ(f.err, "");
  }

  e2e::TempDir state{"kacli-readme"};
  e2e::Process daemon{QV_DAEMON_PATH, {"--state-dir", state.path.string()}};
  std::map<std::string, std::string> env;
};

// The age of someone born on 10 December 1990, today (local time, as the service computes it).
int ageToday() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  const int year = local.tm_year + 1900;
  const bool beforeBirthday =
      local.tm_mon + 1 < 12 || (local.tm_mon + 1 == 12 && local.tm_mday < 10);
  return year - 1990 - (beforeBirthday ? 1 : 0);
}

TEST_F(ReadmeSession, CreateFocusSetReadWatchAndDeleteAUser) {
  expectSession({"services"}, "ServiceDirectory\nQVKnowledge\nQVUserSession\nQVUserInfo\n");
  expectSession({"call", "QVUserSession.createUser"}, "1\n");
  expectSession({"call", "QVUserSession.setFocusedUser", "1"}, "true\n");
  expectSession({"call", "QVUserInfo._set", "s:name", "s:Ada"}, "true\n");
  expectSession({"call", "QVUserInfo._set", "s:birthyear", "1990"}, "true\n");
  expectSession({"call", "QVUserInfo._set", "s:birthmonth", "12"}, "true\n");
  expectSession({"call", "QVUserInfo._set", "s:birthday", "10"}, "true\n");
  expectSession({"call", "QVUserInfo.get", "s:age"}, std::to_string(ageToday()) + "\n");
  expectSession({"--signature", "call", "QVUserInfo.get", "s:name"}, "s \"Ada\"\n");
  expectSession({"call", "QVUserInfo.get", "s:pronunciation"}, "null\n");

  {
    e2e::Process watcher(KACLI_PROGRAM, {"watch", "QVUserInfo.userInfoEdited", "--count", "1"},
                         env);
    // The watcher says when it is subscribed: a change made after that line is never missed.
    ASSERT_EQ(watcher.waitForLine("kacli:", kWait, e2e::Process::Output::Err),
              "kacli: subscribed to QVUserInfo.userInfoEdited");
    expectSession({"call", "QVUserInfo._set", "s:fullname", "\"Ada King\""}, "true\n");
    EXPECT_EQ(watcher.waitExit(kWait), 0);
    EXPECT_EQ(watcher.out(), "[1,\"fullname\",\"Ada King\"]\n");
  }

  expectSession({"call", "QVUserSession.deleteUsers", "[1]"}, "true\n");
  expectSession({"call", "QVUserSession.users"}, "[]\n");
  // The user is unknown now: reads are refused (false, and the empty value for get).
  expectSession({"call", "QVUserInfo.has", "1", "s:name"}, "false\n");
  expectSession({"call", "QVUserInfo.get", "1", "s:name"}, "null\n");
  expectSession({"call", "QVUserInfo.get", "s:name"}, "null\n");  // nobody is focused
  // The service erases the data when it hears of the deletion, just after it.
  const std::vector<std::string> query = {
      "call", "QVKnowledge.queryTriplet", "s:com.quorvelin.userinfo", "s:1", "s:*", "s:*"};
  std::string left;
  for (int attempt = 0; attempt < 50; ++attempt) {
    left = e2e::run(KACLI_PROGRAM, query, kWait, env).out;
    if (left == "[]\n") {
      break;
    }
  }
  EXPECT_EQ(left, "[]\n");
}

}  // namespace
