#include <gtest/gtest.h>

#include <array>

#include "Vela/Exception.h"
#include "Wirekit/Errors.h"
#include "Wirekit/MetricType.h"
#include "testing/Expect.h"

using Wirekit::MetricType;

namespace {

// Every value's name, stream text and 4 little-endian bytes, both ways; then what is refused.
TEST(MetricType, NamesValuesAndBytesRoundTripAndUnknownOnesAreRejected) {
   const char* names[] = {"unknownMetric",  "igpMetric",  "teMetric",
                          "minDelayMetric", "aigpMetric", "medMetric"};
   static_assert(std::size(names) == Wirekit::kMaxMetricTypeValue + 1);
   for (uint32_t v = 0; v <= Wirekit::kMaxMetricTypeValue; ++v) {
      const MetricType t = Wirekit::metricTypeFromValue(v);
      EXPECT_EQ(Wirekit::valueToStrep(t), names[v]);
      EXPECT_EQ(Testing::streamed(t), names[v]);
      EXPECT_EQ(Wirekit::metricTypeFromString(names[v]), t);
      std::array<uint8_t, 4> b;
      Wirekit::serializeMetricType(t, b.data());
      EXPECT_EQ(b, (std::array<uint8_t, 4>{static_cast<uint8_t>(v), 0, 0, 0}));
      EXPECT_EQ(Wirekit::deserializeMetricType(b.data()), t);
   }
   EXPECT_EQ(Testing::errorText<Wirekit::FormatError>([] { Wirekit::metricTypeFromValue(6); }),
             "Wirekit::MetricType: unknown value 6");
   const std::array<uint8_t, 4> high{1, 0, 0, 1};  // 0x01000001: every byte of the word counts
   EXPECT_EQ(Testing::errorText<Wirekit::FormatError>(
                 [&] { Wirekit::deserializeMetricType(high.data()); }),
             "Wirekit::MetricType: unknown value 16777217");
   EXPECT_EQ(Testing::errorText<Vela::ParseException>(
                 [] { Wirekit::metricTypeFromString("igpMetric "); }),
             "invalid metric type 'igpMetric '");
   EXPECT_THROW(Wirekit::metricTypeFromString("IgpMetric"), Vela::ParseException);
   EXPECT_EQ(Wirekit::valueToStrep(static_cast<MetricType>(9)), "MetricType(9)");
}

}  // namespace
