// The extractor stamp is read from a file any process or older build may have written: parsing
// never throws, warns about what it refuses, and what it accepts is stored and read back unchanged.
#include <nlohmann/json.hpp>

#include <algorithm>

#include "fuzz_support.hpp"
#include "storage/database_impl.hpp"
#include "storage/log.hpp"

namespace st = marsk_quorvi::storage;

static void check_round_trip(const st::ExtractorVersions& versions) {
  const std::string stored = st::detail::_stamp_json(versions);
  FUZZ_CHECK(std::all_of(stored.begin(), stored.end(), [](unsigned char c) { return c < 0x80; }));
  FUZZ_CHECK(stored.front() == '{' && stored.back() == '}');
  auto& log = marsk_quorvi::fuzz::captured_log();
  const auto back = st::detail::_parse_extractor_stamp(stored);
  FUZZ_CHECK(log.str().empty());
  FUZZ_CHECK(back == versions);
  FUZZ_CHECK(st::detail::_stamp_json(*back) == stored);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  auto& log = marsk_quorvi::fuzz::captured_log();
  if (const auto parsed = st::detail::_parse_extractor_stamp(raw)) {
    FUZZ_CHECK(log.str().empty());
    const auto json = nlohmann::json::parse(raw, nullptr, false);
    FUZZ_CHECK(json.is_object());
    FUZZ_CHECK(parsed->size() <= json.size());  // duplicate names collapse
    for (const auto& [language, version] : *parsed) FUZZ_CHECK(json.contains(language) && json.at(language) == version);
    check_round_trip(*parsed);
  } else {
    FUZZ_CHECK(log.str() == "warning Extractor stamp " + st::detail::quoted_repr(raw) +
                                " has an unknown format; treating it as absent\n");
  }
  FUZZ_CHECK(!st::detail::_parse_extractor_stamp(std::nullopt).has_value());
  return 0;
}
