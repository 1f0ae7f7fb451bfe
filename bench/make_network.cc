// Makes the benchmarks' database with that many objects in the platform's place; with a number of
// fields behind it, of as many numbers each instead of the usual values.

#include <cstdio>
#include <cstdlib>

#include "network.h"

int main(int argc, char **argv) {
  if (argc != 2 && argc != 3) {
    fprintf(stderr, "usage: make_network OBJECTS [FIELDS]\n");
    return 2;
  }
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  if (db == nullptr) return 1;
  startBuffering(db);
  const auto objects = static_cast<uint32_t>(strtoul(argv[1], nullptr, 10));
  if (argc == 2) {
    storeNetwork(db, objects);
  } else {
    storeNumbers(db, objects, static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)));
  }
  stopBuffering(db);
  close_nqwdb_ndbm(db);
}
