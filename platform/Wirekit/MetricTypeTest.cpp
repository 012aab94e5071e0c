#include <gtest/gtest.h>

#include <array>

#include "Vela/Exception.h"
#include "Wirekit/Errors.h"
#include "Wirekit/MetricType.h"
#include "testing/Expect.h"

using Wirekit::MetricType;

namespace {

TEST(MetricType, NamesValuesAndBytesRoundTrip) {
   const char* names[] = {"unknownMetric",  "igpMetric",  "teMetric",
                          "minDelayMetric", "aigpMetric", "medMetric"};
   static_assert(std::size(names) == Wirekit::kMaxMetricTypeValue + 1);
   for (uint32_t v = 0; v <= Wirekit::kMaxMetricTypeValue; ++v) {
      const MetricType t = Wirekit::metricTypeFromValue(v);
      EXPECT_EQ(static_cast<uint32_t>(t), v);
      EXPECT_EQ(Wirekit::valueToStrep(t), names[v]);
      EXPECT_EQ(Testing::streamed(t), names[v]);
      EXPECT_EQ(Wirekit::metricTypeFromString(names[v]), t);
      std::array<uint8_t, 4> b;
      Wirekit::serializeMetricType(t, b.data());
      EXPECT_EQ(b, (std::array<uint8_t, 4>{static_cast<uint8_t>(v), 0, 0, 0}));
      EXPECT_EQ(Wirekit::deserializeMetricType(b.data()), t);
   }
}

TEST(MetricType, UnknownValuesAndNamesAreRejected) {
   for (uint32_t v : {6u, 255u, 256u, 0x01000001u, 0xFFFFFFFFu}) {
      EXPECT_FALSE(Wirekit::isValidMetricType(v));
      EXPECT_THROW(Wirekit::metricTypeFromValue(v), Wirekit::FormatError) << v;
      std::array<uint8_t, 4> b;
      for (int i = 0; i < 4; ++i) b[i] = static_cast<uint8_t>(v >> (8 * i));
      EXPECT_THROW(Wirekit::deserializeMetricType(b.data()), Wirekit::FormatError) << v;
   }
   EXPECT_EQ(Testing::errorText<Wirekit::FormatError>([] { Wirekit::metricTypeFromValue(6); }),
             "Wirekit::MetricType: unknown value 6");
   for (const char* t : {"", "igp", "IgpMetric", "igpMetric ", "1"}) {
      EXPECT_THROW(Wirekit::metricTypeFromString(t), Vela::ParseException) << t;
   }
   EXPECT_EQ(Wirekit::valueToStrep(static_cast<MetricType>(9)), "MetricType(9)");
}

}  // namespace
