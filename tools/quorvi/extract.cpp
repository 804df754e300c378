#include "quorvi/extract.hpp"

#include <algorithm>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "quorvi/language.hpp"
#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

struct Batch {
  std::size_t begin = 0, end = 0;  // range of walked.files
  std::vector<FileRecord> files;
  std::vector<FileError> errors;
  std::int64_t ctags_runs = 0;
};

void extract_batch(const fs::path& repo, const WalkResult& walked, const Ctags* ctags, std::int64_t max_bytes,
                   Batch& batch) {
  // Absolute path as given to ctags -> index into batch.files.
  std::unordered_map<std::string, std::size_t> parsed;
  std::vector<std::string> to_parse;
  for (std::size_t i = batch.begin; i < batch.end; ++i) {
    const auto& entry = walked.files[i];
    if (entry.kind == WalkEntry::Kind::other) {
      batch.errors.push_back({entry.path, IO_ERROR, "not a regular file: a " + entry.other_kind, std::nullopt});
      continue;
    }
    const fs::path full = repo / entry.path;
    auto source = read_source(full, max_bytes);
    if (!source.ok()) {
      batch.errors.push_back({entry.path, source.error_type, source.message, std::nullopt});
      continue;
    }
    FileRecord record;
    record.path = entry.path;
    record.language = language_for(fs::path(entry.path).filename().string());
    record.size = source.size;
    record.line_count = count_lines(source.text);
    record.text = std::move(source.text);
    if (ctags && ctags_parser(record.language)) {
      parsed.emplace(full.string(), batch.files.size());
      to_parse.push_back(full.string());
    }
    batch.files.push_back(std::move(record));
  }
  if (!ctags || to_parse.empty()) return;

  auto collect = [&](Tag&& tag) {
    auto it = parsed.find(tag.path);
    if (it == parsed.end()) return;
    tag.path = batch.files[it->second].path;
    batch.files[it->second].tags.push_back(std::move(tag));
  };
  std::string error;
  ++batch.ctags_runs;
  if (!ctags->run(to_parse, collect, error)) {
    // Find the culprit: start over one file at a time.
    for (const auto& file : to_parse) batch.files[parsed[file]].tags.clear();
    for (const auto& file : to_parse) {
      std::string one_error;
      ++batch.ctags_runs;
      if (!ctags->run({file}, collect, one_error)) {
        auto& record = batch.files[parsed[file]];
        record.tags.clear();
        batch.errors.push_back({record.path, PARSE_ERROR, one_error, std::nullopt});
      }
    }
  }
  for (auto& record : batch.files) {
    std::stable_sort(record.tags.begin(), record.tags.end(), [](const Tag& a, const Tag& b) {
      return a.line != b.line ? a.line < b.line : a.name < b.name;
    });
  }
}

}  // namespace

Extraction extract(const fs::path& repo, const WalkResult& walked, const Ctags* ctags,
                   const ExtractOptions& options) {
  const auto max_bytes = options.max_file_bytes > 0 ? options.max_file_bytes : DEFAULT_MAX_FILE_BYTES;
  // Batches close on a file count or on a byte budget, whichever comes
  // first, so that one batch of huge files does not hold up the others.
  std::vector<Batch> batches;
  {
    Batch current;
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < walked.files.size(); ++i) {
      std::error_code ec;
      const auto size = fs::file_size(repo / walked.files[i].path, ec);
      bytes += ec ? 0 : static_cast<std::size_t>(size);
      if (i - current.begin + 1 >= options.batch_files || bytes >= options.batch_bytes) {
        current.end = i + 1;
        batches.push_back(std::move(current));
        current = Batch{};
        current.begin = i + 1;
        bytes = 0;
      }
    }
    current.end = walked.files.size();
    if (current.end > current.begin) batches.push_back(std::move(current));
  }

  unsigned jobs = options.jobs ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
  jobs = static_cast<unsigned>(std::min<std::size_t>(jobs, std::max<std::size_t>(1, batches.size())));
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> done_files{0};
  std::mutex progress_mu;
  std::exception_ptr failure;
  std::mutex failure_mu;
  auto work = [&] {
    while (true) {
      const auto b = next.fetch_add(1);
      if (b >= batches.size()) return;
      {
        std::lock_guard lk(failure_mu);
        if (failure) return;
      }
      try {
        extract_batch(repo, walked, ctags, max_bytes, batches[b]);
      } catch (...) {
        std::lock_guard lk(failure_mu);
        if (!failure) failure = std::current_exception();
        return;
      }
      const auto done = done_files.fetch_add(batches[b].end - batches[b].begin) + (batches[b].end - batches[b].begin);
      if (options.on_progress) {
        std::lock_guard lk(progress_mu);
        options.on_progress(done, walked.files.size());
      }
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 1; i < jobs; ++i) threads.emplace_back(work);
  work();
  for (auto& t : threads) t.join();
  if (failure) std::rethrow_exception(failure);

  Extraction out;
  for (const auto& [dir, why] : walked.unlisted) out.errors.push_back({dir, IO_ERROR, "cannot list: " + why, std::nullopt});
  for (auto& batch : batches) {
    out.ctags_runs += batch.ctags_runs;
    for (auto& f : batch.files) {
      out.tags += static_cast<std::int64_t>(f.tags.size());
      out.files.push_back(std::move(f));
    }
    for (auto& e : batch.errors) out.errors.push_back(std::move(e));
  }
  return out;
}

}  // namespace marsk_quorvi::cli
