#include <gtest/gtest.h>

#include <string>

#include "Vela/Assert.h"

namespace {

// Death-test patterns are regular expressions; the expected line is matched literally.
std::string literal(const std::string& s) {
   std::string out;
   for (char c : s) {
      if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
      out += c;
   }
   return out;
}

std::string line(const std::string& text, int lineNo) {
   return literal("assertion failed: " + text + " (" + __FILE__ + ":" + std::to_string(lineNo) +
                  ")");
}

// Each form writes exactly "assertion failed: <text> (<file>:<line>)" and aborts.
TEST(Assert, FailureWritesItsTextFileAndLineThenAborts) {
   int three = 3;
   const int at = __LINE__ + 1;
   EXPECT_DEATH(VELA_ASSERT(three + 1 == 5), "^" + line("three + 1 == 5", at) + "\n");
   const int at2 = __LINE__ + 1;
   EXPECT_DEATH(VELA_ASSERT(0 && "Must give a valid TunnelTableIdentifier."),
                line("0 && \"Must give a valid TunnelTableIdentifier.\"", at2));
   EXPECT_EXIT(VELA_ASSERT(false), ::testing::KilledBySignal(SIGABRT), "assertion failed: false");
   EXPECT_DEATH(VELA_ASSERT_AT(0 && "Unknown tunnel type", "Tunnel/TunnelTableVaultTypes", 66),
                literal("assertion failed: 0 && \"Unknown tunnel type\" "
                        "(Tunnel/TunnelTableVaultTypes:66)"));
   const int at3 = __LINE__ + 1;
   EXPECT_DEATH(VELA_FAIL("slot {} of {} is corrupt", 7, "tunnel/table/ldp"),
                line("slot 7 of tunnel/table/ldp is corrupt", at3));
}

TEST(Assert, PassingConditionEvaluatesOnceAndContinues) {
   int evaluations = 0;
   VELA_ASSERT(++evaluations == 1);
   VELA_ASSERT_AT(++evaluations == 2, "x", 1);
   EXPECT_EQ(evaluations, 2);
   if (evaluations == 2)
      VELA_ASSERT(true);  // the macro is one statement, safe in an unbraced if/else
   else
      FAIL();
}

}  // namespace
