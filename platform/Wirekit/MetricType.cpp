#include "Wirekit/MetricType.h"

#include <fmt/format.h>

#include <array>
#include <ostream>

#include "Vela/Exception.h"
#include "Wirekit/ByteForm.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

namespace {

// Indexed by the numeric value.
constexpr std::array<std::string_view, kMaxMetricTypeValue + 1> kNames = {
    "unknownMetric", "igpMetric", "teMetric", "minDelayMetric", "aigpMetric", "medMetric",
};

}  // namespace

MetricType metricTypeFromValue(uint32_t value) {
   if (!isValidMetricType(value)) {
      throw FormatError(fmt::format("Wirekit::MetricType: unknown value {}", value));
   }
   return static_cast<MetricType>(value);
}

MetricType metricTypeFromString(std::string_view text) {
   for (size_t i = 0; i < kNames.size(); ++i) {
      if (kNames[i] == text) return static_cast<MetricType>(i);
   }
   throw Vela::ParseException(fmt::format("invalid metric type '{}'", printableText(text)));
}

void serializeMetricType(MetricType type, uint8_t* out) noexcept {
   ByteForm::storeLe<uint32_t>(out, static_cast<uint32_t>(type));
}

MetricType deserializeMetricType(const uint8_t* in) {
   return metricTypeFromValue(ByteForm::loadLe<uint32_t>(in));
}

std::string valueToStrep(MetricType type) {
   const auto v = static_cast<uint32_t>(type);
   if (isValidMetricType(v)) return std::string(kNames[v]);
   return fmt::format("MetricType({})", v);
}

std::ostream& operator<<(std::ostream& os, MetricType type) {
   return os << valueToStrep(type);
}

}  // namespace Wirekit
