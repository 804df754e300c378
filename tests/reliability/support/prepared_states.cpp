#include "reliability/support/prepared_states.hpp"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "storage/database_impl.hpp"

namespace marsk_quorvi::testing {

namespace st = marsk_quorvi::storage;

const std::vector<PlannedState>& state_plan() {
  static const std::vector<PlannedState> plan = {
      {{.files = 1500, .symbols = 4500, .edges = 6000, .chunk_bytes = 400, .tag = "alpha"}, false},
      {{.files = 2500, .symbols = 8000, .edges = 12000, .chunk_bytes = 5000, .tag = "bravo"}, true},
      {{.files = 1700, .symbols = 5000, .edges = 7000, .chunk_bytes = 500, .tag = "charlie"}, false},
      {{.files = 2700, .symbols = 9000, .edges = 13000, .chunk_bytes = 5000, .tag = "delta"}, true},
  };
  return plan;
}

namespace {

void build_index(const std::filesystem::path& file, const Seed* seed) {
  {
    st::Database db(file);
    db.connect();
    db.create_schema();
    db.migrate_schema();
    if (seed) seed_index(db, *seed);
    db.close();
  }
  // The last connection to close has folded the log into the file; leaving
  // WAL mode now keeps readers of the staging file from making -shm files.
  auto conn = st::Connection::open(file.string());
  conn->execute("PRAGMA journal_mode=DELETE").fetchall();
  conn->close();
}

}  // namespace

void prepare_states(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir);
  build_index(empty_state_file(dir), nullptr);
  const auto& plan = state_plan();
  for (std::size_t n = 0; n < plan.size(); ++n) build_index(staging_file(dir, static_cast<std::int64_t>(n)), &plan[n].seed);
}

bool swap_compacts(std::int64_t target) {
  const auto k = static_cast<std::int64_t>(state_plan().size());
  if (target < 2) return false;  // the swap out of the empty index frees nothing
  return state_plan()[static_cast<std::size_t>((target - 2) % k)].large &&
         !state_plan()[static_cast<std::size_t>((target - 1) % k)].large;
}

void make_small_page_copy(const std::filesystem::path& dir, std::int64_t number, std::int64_t generation,
                          const std::filesystem::path& live) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) std::filesystem::remove(live.string() + suffix);
  std::filesystem::create_directories(live.parent_path());
  std::filesystem::copy_file(staging_file(dir, number), live);
  auto conn = st::Connection::open(live.string());
  // The staging file is in rollback-journal mode, where VACUUM may change
  // the page size.
  conn->execute("PRAGMA page_size=4096");
  conn->execute("VACUUM");
  conn->execute("PRAGMA user_version=" + std::to_string(generation));
  conn->execute("PRAGMA journal_mode=WAL").fetchall();
  const auto size = (*conn->execute("PRAGMA page_size").fetchone())[0].as_int();
  conn->close();
  if (size != 4096) throw std::runtime_error("the copy kept pages of " + std::to_string(size) + " bytes");
}

std::string file_digest(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return std::to_string(bytes.size()) + ":" + std::to_string(std::hash<std::string>{}(bytes));
}

LiveCheck check_live(const std::filesystem::path& live, const KnownStates& states, std::int64_t lowest,
                     std::int64_t highest) {
  LiveCheck out;
  std::ostringstream problem;
  try {
    st::Database db(live);
    db.connect();
    db.create_schema();
    db.migrate_schema();

    std::string integrity;
    for (const auto& row : db.fetchall("PRAGMA integrity_check")) integrity += (integrity.empty() ? "" : "; ") + row[0].to_text();
    if (integrity != "ok") problem << "integrity_check: " << integrity << "\n";
    try {
      // The full-text index against its stored text; it raises on a mismatch.
      db.execute("INSERT INTO code_chunks(code_chunks) VALUES('integrity-check')");
    } catch (const st::Error& e) {
      problem << "full-text integrity-check: " << e.what() << "\n";
    }
    const auto page_size = (*db.fetchone("SELECT page_size FROM pragma_page_size"))[0].as_int();
    const auto auto_vacuum = (*db.fetchone("SELECT auto_vacuum FROM pragma_auto_vacuum"))[0].as_int();
    if (page_size != storage::storage_size::PAGE_SIZE || auto_vacuum != st::detail::kAutoVacuumIncremental) {
      problem << "page size " << page_size << ", auto_vacuum " << auto_vacuum << "\n";
    }

    const auto seen = to_observation(*db.fetchone(kStateQuery));
    out.generation = seen.generation;
    if (seen.fingerprint != states.expected(seen.generation)) {
      const auto found = states.find(seen.fingerprint);
      problem << "generation " << seen.generation << " implies state " << states.state_of(seen.generation)
              << " but the file holds " << (found ? "state " + std::to_string(*found) : "no known state") << ": "
              << seen.fingerprint << "\n";
    }
    if (seen.generation < lowest || seen.generation > highest) {
      problem << "generation " << seen.generation << " outside " << lowest << " .. " << highest << "\n";
    }
    db.close();
  } catch (const std::exception& e) {
    problem << "opening and reading the file failed: " << e.what() << "\n";
  }
  out.problem = problem.str();
  return out;
}

}  // namespace marsk_quorvi::testing
