#include "quorvi/index_pass.hpp"

#include <unistd.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/language.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

storage::ExtractorVersions extractor_versions(const Ctags* ctags) {
  storage::ExtractorVersions versions;
  if (!ctags) return versions;
  for (const auto& lang : parsed_languages()) versions[lang] = ctags->version();
  return versions;
}

void open_like_the_service(storage::Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

void build_pass(IndexPass& pass, const fs::path& repo, const fs::path& db_path, const fs::path& staging,
                const Ctags* ctags, const ExtractOptions& options, Progress& progress) {
  // Checked before the walk, which would take an unreadable root for an empty one.
  if (::faccessat(AT_FDCWD, repo.c_str(), R_OK | X_OK, AT_EACCESS) != 0) raise_os_error(errno, repo);
  auto start = std::chrono::steady_clock::now();
  auto walked = walk_repository(repo, IgnoreRules::load(repo), [&](std::size_t n) {
    progress.show("walking: " + std::to_string(n) + " files");
  });
  // An index kept inside the repository somewhere else than memory/ must
  // not index itself, its journal, its lock or its staging files.
  const auto db_abs = fs::absolute(db_path).lexically_normal().string();
  std::erase_if(walked.files, [&](const WalkEntry& e) {
    const auto p = (repo / e.path).lexically_normal().string();
    return p.starts_with(db_abs) && (p.size() == db_abs.size() || p[db_abs.size()] == '-' || p[db_abs.size()] == '.');
  });
  pass.files_walked = walked.files.size();
  pass.pruned = walked.pruned;
  ExtractOptions extract_options = options;
  extract_options.on_progress = [&](std::size_t done, std::size_t total) {
    progress.show("extracting: " + std::to_string(done) + "/" + std::to_string(total) + " files");
  };
  auto extraction = extract(repo, walked, ctags, extract_options);
  pass.walk_extract_seconds = since(start);
  pass.files_indexed = extraction.files.size();
  pass.file_errors = extraction.errors.size();
  pass.tags = extraction.tags;

  start = std::chrono::steady_clock::now();
  pass.staging = build_staging(staging, repo, extraction, [&](std::size_t done, std::size_t total) {
    progress.show("building staging index: " + std::to_string(done) + "/" + std::to_string(total) + " files");
  });
  pass.staging_seconds = since(start);
}

void swap_pass(IndexPass& pass, storage::Database& db, const fs::path& staging, Progress& progress) {
  progress.show("swapping the new index in", true);
  const auto start = std::chrono::steady_clock::now();
  pass.before = db.page_counts();
  pass.rows = db.swap_index_from(staging);
  pass.after = db.page_counts();
  pass.swap_seconds = since(start);
  progress.clear();
  pass.generation = db.index_generation();
}

}  // namespace marsk_quorvi::cli
