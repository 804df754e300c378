#include "quorvi/extract.hpp"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/language.hpp"
#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

struct Range {
  std::size_t begin = 0, end = 0;  // of walked.files
};

// Whether ctags can be pointed at a file this process holds open: the link
// /proc/self/fd/N, read in ctags, names ctags' own copy of the descriptor.
bool can_link_descriptors() {
  static const bool yes = ::access("/proc/self/fd", X_OK) == 0;
  return yes;
}

// A private folder of links through which ctags reads the files of a batch.
// ctags gets names it can write in its JSON output (it leaves out the path of
// a name that is not UTF-8, and with it the tag's owner), and, where /proc
// allows, each link leads to the very file this process opened and checked,
// so a file swapped for a link after the check is still not what ctags reads.
class LinkFolder {
 public:
  // In TMPDIR when it is set. Otherwise in memory where the system has a
  // file system for it: a batch makes and removes a link per file, and on a
  // disk each of those is a journaled update that costs several times more.
  LinkFolder() {
    const char* tmp = std::getenv("TMPDIR");
    const std::vector<std::string> bases =
        tmp && *tmp && valid_utf8(tmp) ? std::vector<std::string>{tmp} : std::vector<std::string>{"/dev/shm", "/tmp"};
    for (const auto& base : bases) {
      std::string templ = base + "/quorvi-ctags-XXXXXX";
      if (::mkdtemp(templ.data())) {
        dir_ = templ;
        return;
      }
    }
    const int error = errno;
    throw OSError("cannot make a folder for ctags in " + bases.back() + ": " + std::strerror(error), error, bases.back());
  }
  ~LinkFolder() {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  LinkFolder(const LinkFolder&) = delete;
  LinkFolder& operator=(const LinkFolder&) = delete;

  // A link to `target` named so that ctags reads it as `language`: the
  // number `n` and the extension that tells it, or, for a language that
  // only a whole name tells (`Makefile`, `CMakeLists.txt`), the file's own
  // name in a folder of its own. A folder costs a second inode per file,
  // so only those get one.
  std::string add(std::size_t n, std::string_view rel, const std::string& target, const std::string& language) {
    std::string name(rel.substr(rel.rfind('/') + 1));
    const auto dot = name.rfind('.');
    fs::path link;
    if (dot != std::string::npos && dot > 0 && language_for("x" + name.substr(dot)) == language) {
      link = dir_ / (std::to_string(n) + name.substr(dot));  // the table's extensions are ASCII
    } else if (language_for(name) == language && valid_utf8(name) &&
               std::none_of(name.begin(), name.end(), [](char c) {
                 return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
               })) {
      const fs::path sub = dir_ / std::to_string(n);
      if (::mkdir(sub.c_str(), 0700) != 0) fail();
      link = sub / name;
    } else {
      link = dir_ / (std::to_string(n) + "." + extension_for(language).value_or("txt"));
    }
    if (::symlink(target.c_str(), link.c_str()) != 0) fail();
    return link.string();
  }

 private:
  [[noreturn]] void fail() const {
    throw OSError("cannot make a link for ctags in " + dir_.string() + ": " + std::strerror(errno), errno, dir_);
  }
  fs::path dir_;
};

bool same_file(const FileRecord& record, const LiveFile& live) {
  return record.size == live.size && record.mtime == live.mtime && record.hash == live.hash &&
         record.language == live.language;
}

void extract_batch(const fs::path& repo, int root, const WalkResult& walked, const Ctags* ctags,
                   std::int64_t max_bytes, const ReuseMap* reuse, Range range, ExtractedBatch& batch) {
  batch.walked = range.end - range.begin;
  struct ToParse {
    std::size_t record;
    FileHandle file;
    std::string link;
  };
  std::vector<ToParse> to_parse;
  for (std::size_t i = range.begin; i < range.end; ++i) {
    const auto& entry = walked.files[i];
    if (entry.kind == WalkEntry::Kind::other) {
      batch.errors.push_back({entry.path, IO_ERROR, "not a regular file: a " + entry.other_kind, std::nullopt});
      continue;
    }
    FileRecord record;
    record.language = language_for(entry.path.substr(entry.path.rfind('/') + 1));
    const bool by_text = ctags && text_may_decide_language(entry.path);
    auto source = read_source(root, entry.path, max_bytes,
                              (by_text || (ctags && ctags_parser(record.language))) && can_link_descriptors());
    if (!source.ok()) {
      batch.errors.push_back({entry.path, source.error_type, source.message, std::nullopt});
      continue;
    }
    if (by_text) record.language = language_of(entry.path, std::string_view(source.text).substr(0, 1024));
    record.path = entry.path;
    record.size = source.size;
    record.mtime = source.mtime;
    record.hash = content_hash(source.text);
    if (reuse) {
      if (auto it = reuse->find(record.path); it != reuse->end() && same_file(record, it->second)) {
        record.reuse_id = it->second.id;
        batch.files.push_back(std::move(record));
        continue;
      }
    }
    const bool parse = ctags && ctags_parser(record.language);
    record.line_count = count_lines(source.text);
    record.text = std::move(source.text);
    if (parse) to_parse.push_back({batch.files.size(), std::move(source.file), {}});
    batch.files.push_back(std::move(record));
  }
  if (to_parse.empty()) return;

  LinkFolder links;
  std::unordered_map<std::string, std::size_t> parsed;  // link -> index into batch.files
  std::vector<int> inherit;
  std::vector<std::string> names;
  for (std::size_t n = 0; n < to_parse.size(); ++n) {
    auto& p = to_parse[n];
    const auto& rel = batch.files[p.record].path;
    p.link = links.add(n, rel, p.file ? "/proc/self/fd/" + std::to_string(p.file.get()) : (repo / rel).string(),
                       batch.files[p.record].language);
    if (p.file) inherit.push_back(p.file.get());
    parsed.emplace(p.link, p.record);
    names.push_back(p.link);
  }
  // A file's tags come one after another: the last file found is asked first.
  const std::pair<const std::string, std::size_t>* last = nullptr;
  auto collect = [&](Tag&& tag) {
    if (!last || last->first != tag.path) {
      auto it = parsed.find(tag.path);
      if (it == parsed.end()) return;
      last = &*it;
    }
    auto& record = batch.files[last->second];
    // Room for about one tag per 128 bytes of text, what headers average, so
    // that the list is seldom moved as it grows.
    if (record.tags.empty()) record.tags.reserve(std::max<std::size_t>(16, record.text.size() / 128));
    // The record's path says which file; the link's name stays with the
    // caller's tag, whose buffer the next line reuses.
    std::string path = std::move(tag.path);
    record.tags.push_back(std::move(tag));
    tag.path = std::move(path);
  };
  std::string error;
  ++batch.ctags_runs;
  if (!ctags->run(names, collect, error, inherit)) {
    // Find the culprit: start over one file at a time.
    for (const auto& p : to_parse) batch.files[p.record].tags.clear();
    for (const auto& p : to_parse) {
      std::string one_error;
      ++batch.ctags_runs;
      std::vector<int> one;
      if (p.file) one.push_back(p.file.get());
      if (!ctags->run({p.link}, collect, one_error, one)) {
        auto& record = batch.files[p.record];
        record.tags.clear();
        batch.errors.push_back({record.path, PARSE_ERROR, one_error, std::nullopt});
      }
    }
  }
  for (auto& record : batch.files) {
    record.imports = take_imports(record.tags);
    // ctags mostly reports a file's tags in order already, and a check is
    // cheaper than a sort that moves every tag.
    const auto by_line = [](const Tag& a, const Tag& b) { return a.line != b.line ? a.line < b.line : a.name < b.name; };
    if (!std::is_sorted(record.tags.begin(), record.tags.end(), by_line)) {
      std::stable_sort(record.tags.begin(), record.tags.end(), by_line);
    }
  }
}

// Descriptors a batch may hold open at once while its ctags runs: the soft
// limit, raised to the hard one, shared among the threads with room to spare.
std::size_t descriptors_per_batch(unsigned jobs) {
  rlimit lim{};
  if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return 64;
  if (lim.rlim_cur < lim.rlim_max) {
    rlimit raised = lim;
    raised.rlim_cur = lim.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) lim = raised;
  }
  const auto usable = lim.rlim_cur == RLIM_INFINITY ? rlim_t{1} << 20 : lim.rlim_cur;
  return std::max<std::size_t>(8, (usable > 128 ? usable - 128 : 0) / std::max(1u, jobs));
}

}  // namespace

