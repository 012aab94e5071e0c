// MetricType: which kind of metric a route or tunnel carries. Numeric value 1, igpMetric, is the
// default kind; the numeric values are stored in shared-memory records and must not change.
//
// Byte form (kMetricTypeSerializedSize = 4): the numeric value, u32 little-endian.
// Text form: the enumerator's name ("igpMetric").
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Wirekit {

enum class MetricType : uint32_t {
   unknownMetric = 0,
   igpMetric = 1,       // the default
   teMetric = 2,        // traffic-engineering metric
   minDelayMetric = 3,  // minimum unidirectional link delay
   aigpMetric = 4,      // BGP accumulated IGP metric
   medMetric = 5,       // BGP multi-exit discriminator
};

constexpr MetricType kDefaultMetricType = MetricType::igpMetric;
constexpr uint32_t kMaxMetricTypeValue = 5;
constexpr size_t kMetricTypeSerializedSize = 4;

constexpr bool isValidMetricType(uint32_t value) noexcept {
   return value <= kMaxMetricTypeValue;
}
// Throws FormatError for a value no enumerator has.
MetricType metricTypeFromValue(uint32_t value);
// Reads the enumerator's name; throws Vela::ParseException otherwise.
MetricType metricTypeFromString(std::string_view text);

void serializeMetricType(MetricType type, uint8_t* out) noexcept;
// Reads exactly kMetricTypeSerializedSize bytes; throws FormatError for an unknown value.
MetricType deserializeMetricType(const uint8_t* in);

std::string valueToStrep(MetricType type);
std::ostream& operator<<(std::ostream& os, MetricType type);

}  // namespace Wirekit
