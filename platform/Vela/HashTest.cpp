#include "Vela/Hash.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Published test vectors of the one-at-a-time hash.
TEST(OneAtATimeHash, MatchesPublishedVectors) {
   EXPECT_EQ(Vela::oneAtATime("a", 1), 0xca2e9442u);
   const char* fox = "The quick brown fox jumps over the lazy dog";
   EXPECT_EQ(Vela::oneAtATime(fox, std::strlen(fox)), 0x519e91f5u);
   EXPECT_EQ(Vela::oneAtATime("", 0), 0u);
}

TEST(OneAtATimeHash, IntegersAreHashedLeastSignificantByteFirst) {
   uint64_t v = 0x0102030405060708ull;
   const uint8_t bytes[8] = {8, 7, 6, 5, 4, 3, 2, 1};
   EXPECT_EQ(Vela::oneAtATimeOf(v), Vela::oneAtATime(bytes, 8));
   EXPECT_EQ(Vela::HashMixer().add(uint32_t{0x05060708}).add(uint32_t{0x01020304}).finish(),
             Vela::oneAtATime(bytes, 8));
   EXPECT_EQ(Vela::HashMixer().addBytes(bytes, 3).addBytes(bytes + 3, 5).finish(),
             Vela::oneAtATime(bytes, 8));
}

}  // namespace
