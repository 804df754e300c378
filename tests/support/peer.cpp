// A second process for tests: opens an index file the way another service
// process would and reports what it sees on standard output.
//
//   peer generation DB        prints the index generation
//   peer query DB SQL         prints each row, columns joined by '|'
//   peer exec DB SQL          runs one statement through execute
//   peer hold DB SECONDS      keeps a connection open, prints "ready", sleeps
//   peer snapshot DB SECONDS  holds a read transaction (and its snapshot of the
//                             write-ahead log), prints "ready", sleeps
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

#include "marsk_quorvi/storage/database.hpp"

using namespace marsk_quorvi::storage;

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: peer COMMAND DB [ARGS]\n";
    return 2;
  }
  const std::string command = argv[1];
  try {
    Database db(argv[2]);
    db.connect();
    if (command == "generation") {
      std::cout << db.index_generation() << "\n";
    } else if (command == "query" && argc >= 4) {
      for (const auto& row : db.fetchall(argv[3])) {
        for (std::size_t i = 0; i < row.size(); ++i) std::cout << (i ? "|" : "") << row[i].to_text();
        std::cout << "\n";
      }
    } else if (command == "exec" && argc >= 4) {
      db.execute(argv[3]);
    } else if (command == "hold" && argc >= 4) {
      db.fetchone("SELECT count(*) FROM sqlite_master");
      std::cout << "ready" << std::endl;
      std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(argv[3])));
    } else if (command == "snapshot" && argc >= 4) {
      db.transaction([&](Cursor& cursor) {
        cursor.execute("SELECT count(*) FROM sqlite_master").fetchall();
        std::cout << "ready" << std::endl;
        std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(argv[3])));
      });
    } else {
      std::cerr << "unknown command " << command << "\n";
      return 2;
    }
    db.close();
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
