// The network value types' readers: the byte forms of IpGenAddr, IpGenPrefix, IntfId,
// MplsLabelOperation and MetricType, the variable byte form of UnboundedMplsLabelOperation
// (deserializeLen, then deserialize), and the text parsers of all of them. The first input byte
// picks the reader; the rest is its input.
//
// Accepted bytes must be written back identically; every accepted value must read back from its
// text form to an equal value with the same text, and the two label operation types must agree on
// every operation that fits both (same value both ways, same hash).
#include "RoundTrip.h"
#include "Wirekit/Errors.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/IpGenPrefix.h"
#include "Wirekit/MetricType.h"
#include "Wirekit/MplsLabelOperation.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

using namespace Wirekit;
using RoundTrip::check;

namespace {

template <typename T>
void stringFixedPoint(const T& value) {
   RoundTrip::textFixedPoint(
       value, [](const T& v) { return v.stringValue(); },
       [](const std::string& t) { return T(t); });
}

void fixedOf(const IpGenAddr& a) {
   stringFixedPoint(a);
   std::vector<uint8_t> out(IpGenAddr::kSerializedSize);
   a.serialize(out.data());
   check(IpGenAddr::deserialize(out.data()) == a, "address bytes do not read back equal");
}

void fixedOf(const IpGenPrefix& p) {
   stringFixedPoint(p);
   check(IpGenPrefix(p.address(), p.length()) == p, "prefix is not its own masked form");
   std::vector<uint8_t> out(IpGenPrefix::kSerializedSize);
   p.serialize(out.data());
   check(IpGenPrefix::deserialize(out.data()) == p, "prefix bytes do not read back equal");
}

void fixedOf(const IntfId& i) {
   stringFixedPoint(i);
   check(IntfId::fromCode(i.code()) == i, "interface code does not read back equal");
}

void checkUnbounded(const UnboundedMplsLabelOperation& op);

void fixedOf(const MplsLabelOperation& op) {
   stringFixedPoint(op);
   check(MplsLabelOperation::popAndPush(op.popCount(), op.labels()) == op,
         "operation differs from the one its pops and labels build");
   const UnboundedMplsLabelOperation wide(op);
   check(wide.toBounded() == op, "bounded -> unbounded -> bounded changes the operation");
   check(wide.hash(7) == op.hash(7), "the two label operation types hash alike differently");
   checkUnbounded(wide);
}

void checkUnbounded(const UnboundedMplsLabelOperation& op) {
   stringFixedPoint(op);
   const uint32_t len = op.serializeLen();
   check(len == UnboundedMplsLabelOperation::kHeaderSize + 4 * op.labelCount(),
         "unbounded operation length is not header plus labels");
   std::vector<uint8_t> out(len);
   op.serialize(out.data());
   check(UnboundedMplsLabelOperation::deserializeLen(out.data(), len) == len,
         "unbounded operation's own bytes measure a different length");
   check(UnboundedMplsLabelOperation::deserialize(out.data(), len) == op,
         "unbounded operation bytes do not read back equal");
   if (op.labelCount() <= MplsLabelOperation::kMaxLabels) {
      const MplsLabelOperation narrow = op.toBounded();
      check(UnboundedMplsLabelOperation(narrow) == op, "unbounded -> bounded loses the operation");
      check(narrow.hash(3) == op.hash(3), "the two label operation types hash alike differently");
   } else {
      try {
         (void)op.toBounded();
         check(false, "an operation deeper than the bounded stack was made bounded");
      } catch (const LabelStackOverflow&) {
      }
   }
}

void unboundedBytes(RoundTrip::Input& in) {
   const std::vector<uint8_t> bytes = RoundTrip::exact(in.here(), in.left());
   const auto available = static_cast<uint32_t>(bytes.size());
   const uint32_t len = UnboundedMplsLabelOperation::deserializeLen(bytes.data(), available);
   check(len <= available, "deserializeLen answered more than was available");
   UnboundedMplsLabelOperation op;
   try {
      op = UnboundedMplsLabelOperation::deserialize(bytes.data(), len == 0 ? available : len);
   } catch (const Vela::Exception&) {
      return;
   }
   check(len != 0, "bytes deserializeLen called truncated were accepted");
   std::vector<uint8_t> out(op.serializeLen());
   op.serialize(out.data());
   check(out.size() == len && std::memcmp(out.data(), bytes.data(), len) == 0,
         "unbounded operation bytes written back differ");
   checkUnbounded(op);
}

void metricBytes(RoundTrip::Input& in) {
   if (in.left() < kMetricTypeSerializedSize) return;
   const std::vector<uint8_t> bytes = RoundTrip::exact(in.here(), kMetricTypeSerializedSize);
   MetricType type;
   try {
      type = deserializeMetricType(bytes.data());
   } catch (const Vela::Exception&) {
      return;
   }
   uint8_t out[kMetricTypeSerializedSize];
   serializeMetricType(type, out);
   check(std::memcmp(out, bytes.data(), sizeof out) == 0, "metric type bytes written back differ");
   check(metricTypeFromString(valueToStrep(type)) == type, "metric type text does not read back");
}

// Arbitrary text through a parser; an accepted value is checked as if read from bytes.
template <typename T>
void fromText(RoundTrip::Input& in) {
   const std::string text = in.rest();
   T value;
   try {
      value = T(text);
   } catch (const Vela::Exception&) {
      return;
   }
   fixedOf(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   RoundTrip::Input in(data, size);
   const auto each = [](const auto& v) { fixedOf(v); };
   switch (in.byte() % 12) {
      case 0:
         RoundTrip::fixedBytes<IpGenAddr>(in, each);
         break;
      case 1:
         RoundTrip::fixedBytes<IpGenPrefix>(in, each);
         break;
      case 2:
         RoundTrip::fixedBytes<IntfId>(in, each);
         break;
      case 3:
         RoundTrip::fixedBytes<MplsLabelOperation>(in, each);
         break;
      case 4:
         unboundedBytes(in);
         break;
      case 5:
         metricBytes(in);
         break;
      case 6:
         fromText<IpGenAddr>(in);
         break;
      case 7:
         fromText<IpGenPrefix>(in);
         break;
      case 8:
         fromText<IntfId>(in);
         break;
      case 9:
         fromText<MplsLabelOperation>(in);
         break;
      case 10: {
         const std::string text = in.rest();
         UnboundedMplsLabelOperation op;
         try {
            op = UnboundedMplsLabelOperation(text);
         } catch (const Vela::Exception&) {
            break;
         }
         checkUnbounded(op);
         break;
      }
      case 11: {
         const std::string text = in.rest();
         try {
            const MetricType type = metricTypeFromString(text);
            check(valueToStrep(type) == text, "metric type name reads as another");
         } catch (const Vela::Exception&) {
         }
         break;
      }
   }
   return 0;
}
