#include "quorvi/index_pass.hpp"
#include "quorvi/progress.hpp"

#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <mutex>

#include "marsk_quorvi/storage/logging.hpp"
#include "quorvi/language.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

// Keeps what the compaction that follows a swap says about itself: the swap
// reports only its row counts, and the log lines are the record of the rest.
class CompactionWatch : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> lines() {
    std::lock_guard lk(mutex_);
    return lines_;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    std::string text(msg.payload.data(), msg.payload.size());
    if (text.starts_with("Compacted ") || text.starts_with("Converted ") || text.starts_with("Compaction of ")) {
      lines_.push_back(text.substr(0, text.find('\n')));
    }
  }
  void flush_() override {}

 private:
  std::vector<std::string> lines_;
};

class ScopedSink {
 public:
  explicit ScopedSink(std::shared_ptr<spdlog::sinks::sink> sink) : sink_(std::move(sink)) {
    auto logger = storage::database_logger();
    saved_level_ = logger->level();
    if (saved_level_ > spdlog::level::info) logger->set_level(spdlog::level::info);
    logger->sinks().push_back(sink_);
  }
  ~ScopedSink() {
    auto logger = storage::database_logger();
    auto& sinks = logger->sinks();
    std::erase(sinks, sink_);
    logger->set_level(saved_level_);
  }

 private:
  std::shared_ptr<spdlog::sinks::sink> sink_;
  spdlog::level::level_enum saved_level_;
};

}  // namespace

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

IndexPass run_index_pass(storage::Database& db, const fs::path& repo, const Ctags* ctags,
                         const ExtractOptions& options, Progress& progress) {
  IndexPass pass;
  auto start = std::chrono::steady_clock::now();
  auto walked = walk_repository(repo, IgnoreRules::load(repo), [&](std::size_t n) {
    progress.show("walking: " + std::to_string(n) + " files");
  });
  // An index kept inside the repository somewhere else than memory/ must
  // not index itself, its journal or its staging file.
  const auto db_abs = fs::absolute(db.db_path).lexically_normal().string();
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

  const fs::path staging = staging_path_for(db.db_path);
  struct Cleanup {
    fs::path path;
    ~Cleanup() { remove_database_files(path); }
  } cleanup{staging};

  start = std::chrono::steady_clock::now();
  pass.staging = build_staging(staging, repo, extraction, [&](std::size_t done, std::size_t total) {
    progress.show("building staging index: " + std::to_string(done) + "/" + std::to_string(total) + " files");
  });
  pass.staging_seconds = since(start);
  extraction = Extraction{};  // the texts are in the staging file now

  progress.show("swapping the new index in", true);
  auto watch = std::make_shared<CompactionWatch>();
  start = std::chrono::steady_clock::now();
  {
    ScopedSink scoped(watch);
    pass.rows = db.swap_index_from(staging);
  }
  pass.swap_seconds = since(start);
  progress.clear();
  pass.compaction = watch->lines();
  pass.generation = db.index_generation();
  return pass;
}

}  // namespace marsk_quorvi::cli