std::vector<Import> take_imports(std::vector<Tag>& tags) {
  // The roles under which ctags reports an include or an import: C and C++
  // headers, makefiles, Python, Go, Java, Perl, Protobuf, Ruby and shell.
  static const std::unordered_set<std::string_view> import_roles{
      "system",   "local",     "included", "optional", "imported", "indirectlyImported",
      "namespace", "used",     "loaded",   "required", "requiredRel"};
  std::vector<Import> imports;
  std::vector<Tag*> aliases;
  for (auto& tag : tags) {
    if (!tag.is_reference()) {
      if (tag.nameref) aliases.push_back(&tag);
      continue;
    }
    if (!import_roles.count(std::string_view(tag.roles).substr(0, tag.roles.find(',')))) continue;
    Import in{tag.name, std::nullopt, std::nullopt, tag.line};
    // "from module import name": the name comes scoped by its module.
    if (tag.scope && tag.scope_kind == "module") in = {*tag.scope, tag.name, std::nullopt, tag.line};
    imports.push_back(std::move(in));
  }
  // The module of "from module import name" is also reported on its own
  // (role "namespace"): the rows that name what is taken say it already.
  std::erase_if(imports, [&](const Import& a) {
    return !a.name && std::any_of(imports.begin(), imports.end(), [&](const Import& b) {
             return b.name && b.line == a.line && b.module == a.module;
           });
  });
  // "import module as alias" defines the alias, naming what it stands for.
  for (const Tag* def : aliases) {
    const auto target = def->nameref->substr(def->nameref->find(':') + 1);
    for (auto& in : imports) {
      if (in.line == def->line && in.name.value_or(in.module) == target) in.alias = def->name;
    }
  }
  std::erase_if(tags, [](const Tag& t) { return t.is_reference(); });
  std::stable_sort(imports.begin(), imports.end(), [](const Import& a, const Import& b) { return a.line < b.line; });
  return imports;
}

