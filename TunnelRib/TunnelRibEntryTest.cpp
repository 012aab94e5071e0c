// The RIB entry's forms, operations and refusals; the two RIB tables: counted writes and deletes
// with their asymmetries, the dump lines, and a reader in another process that sees what the
// writer wrote.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelRib/TunnelRib.h"
#include "TunnelRib/TunnelRibEntry.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelTable {
namespace {

static_assert(std::endian::native == std::endian::little, "the byte images below are host order");

const Wirekit::IpGenPrefix kTen("10.0.0.0/8");
TunnelId ldp(uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, index));
}
double num(const TunnelId& id) {
   return double(id.tunnelIndex());
}
double num(TunnelBandwidth bw) {
   return bw.value();
}
template <typename Array>  // the live places; ids as their index
std::vector<double> live(const Array& a) {
   std::vector<double> out;
   for (const auto& v : a) out.push_back(num(v));
   return out;
}
// ldp(i) at place i of the ids (0: the empty id), and the bandwidths.
TunnelRibEntry withIds(const std::vector<uint64_t>& ids, const std::vector<float>& bws = {}) {
   TunnelRibEntry e(kTen);
   for (uint16_t i = 0; i < ids.size(); ++i) e.tunnelIdIs(i, ids[i] ? ldp(ids[i]) : TunnelId());
   for (uint16_t i = 0; i < bws.size(); ++i) e.tunnelBwIs(i, bws[i]);
   return e;
}

// kSampleBytes as a value.
TunnelRibEntry sample() {
   TunnelRibEntry e(ColoredTunnelEndpoint(kTen, 5));
   e.metricIs(1), e.metricTypeIs(Wirekit::MetricType::teMetric), e.metric2Is(3), e.prefIs(4);
   e.pref2Is(5), e.entryPrefIs(6), e.entryMetricIs(7), e.tunnelBwIs(0, 1.5f);
   e.tunnelIdIs(0, ldp(7));
   e.tunnelIdIs(1, TunnelId(TunnelId::convertToTunnelValue(TunnelType::staticTunnel, 9)));
   return e;
}
const std::string kTail = "07000000003000000900000000500000010000000000c03f";  // from offset 64
const std::vector<uint8_t> kSampleBytes = Testing::hexBytes(
    "04000000 0a000000 00000000 00000000 00000000 08000000 05000000 01000000"  // endpoint
    "01000000 02000000 03000000 04000000 05000000 06000000 07000000 02000000" +
    kTail);

TEST(TunnelRibEntryTest, TextAndDumpForms) {
   const std::string head =
       "Value('Tunnel::TunnelTable::TunnelRibEntry', ** {'coloredTep': "
       "Value('Tunnel::TunnelTable::ColoredTunnelEndpoint', ** {'tep': "
       "'10.0.0.0/8', 'color': ";
   EXPECT_EQ(Testing::streamed(TunnelRibEntry(kTen)),
             head +
                 "0, 'isColored': False}), 'metric': 0, 'metricType': igpMetric, 'metric2': "
                 "0, 'pref': 0, 'pref2': 0, 'entryPref': 0, 'entryMetric': 0, 'tunnelId': [], "
                 "'tunnelBw': []})");
   EXPECT_EQ(valueToStrep(sample()),
             head +
                 "5, 'isColored': True}), 'metric': 1, 'metricType': teMetric, 'metric2': 3, "
                 "'pref': 4, 'pref2': 5, 'entryPref': 6, 'entryMetric': 7, 'tunnelId': "
                 "[Value('Tunnel::TunnelTable::TunnelId', ** {'value': 52776558133255}), "
                 "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 87960930222089})], "
                 "'tunnelBw': [Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': "
                 "1.5})]})");
   for (const std::string pad : {"", "   "}) {
      Vela::String out;
      sample().dumpState(out, int(pad.size()));
      EXPECT_EQ(out, pad + "TunnelRibEntry 10.0.0.0/8 color 5 metric 1 metric2 3 pref 4 pref2 5\n" +
                         pad + "  tunnelIds #2\n" + pad + "    type ldpTunnel index 7\n" + pad +
                         "    type staticTunnel index 9\n");
   }
}

