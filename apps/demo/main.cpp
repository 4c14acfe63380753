// Runs the middleware in one process: publishes the knowledge store on a session,
// watches the service directory and talks to the store by method name, as every
// other module of the system does.
#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>

#include <ka/log.hpp>
#include <ka/session.hpp>

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv) {
  CLI::App app{"Middleware demo: hosts the QVKnowledge store and calls it by name"};
  std::string db = "data/knowledge.db";
  app.add_option("--db", db, "SQLite file of the knowledge store (\":memory:\" for none)");
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "Log middleware debug messages");
  CLI11_PARSE(app, argc, argv);
  if (verbose) {
    ka::log::setVerbosity(ka::LogLevel::Debug);
  }

  try {
    ka::SessionPtr session = ka::makeSession();
    ka::AnyObject directory = session->service("ServiceDirectory").value();
    directory
        ->connect("serviceAdded",
                  [](int id, const std::string& name) {
                    std::cout << "service added: " << name << " (#" << id << ")\n";
                  })
        .value();

    QV::registerKnowledgeService(session, std::make_shared<QV::SqliteTripletStore>(db)).value();
    ka::AnyObject kb = session->service("QVKnowledge").value();

    const std::string domain = "com.quorvelin.demo";
    kb->call<void>("update", domain, std::string("1"), std::string("name"), std::string("Ada"));
    kb->call<void>("update", domain, std::string("1"), std::string("birthyear"),
                   std::string("1815"));
    for (const auto& row : kb->call<std::vector<std::vector<std::string>>>(
             "queryTriplet", std::string("*"), std::string("1"), std::string("*"),
             std::string("*"))) {
      std::cout << row[0] << " | " << row[1] << " | " << row[2] << " | " << row[3] << "\n";
    }
    std::cout << "store: " << db << "\n";
  } catch (const std::exception& e) {
    std::cerr << "demo failed: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
