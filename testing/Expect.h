// Test helpers for the checks many tests repeat: the exact text of the error a call throws, what a
// value prints as, a value's fixed byte form, a list that must be in strictly increasing order
// under `<` and `==`, and bytes written as hex.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Testing {

// The what() text of the E that `f` throws, or "(no exception)". An exception of another type
// propagates and fails the test, so the type is checked as well as the text.
template <typename E = std::exception, typename F>
std::string errorText(F&& f) {
   try {
      f();
   } catch (const E& e) {
      return e.what();
   }
   return "(no exception)";
}

// What `v` prints as through operator<<.
template <typename T>
std::string streamed(const T& v) {
   std::ostringstream os;
   os << v;
   return os.str();
}

// The kSerializedSize bytes `v` serializes to, written over 0xEE bytes so a byte left out shows.
template <typename T>
std::array<uint8_t, T::kSerializedSize> bytesOf(const T& v) {
   std::array<uint8_t, T::kSerializedSize> b;
   b.fill(0xEE);
   v.serialize(b.data());
   return b;
}

// Every pair of `sorted` compares as its positions do, both ways and with itself.
template <typename T>
void expectStrictOrder(const std::vector<T>& sorted) {
   for (size_t i = 0; i < sorted.size(); ++i) {
      for (size_t j = 0; j < sorted.size(); ++j) {
         SCOPED_TRACE(::testing::Message() << "positions " << i << " and " << j);
         EXPECT_EQ(sorted[i] < sorted[j], i < j);
         EXPECT_EQ(sorted[i] == sorted[j], i == j);
      }
   }
}

// Bytes from hex pairs; blanks are ignored ("0a00 ff" is 0a 00 ff).
inline std::vector<uint8_t> hexBytes(std::string_view hex) {
   std::vector<uint8_t> out;
   std::string digits;
   for (char c : hex) {
      if (c != ' ') digits += c;
   }
   for (size_t i = 0; i + 1 < digits.size(); i += 2) {
      out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
   }
   return out;
}

}  // namespace Testing
