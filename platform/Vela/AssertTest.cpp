#include <gtest/gtest.h>

#include <string>

#include "Vela/Assert.h"

namespace {

// The exact line "assertion failed: <text> (<file>:<line>)" as a death-test pattern.
std::string line(const std::string& text, int lineNo) {
   std::string file;
   for (char c : std::string(__FILE__)) (c == '.' ? file += "\\." : file += c);
   return "assertion failed: " + text + " \\(" + file + ":" + std::to_string(lineNo) + "\\)";
}

// Each form writes exactly its line and aborts (the fixed-position form is pinned by the tunnel
// type's assertion); a passing condition is evaluated once and the macro is one statement.
TEST(AssertDeathTest, FailureWritesItsTextFileAndLineThenAborts) {
   int evaluations = 0;
   VELA_ASSERT(++evaluations == 1);
   VELA_ASSERT_AT(++evaluations == 2, "x", 1);
   if (evaluations == 2)
      VELA_ASSERT(true);  // safe in an unbraced if/else
   else
      FAIL();
   EXPECT_EQ(evaluations, 2);
   const int at = __LINE__ + 1;
   EXPECT_DEATH(VELA_ASSERT(evaluations == 5), "^" + line("evaluations == 5", at) + "\n");
   EXPECT_EXIT(VELA_ASSERT(false), ::testing::KilledBySignal(SIGABRT), "assertion failed: false");
   const int at2 = __LINE__ + 1;
   EXPECT_DEATH(VELA_FAIL("slot {} of {} is corrupt", 7, "tunnel/table/ldp"),
                line("slot 7 of tunnel/table/ldp is corrupt", at2));
}

}  // namespace
