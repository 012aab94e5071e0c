// StrictJson: the tool's JSON reading and printing rules, in one place.
//
// Reading refuses what plain JSON parsers let through silently: a key given twice in one object
// (the last would win), and nesting deeper than kMaxDepth (a file nested 100,000 levels deep must
// be an error, not a stack overflow later). Errors are "<file>:<line>: <what>" for syntax and
// "<file>: <key path>: <what>" for the rest, as every description error is.
//
// Printing never fails on bytes that are not UTF-8 (a name another writer stored): they print as
// U+FFFD. Error messages quote values through excerpt(), which is bounded whatever the value.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace TunnelCtl {

inline constexpr int kMaxJsonDepth = 64;

// Where a value sits while the file is being read: "tunnels[3].vias[0]". `depth` is the number of
// containers around it (1 for a member of the top-level object).
struct JsonPlace {
   const std::string& path;
   int depth;
};

// Called for every value once it is complete (members of the top-level object, elements of
// arrays, ...), with the value and where it is. Returning false drops it from the document, so a
// large array can be consumed element by element.
using JsonCompleted = std::function<bool(const JsonPlace&, nlohmann::json&)>;

// Parses `text`; throws DescriptionError (Description.h) on any refusal.
nlohmann::json parseStrictJson(const std::string& text, const std::string& file,
                               const JsonCompleted& completed = nullptr);

// At most about 60 characters of a value's JSON text, "..." when cut.
std::string excerpt(const nlohmann::json& v);

// `v` as JSON text; bytes that are not UTF-8 print as U+FFFD instead of throwing.
template <class Json>
std::string dumpJson(const Json& v, int indent = -1) {
   return v.dump(indent, ' ', false, nlohmann::detail::error_handler_t::replace);
}

}  // namespace TunnelCtl
