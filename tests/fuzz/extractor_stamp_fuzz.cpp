// The extractor stamp is read from a file that any process, or any older
// build, may have written. Properties of `_parse_extractor_stamp` on any text:
// it never throws; a text it accepts is a JSON object of integers, and
// storing the result and reading it back gives the same map in the same
// stored text; a text it refuses gives exactly one warning, with the text in
// its quoted form; and a map built from the input, stored the way
// `refresh_extractor_stamp` stores it, reads back as itself.
#include <cstddef>
#include <cstdint>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>
#include <nlohmann/json.hpp>

#include "fuzz_support.hpp"
#include "storage/log.hpp"
#include "storage/database_impl.hpp"

namespace {

namespace st = marsk_quorvi::storage;
using marsk_quorvi::fuzz::captured_log;

bool ascii(const std::string& s) {
  for (unsigned char c : s) {
    if (c >= 0x80) return false;
  }
  return true;
}

bool valid_utf8(const std::string& s) {
  // nlohmann refuses to write invalid UTF-8 when asked to throw.
  try {
    (void)nlohmann::json(s).dump();
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

void check_round_trip(const st::ExtractorVersions& versions) {
  const std::string stored = st::detail::_stamp_json(versions);
  FUZZ_CHECK(ascii(stored));
  FUZZ_CHECK(stored.front() == '{' && stored.back() == '}');
  auto& log = captured_log();
  const auto back = st::detail::_parse_extractor_stamp(stored);
  FUZZ_CHECK(log.records.empty());
  FUZZ_CHECK(back.has_value());
  FUZZ_CHECK(*back == versions);
  FUZZ_CHECK(st::detail::_stamp_json(*back) == stored);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);

  auto& log = captured_log();
  const auto parsed = st::detail::_parse_extractor_stamp(raw);
  if (parsed) {
    FUZZ_CHECK(log.records.empty());
    const auto json = nlohmann::json::parse(raw, nullptr, false);
    FUZZ_CHECK(json.is_object());
    // Duplicate names collapse, so the map holds at most as many members.
    FUZZ_CHECK(parsed->size() <= json.size());
    for (const auto& [language, version] : *parsed) {
      FUZZ_CHECK(json.contains(language));
      FUZZ_CHECK(json[language].is_number_integer());
    }
    check_round_trip(*parsed);
  } else {
    FUZZ_CHECK(log.records.size() == 1);
    FUZZ_CHECK(log.records[0].first == spdlog::level::warn);
    FUZZ_CHECK(log.records[0].second == "Extractor stamp " + st::detail::quoted_repr(raw) +
                                            " has an unknown format; treating it as absent");
  }
  FUZZ_CHECK(!st::detail::_parse_extractor_stamp(std::nullopt).has_value());

  // A map of the caller's versions: any valid UTF-8 names, any integers.
  FuzzedDataProvider provider(data, size);
  st::ExtractorVersions versions;
  while (provider.remaining_bytes() > 0 && versions.size() < 16) {
    std::string language = provider.ConsumeRandomLengthString(24);
    const auto version = provider.ConsumeIntegral<std::int64_t>();
    if (valid_utf8(language)) versions[language] = version;
  }
  check_round_trip(versions);
  return 0;
}
