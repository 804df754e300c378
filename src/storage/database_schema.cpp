// Schema and index metadata: table creation and migration at every open, the
// one-time page rewrite, the index generation and the extractor stamp.
#include <limits>

#include <nlohmann/json.hpp>

#include "database_impl.hpp"
#include "log.hpp"
#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "migrations.hpp"
#include "text.hpp"

namespace marsk_quorvi::storage::detail {

// The stored form of a stamp: members in ascending key order (std::map keeps
// UTF-8 byte order, which is code-point order), ", " and ": " as separators,
// and every character outside ASCII as a \u escape, so the text compares and
// diffs the same whatever wrote it.
std::string _stamp_json(const ExtractorVersions& versions) {
  std::string out = "{";
  bool first = true;
  for (const auto& [language, version] : versions) {
    if (!first) out += ", ";
    first = false;
    out += nlohmann::json(language).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    out += ": ";
    out += std::to_string(version);
  }
  out += "}";
  return out;
}

// ------------------------------------------------------------------ schema

void DatabaseImpl::create_schema() {
  _transaction([](Cursor& cursor) { core_schema::create_tables(cursor); });
}

void DatabaseImpl::migrate_schema() {
  _require_writable();
  std::optional<Row> row;
  try {
    row = fetchone("SELECT value FROM schema_info WHERE key = 'version'");
  } catch (const OperationalError&) {
    // No schema_info table: a file of the first release, which records none.
  }
  const std::string recorded = row ? (*row)[0].to_text() : migrations::OLDEST_VERSION;
  const std::string reached =
      migrations::migrate([this](const std::function<void(Cursor&)>& body) { _transaction(body); }, recorded);
  if (reached != migrations::SCHEMA_VERSION) return;
  log(spdlog::level::info, "Schema version %s (recorded %s)", reached, recorded);
  _rewrite_pages();
}

void DatabaseImpl::_rewrite_pages() {
  std::lock_guard lock(_lock);
  auto conn = connection();
  const Space space = _space(*conn);
  if (space.page_size >= storage_size::PAGE_SIZE) return;
  const std::int64_t used = (space.pages - space.free) * space.page_size;
  const auto why_not = _disk_shortfall(db_path.parent_path(), used);

  // From here on no query can reach a read connection: the pool is detached
  // first, then closed (waiting for the queries still running on it), because
  // the file can leave WAL mode only while no other connection has it open.
  if (auto detached = _readers.exchange(nullptr)) detached->close();

  std::exception_ptr failure;
  try {
    storage_size::rewrite_pages(*conn, db_path, why_not);
  } catch (...) {
    failure = std::current_exception();
  }
  // Also after a failed rewrite: a pool only when the journal is WAL again.
  // SQLite answers "PRAGMA journal_mode" from what the connection last read:
  // when the switch back to WAL failed at its commit, it still says "wal"
  // until the header is read again, and a pool opened on that answer would
  // hold shared locks on a file in rollback mode. A read first makes the
  // answer the file's.
  conn->execute("PRAGMA schema_version").close();
  auto mode_row = conn->execute("PRAGMA journal_mode").fetchone();
  const std::string mode = mode_row ? ascii_lower((*mode_row)[0].to_text()) : std::string();
  _replace_readers(mode);
  if (failure) std::rethrow_exception(failure);
}

// ------------------------------------------------------------------ generation

std::int64_t DatabaseImpl::index_generation() {
  auto row = fetchone("PRAGMA user_version");
  return row ? (*row)[0].as_int() : 0;
}

void DatabaseImpl::_bump_index_generation(Cursor* cursor) {
  const std::string sql = "PRAGMA user_version = " + std::to_string(index_generation() + 1);
  if (cursor) {
    cursor->execute(sql);
  } else {
    execute(sql);
  }
}

// ------------------------------------------------------------------ extractor stamp

std::optional<ExtractorVersions> _parse_extractor_stamp(const std::optional<std::string>& raw) {
  if (!raw) return std::nullopt;
  const auto value = nlohmann::json::parse(*raw, nullptr, /*allow_exceptions=*/false);
  if (value.is_object()) {
    ExtractorVersions versions;
    bool known = true;
    for (const auto& [language, version] : value.items()) {
      // Integers only: nlohmann keeps booleans and fractions (3.0 included)
      // apart from integers. An unsigned integer past int64 does not fit.
      if (version.is_number_integer() &&
          (!version.is_number_unsigned() ||
           version.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))) {
        versions[language] = version.get<std::int64_t>();
      } else {
        known = false;
        break;
      }
    }
    if (known) return versions;
  }
  log(spdlog::level::warn, "Extractor stamp %s has an unknown format; treating it as absent",
              quoted_repr(*raw));
  return std::nullopt;
}

std::int64_t DatabaseImpl::refresh_extractor_stamp(const ExtractorVersions& versions) {
  const ExtractorVersions current = versions;
  std::vector<std::string> changed;
  std::int64_t marked = 0;
  _transaction([&](Cursor& cursor) {
    cursor.execute("SELECT value FROM schema_info WHERE key = ?", {EXTRACTOR_VERSIONS_KEY});
    const auto row = cursor.fetchone();
    const auto parsed = _parse_extractor_stamp(row ? std::optional<std::string>((*row)[0].to_text()) : std::nullopt);
    const ExtractorVersions stored = parsed.value_or(ExtractorVersions{});
    if (stored == current) return;  // unchanged: nothing is written
    for (const auto& [language, version] : current) {
      const auto it = stored.find(language);
      if (it == stored.end() || it->second != version) changed.push_back(language);
    }
    marked = changed.empty() ? 0 : migrations::mark_files_stale(cursor, changed);
    cursor.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                   {EXTRACTOR_VERSIONS_KEY, _stamp_json(current)});
  });
  if (marked != 0) {
    std::string names;
    for (const auto& language : changed) names += (names.empty() ? "" : ", ") + language;
    log(spdlog::level::info, "Extractor changed for %s: %d files marked for re-indexing", names, marked);
  }
  return marked;
}

}  // namespace marsk_quorvi::storage::detail