TEST(TunnelRibEntryDeathTest, StringConstructorAsserts) {
   const Vela::String text = valueToStrep(TunnelRibEntry(kTen));
   EXPECT_DEATH(TunnelRibEntry(text.begin(), text.end()),
                "assertion failed: No String constructor for TunnelRibEntry - has collection "
                "\\(Tunnel/TunnelTable:");
}

// Each deletion reaches its array (the deletion rule itself is FixedArray's, pinned by its own
// test); hasTunnelId looks at live places only.
TEST(TunnelRibEntryTest, DeletionsAndLivePlaces) {
   TunnelRibEntry e = withIds({1, 2, 3}, {1, 0, 2});
   EXPECT_EQ(num(e.tunnelIdDel(2)) + num(e.tunnelBwDel(e.tunnelBw().begin() + 2)), 5);
   EXPECT_EQ(num(e.tunnelIdDel(e.tunnelId().begin() + 1)), 2);
   EXPECT_EQ(live(e.tunnelId()), std::vector<double>{1});
   EXPECT_EQ(live(e.tunnelBw()), std::vector<double>{1});
   EXPECT_FALSE(e.hasTunnelId(ldp(2)));  // still in a stale place
   EXPECT_TRUE(e.hasTunnelId(ldp(1)));
}

TEST(TunnelRibEntryTest, AddTunnelWithBw) {
   const struct {
      std::vector<uint64_t> ids;
      std::vector<float> bws;
      uint64_t add;
      std::vector<double> ids2, bws2;
   } cases[] = {
       {{}, {}, 1, {1}, {9}},
       {{1, 2, 3, 4}, {1, 2}, 4, {1, 2, 3, 4}, {1, 2, 0, 9}},  // present: only its bandwidth
       {{1, 2}, {1, 2, 3, 4}, 5, {1, 2, 5}, {1, 2, 9, 4}},     // new: appended
   };
   for (const auto& c : cases) {
      TunnelRibEntry e = withIds(c.ids, c.bws);
      e.addTunnelWithBw(ldp(c.add), 9.0f);
      EXPECT_EQ(live(e.tunnelId()), c.ids2);
      EXPECT_EQ(live(e.tunnelBw()), c.bws2);
   }

   TunnelRibEntry full(kTen);
   for (uint64_t i = 1; i <= 600; ++i) full.addTunnelWithBw(ldp(i), float(i));
   const TunnelRibEntry before = full;
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([&] { full.addTunnelWithBw(ldp(601), 1); }),
             "Tunnel::TunnelTable::TunnelIdCollIndex::value < "
             "Tunnel::TunnelTable::TunnelIdCollIndex::min or > "
             "Tunnel::TunnelTable::TunnelIdCollIndex::max not allowed");
   EXPECT_EQ(full, before);
   full.addTunnelWithBw(ldp(600), 0.5f);
   EXPECT_EQ(num(full.tunnelBw(599)), 0.5);
   EXPECT_EQ(full.serializeLen(), TunnelRibEntry::kMaxSerializedLen);
}

TEST(TunnelRibEntryTest, EqualityComparesBandwidthsAsFloats) {
   TunnelRibEntry a = sample(), b = sample();
   a.tunnelBwIs(0, 0.0f), b.tunnelBwIs(0, -0.0f);
   a.tunnelIdDel(1), b.tunnelIdIs(1, ldp(8)), b.tunnelIdDel(1);  // differ past the counts only
   EXPECT_EQ(a, b);
   b.tunnelBwIs(1, 0.0f);
   EXPECT_NE(a, b);
   b = a, b.coloredTepIs(kTen);
   EXPECT_NE(a, b);
   a.tunnelBwIs(0, std::nanf("")), b = a;
   EXPECT_FALSE(a == a || a == b);
}

