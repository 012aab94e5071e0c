#include <gtest/gtest.h>

#include "Vela/Ptr.h"

// Counting, conversions, casts and the zero-references hook are exercised by every entity and
// value above; concurrent copies with the thread-safe switch on are checked with the multicast
// tree id's shared text.
namespace {

struct Owned : Vela::RefCounted {
   void onZeroReferences() override {}  // lives on the stack: never deleted
};

TEST(PtrDeathTest, UnrefWithoutReferenceIsAnAssertion) {
   Owned n;
   { Vela::Ptr<Owned> p(&n); }
   EXPECT_EQ(n.references(), 0u);
   EXPECT_DEATH(n.unref(),
                "assertion failed: previous != 0 && \"unref of an object without references\"");
}

}  // namespace
