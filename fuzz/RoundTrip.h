// Round-trip checks shared by the value fuzz targets. Each helper feeds fuzzer bytes to one reader
// and, when the reader accepts them, demands that writing the value gives back exactly what was
// read and that reading that again gives an equal value. A reader may refuse with a
// Vela::Exception (its documented errors all derive from it); anything else - a mismatch, another
// exception escaping, a sanitizer finding - is a fault, and a mismatch traps so that the fuzzer
// keeps the input.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/String.h"

namespace RoundTrip {

inline void check(bool ok, const char* what) {
   if (!ok) {
      std::fprintf(stderr, "round trip: %s\n", what);
      __builtin_trap();
   }
}

// The fuzzer's bytes consumed front to back; reads past the end give zeros.
class Input {
  public:
   Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
   uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
   // Two bytes, least significant first.
   uint16_t u16() {
      const uint8_t low = byte();
      return static_cast<uint16_t>(low | byte() << 8);
   }
   size_t left() const { return size_ - pos_; }
   const uint8_t* here() const { return data_ + pos_; }
   void skip(size_t n) { pos_ += n < left() ? n : left(); }
   // The next `n` bytes (fewer at the end) as a string.
   std::string text(size_t n) {
      n = n < left() ? n : left();
      std::string out(reinterpret_cast<const char*>(here()), n);
      pos_ += n;
      return out;
   }
   std::string rest() { return text(left()); }

  private:
   const uint8_t* data_;
   size_t size_;
   size_t pos_ = 0;
};

// Copies bytes into a buffer of exactly their size, so that the address sanitizer reports any
// read past them.
inline std::vector<uint8_t> exact(const uint8_t* data, size_t size) {
   return std::vector<uint8_t>(data, data + size);
}

// A fixed byte form: static T deserialize(const uint8_t*), serialize(uint8_t*), T::kSerializedSize.
// `then(value)` runs on every value the bytes were accepted as.
template <typename T, typename Then>
void fixedBytes(Input& in, Then&& then) {
   constexpr size_t n = T::kSerializedSize;
   if (in.left() < n) return;
   const std::vector<uint8_t> bytes = exact(in.here(), n);
   in.skip(n);
   T value;
   try {
      value = T::deserialize(bytes.data());
   } catch (const Vela::Exception&) {
      return;
   }
   std::vector<uint8_t> out(n);
   value.serialize(out.data());
   check(std::memcmp(out.data(), bytes.data(), n) == 0, "fixed byte form written back differs");
   check(T::deserialize(out.data()) == value, "fixed byte form does not read back equal");
   then(value);
}

// The value's text form (valueToStrep for the Value(...) types, stringValue for the network
// types) read back through `parse` gives an equal value whose text is the same.
template <typename T, typename Render, typename Parse>
void textFixedPoint(const T& value, Render&& render, Parse&& parse) {
   const auto text = render(value);
   T back;
   try {
      back = parse(text);
   } catch (const Vela::Exception& e) {
      std::fprintf(stderr, "text %s refused: %s\n", std::string(text).c_str(), e.what());
      check(false, "a value's own text form is refused");
   }
   check(back == value, "text form does not read back to an equal value");
   check(render(back) == text, "text form of the value read back differs");
}

// A Value(...) text constructor T(const_iterator, const_iterator).
template <typename T>
T fromValueText(const Vela::String& text) {
   return T(text.cbegin(), text.cend());
}

// Arbitrary text through a Value(...) constructor: a refusal, or a value whose text is a fixed
// point.
template <typename T>
void valueText(const Vela::String& text) {
   T value;
   try {
      value = fromValueText<T>(text);
   } catch (const Vela::Exception&) {
      return;
   }
   textFixedPoint(
       value, [](const T& v) { return valueToStrep(v); },
       [](const Vela::String& t) { return fromValueText<T>(t); });
}

// With a Value(...) constructor, a value read from bytes also survives its text form.
template <typename T>
void valueTextOf(const T& value) {
   textFixedPoint(
       value, [](const T& v) { return valueToStrep(v); },
       [](const Vela::String& t) { return fromValueText<T>(t); });
}

}  // namespace RoundTrip
