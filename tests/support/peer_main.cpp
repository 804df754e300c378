// A second process for tests: opens an index file as another service process
// would and prints what it sees, a row as its columns joined by '|'.
//   generation DB, query DB SQL, exec DB SQL   the generation, each row, one statement
//   hold|snapshot|lock DB SECONDS   a connection, a read transaction or the write
//                                   lock held: "ready", a sleep (then a commit)
//   watch DB SQL UNTIL   each result that differs from the one before, until it
//                        is UNTIL (status 3 after 120 s)
//   observe DB SQL STOP  opened as a service opens it (connect, create_schema,
//                        migrate_schema), as watch, a look each 2 ms, until the
//                        file STOP exists: "observations N" (status 3 after 900 s)
//   swap-loop DB DIR [COUNT]  opened the same way, "ready G"; then at generation G
//                        "swapping G -> G+1 from staging-N", a swap from
//                        DIR/staging-N.db (N = G mod the files there), "swapped
//                        G+1", and the module's info lines; COUNT swaps, or no end
#include <spdlog/sinks/stdout_sinks.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <thread>

#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/logging.hpp"

using namespace marsk_quorvi::storage;

namespace {

std::string joined(const std::optional<Row>& row) {
  std::string line;
  for (std::size_t i = 0; row && i < row->size(); ++i) line += (i ? "|" : "") + (*row)[i].to_text();
  return line;
}

void ready_then_sleep(const char* seconds) {
  std::cout << "ready" << std::endl;
  std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(seconds)));
}

int swap_loop(Database& db, const std::filesystem::path& dir, long long count) {
  auto staging = [&](long long n) { return dir / ("staging-" + std::to_string(n) + ".db"); };
  long long k = 0;
  while (std::filesystem::exists(staging(k))) ++k;
  if (k == 0) return 2;
  // Flushed at once from the schema steps on, for a parent that kills this
  // process to know where it got to ("Schema version" begins the page rewrite).
  auto sink = std::make_shared<spdlog::sinks::stdout_sink_mt>();
  sink->set_pattern("%v");
  database_logger()->sinks() = {sink};
  database_logger()->set_level(spdlog::level::info);
  database_logger()->flush_on(spdlog::level::info);
  db.create_schema();
  db.migrate_schema();
  std::cout << "ready " << db.index_generation() << std::endl;
  for (long long done = 0; count < 0 || done < count; ++done) {
    const std::int64_t g = db.index_generation();
    std::cout << "swapping " << g << " -> " << g + 1 << " from staging-" << g % k << std::endl;
    try {
      db.swap_index_from(staging(g % k));
      std::cout << "swapped " << g + 1 << std::endl;
    } catch (const OperationalError& e) {
      // Another process that opens the file commits its auto-vacuum mode to the
      // header: a swap that read before is refused, changing nothing; tried again.
      if (std::string_view(e.what()) != "database is locked") throw;
      std::cout << "refused " << g + 1 << ": " << e.what() << std::endl;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: peer COMMAND DB [ARGS]\n";
    return 2;
  }
  const std::string command = argv[1];
  try {
    if (command == "lock" && argc >= 4) {
      auto conn = Connection::open(argv[2]);
      conn->execute("BEGIN IMMEDIATE");
      ready_then_sleep(argv[3]);
      conn->execute("COMMIT");
      return 0;
    }
    Database db(argv[2]);
    db.connect();
    if (command == "generation") {
      std::cout << db.index_generation() << "\n";
    } else if (command == "query" && argc >= 4) {
      for (const auto& row : db.fetchall(argv[3])) std::cout << joined(row) << "\n";
    } else if (command == "exec" && argc >= 4) {
      db.execute(argv[3]);
    } else if (command == "hold" && argc >= 4) {
      db.fetchone("SELECT count(*) FROM sqlite_master");
      ready_then_sleep(argv[3]);
    } else if (command == "snapshot" && argc >= 4) {
      db.transaction([&](Cursor& cursor) {
        cursor.execute("SELECT count(*) FROM sqlite_master").fetchall();
        ready_then_sleep(argv[3]);
      });
    } else if (command == "swap-loop" && argc >= 4) {
      if (const int status = swap_loop(db, argv[3], argc >= 5 ? std::stoll(argv[4]) : -1)) return status;
    } else if ((command == "watch" || command == "observe") && argc >= 5) {
      const bool observe = command == "observe";
      if (observe) {
        db.create_schema();
        db.migrate_schema();
      }
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(observe ? 900 : 120);
      long long n = 0;
      for (std::string last; !observe || !std::filesystem::exists(argv[4]); ++n) {
        const std::string now = joined(db.fetchone(argv[3]));
        if (n == 0 || now != last) std::cout << now << std::endl;
        last = now;
        if (!observe && now == argv[4]) break;
        if (std::chrono::steady_clock::now() > deadline) return 3;
        if (observe) std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the cores are the writer's too
      }
      if (observe) std::cout << "observations " << n << std::endl;
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
