#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

#include "Vela/ArraySizeError.h"
#include "Vela/Exception.h"

namespace {

// Callers catch by the runtime's base or as a plain runtime error (the array size error is
// documented as "thrown as a runtime error").
// Convertibility of pointers: the base is public and unambiguous, so a catch by it matches.
template <typename E>
constexpr bool isA = std::is_convertible_v<E*, Vela::Exception*>;
static_assert(std::is_convertible_v<Vela::Exception*, std::runtime_error*>);
static_assert(isA<Vela::RangeException> && isA<Vela::ParseException> &&
              isA<Vela::NullArgumentException> && isA<Vela::RecreationException> &&
              isA<Vela::ArraySizeError>);

// The default field and bound names are checked by the bounded index tests.
TEST(Exception, RangeTextNamesTypeFieldAndBoundNames) {
   EXPECT_STREQ(Vela::RangeException::forType("Tunnel::TunnelTable::TunnelId", "value", "minValue",
                                              "maxValue")
                    .what(),
                "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or "
                "> Tunnel::TunnelTable::TunnelId::maxValue not allowed");
}

}  // namespace
