// Whole-index states shared by a test and its second processes: a directory
// of prepared staging files, and one query whose single answer tells which of
// them the live index holds.
//
// A states directory holds `empty.db` (a fresh index, what the live file holds
// at generation 0) and `staging-0.db` ... `staging-<K-1>.db`. A process that
// swaps forever swaps staging number (g mod K) into an index at generation g,
// so the live content is a function of the generation alone: generation 0 is
// the empty index, generation g > 0 is staging number (g - 1) mod K. Every
// process, whenever it starts, can tell what the live file must hold.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"

namespace marsk_quorvi::testing {

inline std::filesystem::path empty_state_file(const std::filesystem::path& dir) { return dir / "empty.db"; }

inline std::filesystem::path staging_file(const std::filesystem::path& dir, std::int64_t number) {
  return dir / ("staging-" + std::to_string(number) + ".db");
}

// K: the staging files numbered from 0 without a gap.
inline std::int64_t staging_count(const std::filesystem::path& dir) {
  std::int64_t k = 0;
  while (std::filesystem::exists(staging_file(dir, k))) ++k;
  return k;
}

// The staging number a swap-loop swaps into an index at `generation`.
inline std::int64_t staging_for_swap(std::int64_t generation, std::int64_t k) { return generation % k; }

// The generation first, then a fingerprint of every index table: counts and
// markers of each table, chosen so that each column on its own differs between
// any two prepared states. One statement reads one snapshot, so a reader that
// could see part of one swap and part of another, or a new generation with old
// rows, gets a row that matches no state. The MATCH column asks the full-text
// index itself, not only its stored text, for the state's marker word (the
// component name after "core-").
inline constexpr const char* kStateQuery = R"sql(SELECT
  (SELECT user_version FROM pragma_user_version),
  (SELECT count(*) || ' ' || ifnull(max(path), '-') || ' ' || total(size) FROM files),
  (SELECT count(*) || ' ' || ifnull(max(name), '-') || ' ' || total(file_id) FROM symbols),
  (SELECT count(*) || ' ' || total(source_id) || ' ' || total(target_id) FROM edges),
  (SELECT count(*) || ' ' || total(file_id) FROM external_imports),
  (SELECT count(*) || ' ' || ifnull(max(file_path), '-') FROM index_errors),
  (SELECT count(*) || ' ' || ifnull(group_concat(name, ','), '-') FROM components),
  (SELECT count(*) || ' ' || ifnull(min(rowid), '-') || ' ' || ifnull(max(rowid), '-') FROM code_chunks),
  (SELECT count(*) FROM code_chunks WHERE code_chunks MATCH
     (SELECT ifnull(substr(min(name), 6), 'none') FROM components)),
  (SELECT substr(text, 1, 48) FROM code_chunks WHERE rowid = (SELECT max(rowid) FROM code_chunks)))sql";

// A row of kStateQuery: the generation and the fingerprint text.
struct Observation {
  std::int64_t generation = 0;
  std::string fingerprint;
};

inline Observation to_observation(const storage::Row& row) {
  Observation out;
  out.generation = row[0].as_int();
  for (std::size_t i = 1; i < row.size(); ++i) out.fingerprint += (i > 1 ? " | " : "") + row[i].to_text();
  return out;
}

// The fingerprint of a whole file, read through a read-only connection of its
// own (the file is not changed, and its generation is not part of it).
inline std::string file_fingerprint(const std::filesystem::path& file) {
  storage::Connection::Options options;
  options.readonly = true;
  auto conn = storage::Connection::open(file.string(), options);
  auto row = conn->execute(kStateQuery).fetchone();
  conn->close();
  if (!row) throw std::runtime_error("no fingerprint row for " + file.string());
  return to_observation(*row).fingerprint;
}

// The fingerprints of a states directory: [0] the empty index, [1 + n]
// staging number n.
class KnownStates {
 public:
  explicit KnownStates(const std::filesystem::path& dir) {
    fingerprints_.push_back(file_fingerprint(empty_state_file(dir)));
    const std::int64_t k = testing::staging_count(dir);
    if (k == 0) throw std::runtime_error("no staging files in " + dir.string());
    for (std::int64_t n = 0; n < k; ++n) fingerprints_.push_back(file_fingerprint(staging_file(dir, n)));
  }
  std::int64_t staging_count() const { return static_cast<std::int64_t>(fingerprints_.size()) - 1; }
  // Index into fingerprints() of the state that `generation` implies.
  std::size_t state_of(std::int64_t generation) const {
    return generation <= 0 ? 0 : static_cast<std::size_t>(1 + (generation - 1) % staging_count());
  }
  const std::string& expected(std::int64_t generation) const { return fingerprints_[state_of(generation)]; }
  // The state index whose fingerprint `fingerprint` is, if any.
  std::optional<std::size_t> find(const std::string& fingerprint) const {
    for (std::size_t i = 0; i < fingerprints_.size(); ++i) {
      if (fingerprints_[i] == fingerprint) return i;
    }
    return std::nullopt;
  }
  const std::vector<std::string>& fingerprints() const { return fingerprints_; }

 private:
  std::vector<std::string> fingerprints_;
};

}  // namespace marsk_quorvi::testing
