// The runtime's string type. Text forms, names and paths are all Vela::String; parsers take a pair
// of its iterators (or a string_view, which every String converts to).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace Vela {

using String = std::string;

// The characters of [begin, end) of a String (or any contiguous range of char) as a view.
// REQUIRES: begin and end delimit one contiguous range, begin <= end.
template <typename It>
std::string_view viewOf(It begin, It end) {
   return std::string_view(std::to_address(begin), static_cast<size_t>(end - begin));
}

}  // namespace Vela
