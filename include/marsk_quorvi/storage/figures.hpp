// The figures a `Database` reports: row counts per table, the extractor
// stamp, and the file's pages.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace marsk_quorvi::storage {

// Table (or figure) name -> count, in insertion order.
class RowCounts {
 public:
  using value_type = std::pair<std::string, std::int64_t>;
  RowCounts() = default;
  RowCounts(std::initializer_list<value_type> items) : items_(items) {}
  void set(std::string_view key, std::int64_t value);            // appends a new key
  [[nodiscard]] std::int64_t at(std::string_view key) const;     // std::out_of_range when missing
  [[nodiscard]] bool contains(std::string_view key) const noexcept;
  [[nodiscard]] std::size_t size() const noexcept { return items_.size(); }
  [[nodiscard]] bool empty() const noexcept { return items_.empty(); }
  auto begin() const noexcept { return items_.begin(); }
  auto end() const noexcept { return items_.end(); }
  [[nodiscard]] std::string to_string() const;  // "{'edges': 3, 'files': 1}", as log lines show it
  bool operator==(const RowCounts&) const = default;

 private:
  std::vector<value_type> items_;
};

// Language name -> extractor version, in ascending key order.
using ExtractorVersions = std::map<std::string, std::int64_t>;

// The file's pages now: read before and after `compact` to see what it did.
struct PageCounts {
  std::int64_t page_size = 0;
  std::int64_t page_count = 0;
  std::int64_t freelist_count = 0;
  bool operator==(const PageCounts&) const = default;
};

}  // namespace marsk_quorvi::storage
