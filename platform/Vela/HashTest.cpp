#include <gtest/gtest.h>

#include "Vela/Hash.h"

namespace {

// Published vectors ("a", the fox, ""), and vectors from a separate reference implementation:
// bytes at or above 0x80 catch a signed-char step; the 1 KiB input catches any width slip.
TEST(OneAtATimeHash, MatchesVectorsForBytesIntegersSeedsAndTheMixer) {
   EXPECT_EQ(Vela::oneAtATime("a", 1), 0xca2e9442u);
   const char fox[] = "The quick brown fox jumps over the lazy dog";
   EXPECT_EQ(Vela::oneAtATime(fox, sizeof fox - 1), 0x519e91f5u);
   EXPECT_EQ(Vela::oneAtATime("", 0), 0u);
   const uint8_t mixed[3] = {0x80, 0x00, 0xfe};
   EXPECT_EQ(Vela::oneAtATime(mixed, 3), 0x19b358a6u);
   uint8_t kib[1024];
   for (size_t i = 0; i < sizeof kib; ++i) kib[i] = static_cast<uint8_t>(i);
   EXPECT_EQ(Vela::oneAtATime(kib, sizeof kib), 0x342d02c0u);
   // Tunnel identifiers: (type 3, index 7) and the largest valid value.
   static_assert(Vela::oneAtATimeOf(uint64_t{0x300000000007}) == 0x24768ac8u);
   EXPECT_EQ(Vela::oneAtATimeOf(uint64_t{0x1FFFFFFFFFFFF}), 0x586867ebu);
   // Integers are hashed least significant byte first; a seed continues from the given state;
   // the mixer in any number of steps equals the one-shot hash.
   const uint8_t bytes[8] = {8, 7, 6, 5, 4, 3, 2, 1};
   EXPECT_EQ(Vela::oneAtATimeOf(0x0102030405060708ull), Vela::oneAtATime(bytes, 8));
   EXPECT_EQ(Vela::HashMixer().add(uint32_t{0x05060708}).add(uint32_t{0x01020304}).finish(),
             Vela::oneAtATime(bytes, 8));
   EXPECT_EQ(Vela::HashMixer(0x1234u).addBytes(bytes, 3).addBytes(bytes + 3, 5).finish(),
             Vela::oneAtATime(bytes, 8, 0x1234u));
   EXPECT_EQ(Vela::oneAtATimeOf(uint32_t{0x05060708}, 0x1234u),
             Vela::oneAtATime(bytes, 4, 0x1234u));
   EXPECT_NE(Vela::oneAtATime(bytes, 4, 1u), Vela::oneAtATime(bytes, 4, 0u));
}

}  // namespace
