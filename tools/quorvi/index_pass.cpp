#include "quorvi/index_pass.hpp"

#include <malloc.h>
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
  for (const auto& lang : parsed_languages()) versions[lang] = ctags->version().number() * 100 + EXTRACTION_REVISION;
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
  const auto stamp = extractor_versions(ctags);
  const auto build = [&](bool reuse) {
    IndexPass out = pass;
    StagingWriter writer(staging, repo, reuse ? std::optional(db_path) : std::nullopt, stamp);
    for (const auto& p : walked.problems) writer.error({p.path, p.error_type, p.message, std::nullopt});
    ExtractOptions extract_options = options;
    extract_options.reuse = &writer.reusable();
    extract_options.on_progress = [&](std::size_t done, std::size_t total) {
      progress.show("extracting and writing: " + std::to_string(done) + "/" + std::to_string(total) + " files");
    };
    extract_batches(repo, walked, ctags, extract_options, [&](ExtractedBatch&& batch) {
      out.files_indexed += batch.files.size();
      out.file_errors += batch.errors.size();
      for (const auto& f : batch.files) out.files_reused += f.reuse_id.has_value();
      writer.add(std::move(batch));
    });
    out.walk_extract_seconds = since(start);
    const auto finishing = std::chrono::steady_clock::now();
    progress.show("building staging index: includes and imports", true);
    out.staging = writer.finish();
    out.staging_seconds = since(finishing);
    out.file_errors += walked.problems.size();
    out.tags = out.staging.symbols;
    out.unchanged = writer.unchanged();
    if (out.unchanged) out.rows = writer.live_rows();
    return out;
  };
  try {
    pass = build(true);
  } catch (const storage::Error& e) {
    // The live index may be damaged where its rows were copied from; the
    // swap then sets it aside, and this pass must not depend on it.
    if (!e.damaged()) throw;
    start = std::chrono::steady_clock::now();
    pass = build(false);
  }
}

void swap_pass(IndexPass& pass, storage::Database& db, const fs::path& staging, Progress& progress) {
  // The extraction's texts and tags are freed by now, but the allocator keeps
  // their pages: handed back here, they do not add to the swap's cache in
  // the pass's peak memory.
  ::malloc_trim(0);
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
