#pragma once
// The settings a daemon runs with, printed at start one per line ("database: ...").

#include "options.hpp"

#include <ostream>

namespace qvuserinfod {

void printSettings(std::ostream& out, const Settings& settings);

}  // namespace qvuserinfod
