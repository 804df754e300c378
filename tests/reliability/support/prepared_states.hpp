// The index states that the crash and multi-process tests swap between, and
// the check a live file has to pass after a process working on it died.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/index_rows.hpp"
#include "support/index_states.hpp"

namespace marsk_quorvi::testing {

// One prepared staging file. The large ones hold enough chunk text that the
// swap away from them frees more pages than compaction's threshold, so every
// second swap of a loop is followed by a compaction and a checkpoint.
struct PlannedState {
  Seed seed;
  bool large;
};

// The staging files in their number order: small and large alternate, and
// every table's count differs between any two of them.
const std::vector<PlannedState>& state_plan();

// Writes empty.db and staging-<n>.db for each planned state into `dir`, each
// as a complete index file left in rollback-journal mode, so that reading or
// attaching it makes no -wal or -shm file beside it.
void prepare_states(const std::filesystem::path& dir);

// Whether a compaction with pages to release follows the swap that raises the
// generation to `target`: the state before it was large, the new one is small.
bool swap_compacts(std::int64_t target);

// Makes `live` a copy of staging number `number` at `generation`, as a file
// of an older build: pages of 4096 bytes, WAL mode, no -wal or -shm beside.
// The next open rewrites its pages.
void make_small_page_copy(const std::filesystem::path& dir, std::int64_t number, std::int64_t generation,
                          const std::filesystem::path& live);

// A digest of a file's bytes, to show that no swap changed a staging file.
std::string file_digest(const std::filesystem::path& file);

// What a fresh handle finds in a live file.
struct LiveCheck {
  std::int64_t generation = -1;
  std::string problem;  // empty when the file passed
};

// Opens `live` as a service process does (connect, create_schema,
// migrate_schema) and requires: "ok" from the integrity check and from the
// full-text index's own check, the page size and auto-vacuum mode a new file
// gets, content that is exactly the state its generation implies, and a
// generation from `lowest` to `highest` (what the dead writer had surely
// committed, and the last swap it had begun).
LiveCheck check_live(const std::filesystem::path& live, const KnownStates& states, std::int64_t lowest,
                     std::int64_t highest);

}  // namespace marsk_quorvi::testing