void extract_batches(const fs::path& repo, const WalkResult& walked, const Ctags* ctags, const ExtractOptions& options,
                     const std::function<void(ExtractedBatch&&)>& sink) {
  const auto max_bytes = options.max_file_bytes > 0 ? options.max_file_bytes : DEFAULT_MAX_FILE_BYTES;
  const FileHandle root(::open(repo.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) throw OSError("cannot open " + repo.string() + ": " + std::strerror(errno), errno, repo);
  unsigned jobs = options.jobs ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
  // Each ctags run costs a process start, so batches are large; a small tree
  // still gets a few batches per thread, so that every core has work.
  const std::size_t spread = std::max<std::size_t>(8, walked.files.size() / (4 * std::size_t{jobs}) + 1);
  const auto batch_files = std::max<std::size_t>(
      1, std::min({options.batch_files, spread,
                   can_link_descriptors() ? descriptors_per_batch(jobs) : options.batch_files}));
  // Batches close on a file count or on a byte budget, whichever comes
  // first, so that one batch of huge files does not hold up the others.
  std::vector<Range> ranges;
  {
    Range current;
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < walked.files.size(); ++i) {
      bytes += static_cast<std::size_t>(std::max<std::int64_t>(0, walked.files[i].size));
      if (i - current.begin + 1 >= batch_files || bytes >= options.batch_bytes) {
        current.end = i + 1;
        ranges.push_back(current);
        current = Range{i + 1, 0};
        bytes = 0;
      }
    }
    current.end = walked.files.size();
    if (current.end > current.begin) ranges.push_back(current);
  }

  jobs = static_cast<unsigned>(std::min<std::size_t>(jobs, std::max<std::size_t>(1, ranges.size())));
  // Each thread has a batch in hand; `ahead` more may wait done for the writer.
  const std::size_t window = jobs + options.ahead;
  // Batches are taken in order and handed over in order; a thread waits
  // before taking one past the window, so that batches done but not yet
  // written never pile up behind a slow one.
  std::mutex mu;
  std::condition_variable changed;
  std::vector<std::optional<ExtractedBatch>> done(ranges.size());
  std::size_t next = 0, handed = 0;
  std::exception_ptr failure;
  // The first failure, of a thread or of the writer, stops every thread.
  const auto fail = [&] {
    std::lock_guard lk(mu);
    if (!failure) failure = std::current_exception();
    changed.notify_all();
  };
  auto work = [&] {
    while (true) {
      std::size_t b = 0;
      {
        std::unique_lock lk(mu);
        changed.wait(lk, [&] { return failure || next >= ranges.size() || next < handed + window; });
        if (failure || next >= ranges.size()) return;
        b = next++;
      }
      ExtractedBatch batch;
      try {
        extract_batch(repo, root.get(), walked, ctags, max_bytes, options.reuse, ranges[b], batch);
      } catch (...) {
        return fail();
      }
      std::lock_guard lk(mu);
      done[b] = std::move(batch);
      changed.notify_all();
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < jobs; ++i) threads.emplace_back(work);
  std::size_t files_done = 0;
  for (std::size_t b = 0; b < ranges.size(); ++b) {
    ExtractedBatch batch;
    {
      std::unique_lock lk(mu);
      changed.wait(lk, [&] { return failure || done[b]; });
      if (failure) break;
      batch = std::move(*done[b]);
      done[b].reset();
      handed = b + 1;
      changed.notify_all();
    }
    files_done += batch.walked;
    try {
      sink(std::move(batch));
    } catch (...) {
      fail();
      break;
    }
    if (options.on_progress) options.on_progress(files_done, walked.files.size());
  }
  for (auto& t : threads) t.join();
  if (failure) std::rethrow_exception(failure);
}

Extraction extract(const fs::path& repo, const WalkResult& walked, const Ctags* ctags, const ExtractOptions& options) {
  Extraction out;
  for (const auto& p : walked.problems) out.errors.push_back({p.path, p.error_type, p.message, std::nullopt});
  extract_batches(repo, walked, ctags, options, [&](ExtractedBatch&& batch) {
    out.ctags_runs += batch.ctags_runs;
    for (auto& f : batch.files) {
      out.tags += static_cast<std::int64_t>(f.tags.size());
      out.files.push_back(std::move(f));
    }
    for (auto& e : batch.errors) out.errors.push_back(std::move(e));
  });
  return out;
}

}  // namespace marsk_quorvi::cli
