// Serves "QVKnowledge", "QVUserSession" and "QVUserInfo" on the database given, for bench/run
// to measure remote calls when the daemon program is not built in this tree. Takes the daemon's
// options that bench/run uses and announces itself the same way: one "ready <endpoint>..." line
// once serving, "stopped" after SIGINT or SIGTERM.
//
// Usage: userinfo_serve --database PATH --listen URL [--listen URL]... [--durability full|normal]

#include <qvknowledge/knowledge_service.hpp>
#include <qvuserinfo/qvuserinfo.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/object.hpp>
#include <ka/session.hpp>

#include <signal.h>

#include <boost/make_shared.hpp>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  std::string database;
  std::vector<std::string> urls;
  QV::Durability durability = QV::Durability::Full;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--database") {
      database = argv[i + 1];
    } else if (option == "--listen") {
      urls.push_back(argv[i + 1]);
    } else if (option == "--durability") {
      durability =
          std::string(argv[i + 1]) == "normal" ? QV::Durability::Normal : QV::Durability::Full;
    }
  }
  if (argc % 2 == 0 || database.empty() || urls.empty()) {
    std::fprintf(stderr,
                 "usage: userinfo_serve --database PATH --listen URL... "
                 "[--durability full|normal]\n");
    return 2;
  }
  // The stop signals are taken synchronously below, on this thread only.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  try {
    ka::SessionPtr session = ka::makeSession();
    for (const auto& url : urls) {
      session->listen(url).value(10000);
    }
    QV::TripletStoreOptions storeOptions;
    storeOptions.durability = durability;
    QV::registerKnowledgeService(session, database, storeOptions).value(60000);
    QV::UserSessionOptions sessionOptions;
    sessionOptions.durability = durability;
    QV::registerUserSessionService(session, QV::userSessionPathBeside(database), sessionOptions)
        .value(60000);
    auto info = boost::make_shared<QV::QVUserInfo>(session);
    session->registerService("QVUserInfo", ka::makeObject(info)).value(10000);
    std::string ready = "ready";
    for (const auto& endpoint : session->endpoints()) {
      ready += " " + endpoint;
    }
    std::printf("database: %s\n%s\n", database.c_str(), ready.c_str());
    std::fflush(stdout);
    int received = 0;
    sigwait(&stops, &received);
    session->close();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "userinfo_serve: %s\n", e.what());
    return 1;
  }
  std::printf("stopped\n");
  return 0;
}
