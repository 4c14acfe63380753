#pragma once
// What the service front's tests share: the front published on an in-process session next to a
// recording "QVKnowledge" and a scripted or real "QVUserSession", a client's view of the published
// front from a second session, and the signals that client receives.

#include "userdata_fixture.hpp"

#include <qvsqlite/sqlite_user_store.hpp>
#include <qvuserinfo/qvuserinfo.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/anyvalue.hpp>
#include <ka/object.hpp>
#include <ka/session.hpp>

#include <gtest/gtest.h>

#include <boost/shared_ptr.hpp>

#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace front_test {

using userdata_test::kOwnDomain;
using userdata_test::kWaitMs;
using userdata_test::LogLine;
using userdata_test::LogLines;
using userdata_test::StoreCall;
using userdata_test::StoreCalls;

inline const std::string kOtherDomain = "com.example.app";
inline const std::string kPhotoDomain = "com.quorvelin.photostorage";

// A line of the front's category, with no file and line 0 as every line of the front is.
LogLine frontLine(ka::LogLevel level, const std::string& function, const std::string& message);
// The two lines of an operation that needs a user while "QVUserSession" is absent.
LogLines serviceAbsentLines();

struct UserSessionOptions {
  // Leaving a signal out makes the front's subscription to it fail.
  bool createdUsersSignal = true;
  bool deletedUsersSignal = true;
};

// "QVUserSession" under the test's control: the focused user, the known users, a failing
// "doesUserExist", the calls it received, and its two signals on demand.
class UserSessionDouble {
 public:
  explicit UserSessionDouble(UserSessionOptions options = {});

  ka::AnyObject object() const { return object_; }

  void setFocusedUser(int userId);
  void setKnownUsers(std::vector<int> userIds);
  // "doesUserExist" throws std::runtime_error(`text`); "" stops that.
  void failUserChecks(const std::string& text);
  // "getFocusedUser" and "doesUserExist(<id>)", in the order received.
  std::vector<std::string> calls() const;
  void clearCalls();

  void emitDeletedUsers(const std::vector<int>& userIds);
  void emitCreatedUsers(const std::vector<int>& userIds);

 private:
  struct State {
    mutable std::mutex mutex;
    int focusedUser = -1;            // guarded by mutex
    std::vector<int> knownUsers;     // guarded by mutex
    std::string checkFailure;        // guarded by mutex
    std::vector<std::string> calls;  // guarded by mutex
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  ka::AnyObject object_;
};

// The file of a real "QVUserSession", in a temporary directory that goes with this object. Each
// open() is a fresh instance on that same file, as a restarted host would make.
class UserSessionFile {
 public:
  UserSessionFile();
  ~UserSessionFile();
  UserSessionFile(const UserSessionFile&) = delete;
  UserSessionFile& operator=(const UserSessionFile&) = delete;

  boost::shared_ptr<QV::UserSessionService> open() const;

 private:
  std::string directory_;
  std::string path_;
};

// One emission of userInfoEdited (value set) or userInfoRemoved (value empty) as a client saw it.
struct Emission {
  int userId;
  std::string dataName;
  std::string valueSignature;  // "" for userInfoRemoved
  std::string valueText;       // the value as a string, "" for userInfoRemoved
  bool operator==(const Emission& other) const {
    return userId == other.userId && dataName == other.dataName &&
           valueSignature == other.valueSignature && valueText == other.valueText;
  }
};
std::ostream& operator<<(std::ostream& out, const Emission& emission);
using Emissions = std::vector<Emission>;

class FrontTest : public userdata_test::CapturingTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The one place that makes the "QVUserSession" the tests publish.
  static std::unique_ptr<UserSessionDouble> makeUserSession(UserSessionOptions options = {});

  // Registers `userSession` as "QVUserSession" (or under another name) on the services' session.
  void publishUserSession(const std::string& name = "QVUserSession");
  // Registers another object, a real service for instance, as "QVUserSession".
  void publishUserSessionObject(ka::AnyObject object);
  void withdrawUserSession();
  // Constructs the front on `session`, publishes it as "QVUserInfo", gives `client` a handle to it
  // from a second session and records the signals it sees; then forgets every call and log line.
  void startFront();

  Emissions edited() const;
  Emissions removed() const;
  void forget();

  // Set before SetUp to publish the services on the front's own session rather than on a peer.
  bool servicesOnFrontSession = false;
  // The front's session; "QVKnowledge" and "QVUserSession" are published on `services`, a peer
  // (or the same session).
  ka::SessionPtr session;
  ka::SessionPtr services;
  ka::SessionPtr clientSession;
  std::unique_ptr<UserSessionDouble> userSession = makeUserSession();
  unsigned int userSessionId = 0;
  boost::shared_ptr<QV::QVUserInfo> front;
  ka::AnyObject client;

 private:
  struct Received {
    mutable std::mutex mutex;
    Emissions edited;   // guarded by mutex
    Emissions removed;  // guarded by mutex
  };
  std::shared_ptr<Received> received_ = std::make_shared<Received>();
};

}  // namespace front_test
