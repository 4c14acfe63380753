// kacli: a command-line client of the ka middleware (services, info, call, watch).
#include "command_line.hpp"

#include <iostream>

int main(int argc, char** argv) {
  return kacli::runCommandLine(argc, argv, std::cout, std::cerr, true);
}
