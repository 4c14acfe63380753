// Stores a triplet in a new store file through the installed library, closes the store,
// reopens the file and reads the triplet back. Exits 0 only if it reads what it wrote.
#include <qvsqlite/sqlite_triplet_store.hpp>

#include <exception>
#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: consumer <new store file>\n";
    return 2;
  }
  const std::string path = argv[1];
  try {
    {
      QV::SqliteTripletStore store(path);
      store.add("com.quorvelin.install", "1", "name", "Ada");
    }
    QV::SqliteTripletStore reopened(path);
    const auto objects = reopened.getObject("com.quorvelin.install", "1", "name");
    if (objects != std::vector<std::string>{"Ada"}) {
      std::cerr << "the reopened store does not hold the stored triplet\n";
      return 1;
    }
  } catch (const std::exception& e) {
    std::cerr << "consumer failed: " << e.what() << "\n";
    return 1;
  }
  std::cout << "stored and read back a triplet through the installed library\n";
  return 0;
}
