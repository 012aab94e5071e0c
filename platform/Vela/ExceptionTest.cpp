#include <gtest/gtest.h>

#include <stdexcept>

#include "Vela/ArraySizeError.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace {

TEST(Exception, RangeTextNamesTypeFieldAndBoundNames) {
   EXPECT_STREQ(Vela::RangeException::forType("Tunnel::TunnelTable::TunnelId", "value", "minValue",
                                              "maxValue")
                    .what(),
                "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or "
                "> Tunnel::TunnelTable::TunnelId::maxValue not allowed");
   EXPECT_STREQ(Vela::RangeException::forType("Tunnel::TunnelTable::TepIndex").what(),
                "Tunnel::TunnelTable::TepIndex::value < Tunnel::TunnelTable::TepIndex::min or > "
                "Tunnel::TunnelTable::TepIndex::max not allowed");
}

// Callers catch by the runtime's base or as a plain runtime error (the array size error is
// documented as "thrown as a runtime error").
TEST(Exception, EveryRuntimeExceptionIsARuntimeError) {
   EXPECT_THROW(throw Vela::RangeException::forType("T"), Vela::Exception);
   EXPECT_THROW(throw Vela::ParseException("p"), Vela::Exception);
   EXPECT_THROW(throw Vela::NullArgumentException("n"), Vela::Exception);
   EXPECT_THROW(throw Vela::RecreationException("r"), Vela::Exception);
   EXPECT_THROW(throw Vela::ArraySizeError::make(1, 2, nullptr, 0), std::runtime_error);
   EXPECT_EQ(Testing::errorText<std::runtime_error>(
                 [] { throw Vela::ParseException("cannot read attribute 'value' of T: x"); }),
             "cannot read attribute 'value' of T: x");
}

}  // namespace
