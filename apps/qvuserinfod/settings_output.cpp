#include "settings_output.hpp"

#include <qvpostgres/postgres_database.hpp>

namespace qvuserinfod {

void printSettings(std::ostream& out, const Settings& settings) {
  if (settings.store.empty()) {
    out << "database: " << settings.database << "\n";
  } else {
    // Stdout goes to logs: a password in the string (refused at the start) stays out of them.
    out << "store: " << QV::withoutPassword(settings.store, settings.store) << "\n";
  }
  out << "durability: " << durabilityName(settings.durability) << "\n";
  if (settings.connect.empty()) {
    for (const auto& url : settings.listen) {
      out << "listen: " << url << "\n";
    }
  } else {
    out << "connect: " << settings.connect << "\n";
  }
  out << "user session: " << (settings.ownUserSession ? "own" : "external") << "\n";
  out << "log: " << describeLog(settings.log) << "\n";
  out.flush();
}

}  // namespace qvuserinfod
