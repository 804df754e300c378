// The one-time rewrite of an index file made with pages smaller than
// PAGE_SIZE.
//
// SQLite cannot change the page size of a file in WAL mode, and it can leave
// WAL mode only while no other connection has the WAL open: switching the
// journal to DELETE needs an exclusive lock on the file, which every other
// connection in WAL mode prevents for as long as it is open (it keeps a
// shared lock on the file). So the switch itself is the test for another
// process: tried without waiting, it fails at once with "database is locked"
// when anyone else has the file open. The caller has already closed this
// process's own read connections.
#include "marsk_quorvi/storage/storage_size.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>

#include "log.hpp"
#include "text.hpp"
#include "undo.hpp"

namespace marsk_quorvi::storage::storage_size {

namespace {


std::string journal_mode(Connection& connection, const char* pragma) {
  auto row = connection.execute(pragma).fetchone();
  return row ? detail::ascii_lower((*row)[0].to_text()) : std::string();
}

std::int64_t page_size(Connection& connection) {
  return (*connection.execute("PRAGMA page_size").fetchone())[0].as_int();
}

bool is_busy(const Error& error) {
  const int primary = error.code() & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

// Leaves WAL mode without waiting for anyone: the busy time-out is set to 0
// for the one statement and restored afterwards. Returns the journal mode in
// force afterwards ("wal" when another connection holds the file).
std::string leave_wal_now(Connection& connection) {
  const auto saved = (*connection.execute("PRAGMA busy_timeout").fetchone())[0].as_int();
  connection.execute("PRAGMA busy_timeout=0");
  std::string mode;
  try {
    mode = journal_mode(connection, "PRAGMA journal_mode=DELETE");
  } catch (const OperationalError& e) {
    if (!is_busy(e)) {
      connection.execute("PRAGMA busy_timeout=" + std::to_string(saved));
      throw;
    }
    mode = "wal";
  }
  connection.execute("PRAGMA busy_timeout=" + std::to_string(saved));
  return mode;
}

void warn_kept(const std::filesystem::path& db_path, std::int64_t size, const std::string& why) {
  detail::log(spdlog::level::warn, "Pages of %s stay at %d bytes: %s; the rewrite is tried again at the next open",
              db_path.string(), size, why);
}

}  // namespace

void rewrite_file(Connection& connection) {
  if (journal_mode(connection, "PRAGMA journal_mode=DELETE") == "wal") {
    // SQLite reports success and stays in WAL when it cannot leave it.
    raise_error(SQLITE_BUSY, "database is locked");
  }
  // On failure the journal goes back to WAL too; the rewrite's failure is the
  // one to report, and the caller reads the mode it left.
  detail::undo_on_failure(
      [&] {
        connection.execute("PRAGMA page_size=" + std::to_string(PAGE_SIZE));
        // VACUUM also applies the auto-vacuum mode asked for on this
        // connection (connect asks for incremental), so a file made without
        // auto-vacuum is converted by the same rewrite.
        connection.execute("VACUUM");
      },
      [&] { connection.execute("PRAGMA journal_mode=WAL"); });
  connection.execute("PRAGMA journal_mode=WAL");
}

void rewrite_pages(Connection& connection, const std::filesystem::path& db_path,
                   const std::optional<std::string>& why_not) {
  if (why_not) {
    warn_kept(db_path, page_size(connection), *why_not);
    return;
  }
  if (leave_wal_now(connection) == "wal") {
    warn_kept(db_path, page_size(connection), "another process has the file open");
    return;
  }
  // From here on the journal has to go back to WAL whatever happens, and a
  // journal that stays in rollback mode is worth a warning either way.
  struct JournalCheck {
    Connection& connection;
    const std::filesystem::path& db_path;
    ~JournalCheck() {
      try {
        const auto mode = journal_mode(connection, "PRAGMA journal_mode");
        if (mode != "wal") {
          detail::log(spdlog::level::warn,
                      "Journal of %s stays in %s mode after the page rewrite; queries share the writer "
                      "connection until the next open",
                      db_path.string(), mode);
        }
      } catch (...) {
        // Only a warning is at stake; a destructor never throws.
      }
    }
  } check{connection, db_path};
  try {
    rewrite_file(connection);
  } catch (const OperationalError& e) {
    // Another process opened the file between the switch and the VACUUM: the
    // VACUUM changed nothing, so this is the same case as above.
    if (!is_busy(e)) throw;
    warn_kept(db_path, page_size(connection), "another process has the file open");
    return;
  }
  // A process that opened the file in between may have switched it back to
  // WAL before the VACUUM, which then keeps the old page size.
  if (const auto size = page_size(connection); size != PAGE_SIZE) {
    warn_kept(db_path, size, "another process switched the file back to WAL");
  }
}

}  // namespace marsk_quorvi::storage::storage_size
