// Makes the benchmarks' database with that many objects in the platform's place.

#include <cstdio>
#include <cstdlib>

#include "network.h"

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: make_network OBJECTS\n");
    return 2;
  }
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  if (db == nullptr) return 1;
  startBuffering(db);
  storeNetwork(db, static_cast<uint32_t>(strtoul(argv[1], nullptr, 10)));
  stopBuffering(db);
  close_nqwdb_ndbm(db);
}