// The padding after entryPref is carried as it is, both ways; a refused record changes nothing;
// the places of the value read into are not revived.
TEST(TunnelRibEntryTest, ByteFormAndTheReadersRefusals) {
   std::vector<uint8_t> bytes(kSampleBytes.size(), 0xEE);
   ASSERT_EQ(sample().serializeLen(), bytes.size());
   sample().serialize(bytes.data());
   EXPECT_EQ(bytes, kSampleBytes);
   EXPECT_EQ(withIds({1, 2}).serializeLen(), 84u);
   const uint32_t ok = sizeof(TunnelRibEntry);
   const std::string tooMany = "expected size <= 600, instead got 601. Buffer is at address: ";
   const struct {
      size_t at;  // a u32 overwritten with `value`
      uint32_t value, length, deserializeLen;
      std::string error;  // "{}": the address of the bytes from `at` on
   } cases[] = {
       {52, 0xcd00ab06, 88, ok, "(no exception)"},
       {0, 4, 87, 0, "byte form truncated: 4 bytes needed at offset 84 of 87"},
       {0, 4, 63, 0, "byte form truncated: 4 bytes needed at offset 60 of 63"},
       {0, 4, 89, ok, "TunnelRibEntry record ends at byte 88, 1 bytes before its length"},
       {60, 601, 88, 0, tooMany + "{} with contents: 59020000" + kTail},
       {80, 601, 88, 0, tooMany + "{} with contents: 590200000000c03f"},
       {28, 2, 88, ok, "ColoredTunnelEndpoint flag byte 2 is neither 0 nor 1"},
       {36, 6, 88, ok, "Wirekit::MetricType: unknown value 6"},
       {68, 0x20000, 88, ok,
        "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or > "
        "Tunnel::TunnelTable::TunnelId::maxValue not allowed"},
   };
   for (const auto& c : cases) {
      bytes = kSampleBytes;
      bytes.resize(std::max<size_t>(bytes.size(), c.length));
      std::memcpy(bytes.data() + c.at, &c.value, 4);
      EXPECT_EQ(TunnelRibEntry::deserializeLen(bytes.data(), c.length), c.deserializeLen);
      std::string error = c.error;
      if (const size_t p = error.find("{}"); p != std::string::npos)
         error.replace(p, 2, fmt::format("{}", fmt::ptr(bytes.data() + c.at)));
      TunnelRibEntry e = withIds({1, 2, 3, 4});
      const TunnelRibEntry expected = c.error == "(no exception)" ? sample() : e;
      EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { e.deserialize(bytes.data(), c.length); }),
                error);
      EXPECT_EQ(e, expected);
      if (c.error != "(no exception)") continue;
      std::vector<uint8_t> again(bytes.size());
      e.serialize(again.data());
      EXPECT_EQ(again, bytes);
      e.tunnelIdIs(3, ldp(1));
      EXPECT_EQ(live(e.tunnelId()), (std::vector<double>{7, 9, 0, 1}));
      e.tunnelIdDel(3), e.serialize(&e);  // onto itself: not even stale places change
      e.tunnelIdIs(4, ldp(2));
      EXPECT_EQ(live(e.tunnelId()), (std::vector<double>{7, 9, 0, 1, 2}));
   }
}

// Counts notifications by attribute.
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void*) override { events.push_back(attr.value); }
   size_t count(Vela::AttributeId attr) const {
      return size_t(std::count(events.begin(), events.end(), attr.value));
   }
   std::vector<uint32_t> events;
};

Wirekit::IpGenPrefix prefix(uint32_t n) {
   return Wirekit::IpGenPrefix(Wirekit::IpGenAddr::ipv4(0x0A000000u + n * 256), 24);
}

