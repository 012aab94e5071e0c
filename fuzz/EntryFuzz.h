// Shared body of the entry fuzz targets. Every target feeds arbitrary bytes to one entry kind,
// chosen by the first input byte among the kinds the target covers:
//   - deserializeLen must answer without reading past the bytes given (the fuzzer's buffer has
//     exactly that size, so the address sanitizer sees any overread);
//   - deserialize either throws a Vela::Exception or builds an entry whose byte form is exactly
//     the bytes it was read from, and which reads back to an equal entry;
//   - a kind without a via collection also reads its own text form back to an equal entry.
// Any other outcome aborts, which the fuzzer reports with the input.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <vector>

#include "TunnelTable/TunnelTableEntries.h"
#include "Vela/Exception.h"

namespace EntryFuzz {

inline void check(bool ok, const char* what) {
   if (!ok) {
      std::fprintf(stderr, "entry fuzz: %s\n", what);
      std::abort();
   }
}

template <typename E>
constexpr bool kTextReadable = !requires(E e) {
   e.viaCount();
}
&&!requires(E e) {
   e.splitViaCount();
};

template <typename E>
void checkText(const E& e) {
   if constexpr (kTextReadable<E>) {
      // A NaN bandwidth prints as "nan" and loses its payload bits; text is not a byte form.
      if constexpr (requires { e.tunnelBw(); }) {
         if (std::isnan(e.tunnelBw().value())) return;
      }
      const Vela::String text = valueToStrep(e);
      const E back(text.cbegin(), text.cend());
      check(back == e, "text form does not read back to an equal entry");
   }
}

// Two ways to read the input, chosen by `patch`:
//   - false: the input is a record without its six-byte header, and the header of E is put in
//     front, so the fuzzer spends its time on the fields rather than on the kind code and length;
//   - true: the first two bytes give an offset into the byte form of a sample entry of E, and
//     the rest overwrites the record from there (a mutated valid record reaches every field).
template <typename E>
std::vector<uint8_t> frame(const uint8_t* input, size_t inputSize, bool patch) {
   std::vector<uint8_t> framed;
   if (patch) {
      E sample;
      if constexpr (requires { sample.viaIs(0, {}); }) {
         sample.viaIs(1, {});
      }
      framed.resize(sample.serializeLen());
      sample.serialize(framed.data());
      if (inputSize < 2) return framed;
      const size_t at = (input[0] | (input[1] << 8)) % framed.size();
      for (size_t i = 2; i < inputSize; ++i) {
         if (at + i - 2 < framed.size()) {
            framed[at + i - 2] = input[i];
         } else {
            framed.push_back(input[i]);
         }
      }
      return framed;
   }
   framed.resize(inputSize + 6);
   if constexpr (requires { E::kKind; }) {
      const auto kind = static_cast<uint16_t>(E::kKind);
      const auto len = static_cast<uint32_t>(inputSize + 6);
      framed[0] = static_cast<uint8_t>(kind), framed[1] = static_cast<uint8_t>(kind >> 8);
      for (int i = 0; i < 4; ++i) framed[2 + i] = static_cast<uint8_t>(len >> (8 * i));
      if (inputSize != 0) std::memcpy(framed.data() + 6, input, inputSize);
   } else {
      framed.assign(input, input + inputSize);
   }
   return framed;
}

template <typename E>
void bytesRoundTrip(const uint8_t* input, size_t inputSize, bool patch) {
   if (inputSize > 1 << 20) return;
   // Exactly sized, so the address sanitizer sees any read past the record.
   const std::vector<uint8_t> framed = frame<E>(input, inputSize, patch);
   const uint8_t* data = framed.data();
   const size_t size = framed.size();
   const uint32_t available = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
   const uint32_t len = E::deserializeLen(data, available);
   check(len <= available, "deserializeLen answered more than was available");
   E e;
   try {
      e.deserialize(data, len == 0 ? available : len);
   } catch (const Vela::Exception&) {
      return;
   }
   check(len != 0, "a record deserializeLen called truncated was accepted");
   std::vector<uint8_t> out(e.serializeLen());
   e.serialize(out.data());
   check(out.size() == len && std::memcmp(out.data(), data, len) == 0,
         "bytes read and written again differ");
   E again;
   again.deserialize(out.data(), static_cast<uint32_t>(out.size()));
   check(again == e, "bytes written do not read back to an equal entry");
   checkText(e);
}

// With `patch`, the first two bytes give an offset into the text form of a default E and the
// rest replaces the text from there to its end; otherwise the input is the whole text.
template <typename E>
void textRoundTrip(const uint8_t* data, size_t size, bool patch) {
   if constexpr (kTextReadable<E>) {
      Vela::String text;
      if (patch && size >= 2) {
         text = valueToStrep(E());
         text.resize((data[0] | (data[1] << 8)) % text.size());
         text.append(reinterpret_cast<const char*>(data + 2), size - 2);
      } else {
         text.assign(reinterpret_cast<const char*>(data), size);
      }
      try {
         const E e(text.cbegin(), text.cend());
         checkText(e);
         std::vector<uint8_t> out(e.serializeLen());
         e.serialize(out.data());
         E back;
         back.deserialize(out.data(), static_cast<uint32_t>(out.size()));
         check(back == e, "an entry read from text does not survive its byte form");
      } catch (const Vela::Exception&) {
      }
   }
}

// Runs body(Kind*, data, size, flag) for the kind the low seven bits of the first byte select;
// the flag is the first byte's top bit.
template <typename... Kinds, typename F>
void dispatch(const uint8_t* data, size_t size, F&& body) {
   if (size == 0) return;
   const size_t pick = (data[0] & 0x7F) % sizeof...(Kinds);
   const bool flag = (data[0] & 0x80) != 0;
   size_t i = 0;
   ((i++ == pick ? body(static_cast<Kinds*>(nullptr), data + 1, size - 1, flag) : void()), ...);
}

}  // namespace EntryFuzz