TunnelRibEntry entryOf(const ColoredTunnelEndpoint& tep, uint64_t tunnel) {
   TunnelRibEntry e(tep);
   e.metricIs(7);
   e.addTunnelWithBw(ldp(tunnel), 1.5f);
   return e;
}

struct RibTest : ::testing::Test {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vela::Ptr<Vault::MountService> service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter{service, loop};
   Recorder recorder;
};

// The update counter: the plain RIB skips an equal write, the colored one counts it again; a
// delete counts even when nothing is there. The plain RIB ignores the color asked about.
TEST_F(RibTest, CountedWritesAndDeletesWithTheirAsymmetries) {
   auto plain = mounter.mountWriterOf<TunnelRib>();
   auto colored = mounter.mountWriterOf<ColoredTunnelRib>();
   ASSERT_TRUE(plain && colored);
   plain->notifieeAdd(&recorder);
   const ColoredTunnelEndpoint red(prefix(1), 5), blue(prefix(1), 6);
   plain->tunnelRibEntryIs(entryOf(prefix(1), 1));
   plain->tunnelRibEntryIs(entryOf(prefix(1), 1));
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 1u);
   EXPECT_EQ(recorder.count(Vela::attrEntry), 1u);
   EXPECT_EQ(recorder.count(attrTunnelRibUpdateCounter), 1u);
   EXPECT_TRUE(plain->tunnelRibEntry(blue) == entryOf(prefix(1), 1));
   colored->tunnelRibEntryIs(entryOf(red, 2));
   colored->tunnelRibEntryIs(entryOf(red, 2));
   EXPECT_EQ(colored->tunnelRibUpdateCounter(), 2u);
   EXPECT_FALSE(colored->tunnelRibEntryHas(blue));
   plain->tunnelRibEntryDel(prefix(9));
   plain->tunnelRibEntryDel(blue);
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 3u);
   EXPECT_FALSE(plain->tunnelRibEntryHas(red));
   plain->notifieeDel(&recorder);
}

TEST_F(RibTest, DumpLinesAndAReaderInAnotherProcess) {
   auto colored = mounter.mountWriterOf<ColoredTunnelRib>();
   colored->idIs(TunnelRibId(3));
   colored->tunnelRibEntryIs(entryOf(ColoredTunnelEndpoint(prefix(1), 5), 4));
   Vela::String dump;
   colored->dumpState(dump, 2);
   EXPECT_EQ(dump,
             "  ColoredTunnelRib id 3\n"
             "    tunnelRibUpdateCounter=1\n"
             "    ColoredTunnelRibEntries dock seqno " +
                 std::to_string(colored->storeSequence()) +
                 "\n"
                 "    entries #1\n"
                 "    TunnelRibEntry 10.0.1.0/24 color 5 metric 7 metric2 0 pref 0 pref2 0\n"
                 "      tunnelIds #1\n"
                 "        type ldpTunnel index 4\n");
   EXPECT_GT(colored->storeSequence(), 0u);

   const TunnelRibEntry expected = entryOf(ColoredTunnelEndpoint(prefix(1), 5), 4);
   const pid_t child = Testing::forkChild([&] {
      Loom::EventLoop childLoop;
      auto childService = Vela::makePtr<Vault::MountService>();
      TunnelTableMounter childMounter(childService, childLoop);
      auto reader = childMounter.mountKeyshadowOf<ColoredTunnelRib>();
      if (!reader || reader->isWriter()) return 2;
      // What was there at attach is taken in by the mount itself; per-key changes after it
      // reach the RIB builder's tests.
      if (!Testing::runUntil(childLoop, [&] { return reader->entryCount() == 1; })) return 3;
      return reader->tunnelRibEntry(ColoredTunnelEndpoint(prefix(1), 5)) == expected ? 0 : 4;
   });
   EXPECT_EQ(Testing::waitChild(child), 0);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
