// The tunnel FIB's values: exact byte, text and dump forms, the readers' refusals, the via array
// operations, the index and flag ranges with the longest record, and the encapsulations' round
// trips. The TunnelFib entity: its collections in the store, notifications per attribute and key,
// no cascading between entries and encapsulations, the process-local VXLAN map, and a reader's
// copy in another process across a writer restart.
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "TunnelFib/Encap.h"
#include "TunnelFib/TunnelFib.h"
#include "TunnelFib/TunnelFibEntry.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vault/MountService.h"
#include "Vela/Exception.h"
#include "Vela/TypeRegistry.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelFib {
namespace {

static_assert(std::endian::native == std::endian::little, "the byte images below are host order");

using TunnelTable::EncapType;
using TunnelTable::TunnelType;
using Wirekit::IntfId;
using Wirekit::IpGenAddr;

TunnelVia via(uint32_t gre) {
   return TunnelVia(IpGenAddr("10.0.0.1"), IntfId("Ethernet1"), EncapId(EncapType::gre, gre));
}

// kSampleBytes as a value.
TunnelFibEntry sample() {
   TunnelFibEntry e(TunnelId(0x1020304050607));
   e.arePrimaryViasUsableIs(false), e.flagsIs(TunnelFlags(1)), e.resetFailoverStateIs(0xab);
   e.seqNoIs(TunnelEntrySequenceNumber(0x1234)), e.tunnelViaIs(0, via(7));
   return e;
}
const std::vector<uint8_t> kSampleBytes = Testing::hexBytes(
    "07060504 03020100 00 01 ab 00 3412 0000"  // head: id, usable, flags, reset, pad, seqNo, pad
    "01000000 04000000 0a000001 000000000000000000000000 0100000000010001 07000010"  // n1, via
    "00000000");                                                                     // n2

const std::string kViaText =
    "Value('Tunnel::TunnelTable::TunnelVia', ** {'nextHop': '10.0.0.1', 'intfId': 'Ethernet1', "
    "'encapId': Value('Tunnel::TunnelTable::EncapId', ** {'encapType': gre, 'value': 7})})";

std::vector<uint8_t> bytesOf(const TunnelFibEntry& e) {
   std::vector<uint8_t> b(e.serializeLen(), 0xEE);
   e.serialize(b.data());
   return b;
}

// The padding is carried as it is, both ways; a refused record changes nothing.
TEST(TunnelFibEntryTest, ByteFormAndTheReadersRefusals) {
   EXPECT_EQ(bytesOf(sample()), kSampleBytes);
   const uint32_t ok = kSampleBytes.size();  // 56
   const std::string tooMany = "expected size <= 600, instead got 601";
   const struct {
      size_t at;  // the byte (or u32 when value > 255) overwritten with `value`
      uint32_t value, length, deserializeLen;
      std::string error;  // a part of the error text
   } cases[] = {
       {11, 0xc1, ok, 38424, "(no exception)"},  // padding
       {14, 0xc2, ok, 38424, "(no exception)"},
       {8, 0, ok - 1, 0, "4 bytes needed at offset 52 of 55"},
       {8, 0, ok + 1, 38424, "TunnelFibEntry record ends at byte 56, 1 bytes before its length"},
       {8, 0, 19, 0, "4 bytes needed at offset 16 of 19"},
       {8, 0, 52, 0, "4 bytes needed at offset 52 of 52"},
       {16, 0, ok, 38424, "128 bytes needed at offset 24 of 56"},  // n1 0 reads n2 as 4
       {16, 601, ok, 0, tooMany},
       {52, 601, ok, 0, tooMany},
       {8, 2, ok, 38424, "arePrimaryViasUsable byte 2 is neither 0 nor 1"},
       {9, 2, ok, 38424, "TunnelFlags::value < Tunnel::TunnelFib::TunnelFlags::min"},
       {7, 0xff, ok, 38424, "TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue"},
       {51, 0x70, ok, 38424, "unknown type code 7"},  // the via's EncapId
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(::testing::Message() << "at " << c.at << " length " << c.length);
      std::vector<uint8_t> bytes = kSampleBytes;
      bytes.resize(std::max<size_t>(bytes.size(), c.length));
      if (c.value > 255) {
         std::memcpy(bytes.data() + c.at, &c.value, 4);
      } else {
         bytes[c.at] = uint8_t(c.value);
      }
      EXPECT_EQ(TunnelFibEntry::deserializeLen(bytes.data(), c.length), c.deserializeLen);
      TunnelFibEntry e(TunnelId(5));
      e.backupTunnelViaIs(2, via(9));
      const TunnelFibEntry before = e;
      const std::string error =
          Testing::errorText<Vela::Exception>([&] { e.deserialize(bytes.data(), c.length); });
      EXPECT_NE(error.find(c.error), std::string::npos) << error;
      const bool read = c.error == "(no exception)";
      EXPECT_EQ(e, read ? sample() : before);
      EXPECT_EQ(bytesOf(e), read ? bytes : bytesOf(before));
   }
}

// The live vias as their encapsulation values (a default via is 0, a position past the count
// does not appear).
std::vector<uint32_t> live(const TunnelViaArray& a) {
   std::vector<uint32_t> out;
   for (const TunnelVia& v : a) out.push_back(v.encapId().value());
   return out;
}

// Each operation reaches its own array only (the deletion rule itself is FixedArray's, pinned by
// its own test).
TEST(TunnelFibEntryTest, ViaArrayOperationsActOnTheirOwnArray) {
   TunnelFibEntry e;
   for (uint16_t i = 0; i < 4; ++i) e.tunnelViaIs(i, via(i + 1)), e.backupTunnelViaIs(i, via(9));
   EXPECT_EQ(e.tunnelViaDel(1).encapId().value(), 2u);
   EXPECT_EQ(e.tunnelViaDel(e.tunnelVia().begin() + 3).encapId().value(), 4u);
   EXPECT_EQ(live(e.tunnelVia()), (std::vector<uint32_t>{1, 0, 3}));
   EXPECT_EQ(e.backupTunnelVia().count(), 4u);
   EXPECT_EQ(e.backupTunnelVia(3), via(9));
   e.backupTunnelViaDel(e.backupTunnelVia().begin() + 3);
   EXPECT_EQ(e.backupTunnelVia().count(), 3u);
   e.tunnelViaDelAll();
   EXPECT_EQ(e.tunnelVia().count(), 0u);
   EXPECT_EQ(e.backupTunnelVia().count(), 3u);
}

TEST(TunnelFibEntryTest, IndexAndFlagRanges) {
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([] { TunnelViaIndex(600); }),
             "Tunnel::TunnelFib::TunnelViaIndex::value < Tunnel::TunnelFib::TunnelViaIndex::min "
             "or > Tunnel::TunnelFib::TunnelViaIndex::max not allowed");
   // Both arrays full: the longest record, read back whole.
   TunnelFibEntry full = sample();
   for (uint16_t i = 0; i < 600; ++i) {
      full.tunnelViaIs(TunnelViaIndex(i), via(i)), full.backupTunnelViaIs(i, via(i + 1));
   }
   const std::vector<uint8_t> bytes = bytesOf(full);
   ASSERT_EQ(bytes.size(), 38424u);
   TunnelFibEntry back;
   back.deserialize(bytes.data(), 38424);
   EXPECT_EQ(back, full);
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([] { TunnelFlags(2); }),
             "Tunnel::TunnelFib::TunnelFlags::value < Tunnel::TunnelFib::TunnelFlags::min or > "
             "Tunnel::TunnelFib::TunnelFlags::max not allowed");
   EXPECT_TRUE(TunnelFlags(1).burnPrimaryVias());
   const std::string text = "True";
   EXPECT_EQ(TunnelFlags(text.begin(), text.end()), TunnelFlags(1));
}

TEST(TunnelFibEntryTest, DefaultEntryStandsForNoEntry) {
   EXPECT_FALSE(TunnelFibEntry());
   EXPECT_TRUE(TunnelFibEntry().arePrimaryViasUsable());
   const std::function<void(TunnelFibEntry&)> changes[] = {
       [](auto& e) { e.tunnelIdIs(TunnelId(1)); },
       [](auto& e) { e.arePrimaryViasUsableIs(false); },
       [](auto& e) { e.flagsIs(TunnelFlags(1)); },
       [](auto& e) { e.resetFailoverStateIs(1); },
       [](auto& e) { e.seqNoIs(TunnelEntrySequenceNumber(1)); },
       [](auto& e) { e.tunnelViaIs(0, TunnelVia()); },
       [](auto& e) { e.backupTunnelViaIs(0, TunnelVia()); },
   };
   for (const auto& change : changes) {
      TunnelFibEntry e;
      change(e);
      EXPECT_TRUE(e);
      EXPECT_NE(e, TunnelFibEntry());
   }
}

TEST(TunnelFibEntryTest, TextAndDumpForms) {
   TunnelFibEntry e = sample();
   e.backupTunnelViaIs(1, via(7));
   const std::string id = "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 283686952306183})";
   const std::string defaultVia =
       "Value('Tunnel::TunnelTable::TunnelVia', ** {'nextHop': 'none', 'intfId': '', 'encapId': "
       "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': none, 'value': 0})})";
   EXPECT_EQ(Testing::streamed(e),
             "Value('Tunnel::TunnelFib::TunnelFibEntry', ** {'tunnelId': " + id +
                 ", 'arePrimaryViasUsable': False, 'flags': True, 'resetFailoverState': 171, "
                 "'seqNo': Value('Tunnel::TunnelEntrySequenceNumber', ** {'value': 4660}), "
                 "'tunnelVia': [" +
                 kViaText + "], 'backupTunnelVia': [" + defaultVia + ", " + kViaText + "]})");
   Vela::String out;
   e.dumpState(out, 2);
   EXPECT_EQ(out, "  " + id + ": arePrimaryViasUsable: False, tunnelVia (size 1): {0:" + kViaText +
                      "}, backupTunnelVia (size 2): {0:" + defaultVia + ",1:" + kViaText + "}\n");
}

TEST(TunnelFibEntryDeathTest, StringConstructorAsserts) {
   const Vela::String text = valueToStrep(TunnelFibEntry());
   EXPECT_DEATH(TunnelFibEntry(text.begin(), text.end()),
                "assertion failed: !\"No String constructor for TunnelFibEntry - has collection\" "
                "\\(Tunnel/TunnelFib:");
}

// ---- encapsulations ----

const EncapId kLabelId(EncapType::labelStack, 3);
const LabelStackEncap kLabels(kLabelId, Wirekit::UnboundedMplsLabelOperation::push({100, 200}));
const std::string kLabelIdText =
    "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': labelStack, 'value': 3})";

// Every info kind has a ttl; setting it makes the info differ from its default.
template <class Info>
Info infoWithTtl(uint8_t ttl) {
   Info info;
   info.ttlIs(ttl);
   return info;
}
const auto kEncaps =
    std::tuple{kLabels, GreEncap(EncapId(EncapType::gre, 1), infoWithTtl<GreTunnelInfo>(1)),
               IpsecGreEncap(EncapId(EncapType::ipsecGre, 2), infoWithTtl<IpsecGreTunnelInfo>(2)),
               IpsecVtiEncap(EncapId(EncapType::ipsecVti, 4), infoWithTtl<IpsecVtiTunnelInfo>(4)),
               VxlanEncap(EncapId(EncapType::vxlan, 5), infoWithTtl<VxlanTunnelInfo>(5))};

TEST(EncapTest, TextAndByteForms) {
   std::vector<uint8_t> out(kLabels.serializeLen(), 0xEE);
   kLabels.serialize(out.data());
   EXPECT_EQ(out, Testing::hexBytes("03000040 01 00 0000 02000000 64000000 c8000000"));
   std::vector<uint8_t> greBytes(68, 0xEE);  // the EncapId, then the info
   ASSERT_EQ(GreEncap::kSerializedLen, greBytes.size());
   std::get<1>(kEncaps).serialize(greBytes.data());
   EXPECT_EQ(std::vector<uint8_t>(greBytes.begin(), greBytes.begin() + 8),
             Testing::hexBytes("01000010 00000000"));
   EXPECT_EQ(Testing::streamed(kLabels),
             "Value('Tunnel::TunnelFib::LabelStackEncap', ** "
             "{'encapId': " +
                 kLabelIdText + ", 'labelStack': 'push 100 200'})");
   EXPECT_EQ(kLabels.dockString(), kLabelIdText + ": labelStack: push 100 200");
   const auto& [labels, gre, ipsecGre, ipsecVti, vxlan] = kEncaps;
   const struct {
      std::string text, name, encapId, info;
   } cases[] = {
       {valueToStrep(gre), "GreEncap", "gre, 'value': 1", valueToStrep(gre.tunnelInfo())},
       {valueToStrep(ipsecGre), "IpsecGreEncap", "ipsecGre, 'value': 2",
        valueToStrep(ipsecGre.tunnelInfo())},
       {valueToStrep(ipsecVti), "IpsecVtiEncap", "ipsecVti, 'value': 4",
        valueToStrep(ipsecVti.tunnelInfo())},
       {Testing::streamed(vxlan), "VxlanEncap", "vxlan, 'value': 5",
        valueToStrep(vxlan.tunnelInfo())},
   };
   const std::string encapId = "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': ";
   for (const auto& c : cases) {
      EXPECT_EQ(c.text, "Value('Tunnel::TunnelFib::" + c.name + "', ** {'encapId': " + encapId +
                            c.encapId + "}), 'tunnelInfo': " + c.info + "})");
   }
   EXPECT_EQ(gre.dockString(), encapId + "gre, 'value': 1}): tunnelInfo: " + cases[0].info);
}

TEST(EncapTest, TextAndBytesRoundTrip) {
   std::apply(
       [](const auto&... encap) {
          auto check = [](const auto& v) {
             using E = std::decay_t<decltype(v)>;
             SCOPED_TRACE(E::kTypeName);
             const Vela::String text = valueToStrep(v);
             EXPECT_EQ(E(text.begin(), text.end()), v);
             EXPECT_TRUE(v);
             EXPECT_FALSE(E());
             std::vector<uint8_t> bytes(v.serializeLen() + 1, 0xEE);
             v.serialize(bytes.data());
             const uint32_t n = v.serializeLen();
             EXPECT_EQ(E::deserializeLen(bytes.data(), n), n);
             EXPECT_EQ(E::deserializeLen(bytes.data(), n - 1), 0u);
             EXPECT_EQ(E::deserializeLen(bytes.data(), n + 1), 0u);
             E back;
             back.deserialize(bytes.data(), n);
             EXPECT_EQ(back, v);
             for (const uint32_t bad : {n - 1, n + 1}) {
                EXPECT_THROW(back.deserialize(bytes.data(), bad), Vela::Exception);
                EXPECT_EQ(back, v);
             }
          };
          (check(encap), ...);
       },
       kEncaps);
}

// ---- the entity ----

TunnelId ldp(uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, index));
}
EncapId labels(uint32_t v) {
   return EncapId(EncapType::labelStack, v);
}
TunnelFibEntry entryOf(uint64_t index, uint32_t encap) {
   TunnelFibEntry e(ldp(index));
   e.tunnelViaIs(0,
                 TunnelVia(IpGenAddr::ipv4(0x0A000001), IntfId::parse("Ethernet1"), labels(encap)));
   e.backupTunnelViaIs(0, TunnelVia(IpGenAddr::ipv4(0x0A000002), IntfId::parse("Ethernet2")));
   return e;
}
// Counts notifications per (attribute, key value).
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      const uint64_t k = attr == attrFibEntry ? static_cast<const TunnelId*>(key)->value()
                                              : static_cast<const EncapId*>(key)->rawValue();
      ++heard[{attr.value, k}];
   }
   std::map<std::pair<uint32_t, uint64_t>, int> heard;
};

TEST(TunnelFib, WriterOperationsNotifyByAttributeAndNeverCascade) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   auto fib = mountTunnelFib(*service, true, loop);
   Recorder r;
   fib->notifieeAdd(&r);

   // The store files each collection under its name, in the order they were created.
   EXPECT_EQ(fib->mountCollections(),
             (std::vector<Vela::String>{"greEncap", "ipsecVtiEncap", "ipsecGreEncap",
                                        "labelStackEncap", "entry"}));
   EXPECT_EQ(fib->entryDel(ldp(9)), TunnelFibEntry());

   fib->labelStackEncapIs(
       LabelStackEncap(labels(5), Wirekit::UnboundedMplsLabelOperation::push({100, 200})));
   fib->entryIs(entryOf(1, 5));
   // Removing the encapsulation an entry names leaves the entry as it was.
   EXPECT_EQ(fib->labelStackEncapDel(labels(5)).labelStack(),
             Wirekit::UnboundedMplsLabelOperation::push({100, 200}));
   EXPECT_EQ(fib->entry(ldp(1)), entryOf(1, 5));
   EXPECT_FALSE(fib->labelStackEncapHas(labels(5)));

   // VXLAN stays in this process: an equal value is silent, a changed one is told.
   const VxlanEncap vx(EncapId(EncapType::vxlan, 3));
   fib->vxlanEncapIs(vx);
   fib->vxlanEncapIs(vx);
   VxlanTunnelInfo other;
   other.udpPortIs(8472);
   fib->vxlanEncapIs(VxlanEncap(vx.encapId(), other));
   EXPECT_EQ(fib->vxlanEncap(vx.encapId()).tunnelInfo().udpPort(), 8472);
   EXPECT_EQ(fib->vxlanEncapDel(EncapId(EncapType::vxlan, 4)), VxlanEncap());
   EXPECT_EQ(fib->vxlanEncapDel(vx.encapId()).encapId(), vx.encapId());

   fib->entryIs(entryOf(2, 5));
   fib->entryDelAll();
   EXPECT_EQ(fib->entryCount(), 0u);

   const auto key = [](Vela::AttributeId a, uint64_t k) { return std::make_pair(a.value, k); };
   EXPECT_EQ(r.heard, (std::map<std::pair<uint32_t, uint64_t>, int>{
                          {key(attrFibEntry, ldp(1).value()), 2},
                          {key(attrFibEntry, ldp(2).value()), 2},
                          {key(attrLabelStackEncap, labels(5).rawValue()), 2},
                          {key(attrVxlanEncap, vx.encapId().rawValue()), 3}}));
   EXPECT_EQ(fib->entryNotifications(), 4u);
   EXPECT_EQ(Vela::TypeRegistry::instance().operationNames(TunnelFib::kTypeName).front(),
             "entryIs");
   EXPECT_EQ(Vela::TypeRegistry::instance().operationNames(TunnelFib::kTypeName).size(), 15u);
   fib->notifieeDel(&r);
}

// A reader's copy follows a writer in another process, refuses writes, and follows a new writer
// that takes the files over from a killed one.
TEST(TunnelFib, AReaderInAnotherProcessFollowsAWriterAndItsReplacement) {
   Testing::TempRoot root;
   Testing::Pipe ready;
   const auto writer = [&](std::function<void(TunnelFib&)> write) {
      return Testing::forkChild([&ready, write] {
         Loom::EventLoop loop;
         auto service = Vela::makePtr<Vault::MountService>();
         auto fib = mountTunnelFib(*service, true, loop);
         write(*fib);
         loop.runOnce(std::chrono::milliseconds(0));
         if (!ready.send()) return 3;
         for (;;) loop.runOnce(std::chrono::milliseconds(10));
      });
   };
   const pid_t first = writer([](TunnelFib& fib) {
      fib.labelStackEncapIs(
          LabelStackEncap(labels(1), Wirekit::UnboundedMplsLabelOperation::push({16})));
      fib.greEncapIs(GreEncap(EncapId(EncapType::gre, 2), infoWithTtl<GreTunnelInfo>(9)));
      for (uint64_t i = 1; i <= 3; ++i) fib.entryIs(entryOf(i, 1));
   });
   ASSERT_TRUE(ready.receive());

   Spoor::Capture capture(5);
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   auto copy = mountTunnelFib(*service, false, loop);
   Recorder r;
   copy->notifieeAdd(&r);
   ASSERT_TRUE(
       Testing::runUntil(loop, [&] { return copy->entryCount() == 3 && copy->synchronized(); }));
   EXPECT_EQ(copy->entry(ldp(2)), entryOf(2, 1));
   EXPECT_EQ(copy->greEncap(EncapId(EncapType::gre, 2)).tunnelInfo(),
             infoWithTtl<GreTunnelInfo>(9));
   EXPECT_TRUE(capture.contains("mounted " + root.path() + "/tunnel/fib/entry mountStatus:"));
   EXPECT_DEATH(copy->entryIs(entryOf(4, 1)),
                "write on collection 'entry', which is not the writer of its store");

   ::kill(first, SIGKILL);
   Testing::waitChild(first);
   r.heard.clear();
   const pid_t next = writer([](TunnelFib& fib) {
      fib.entryDel(ldp(1));
      fib.greEncapDel(EncapId(EncapType::gre, 2));
      fib.entryIs(entryOf(5, 1));
      fib.entryIs(entryOf(3, 7));
   });
   // Keys may be told again when the copy takes up the new writer; the changed ones are told.
   const auto told = [&](uint64_t index) {
      return r.heard.count({attrFibEntry.value, ldp(index).value()});
   };
   EXPECT_TRUE(Testing::runUntil(loop, [&] {
      return copy->entryHas(ldp(5)) && !copy->entryHas(ldp(1)) && told(5) && told(1) &&
             !copy->greEncapHas(EncapId(EncapType::gre, 2)) && copy->labelStackEncapHas(labels(1));
   }));
   EXPECT_TRUE(Testing::runUntil(loop, [&] { return copy->entry(ldp(3)) == entryOf(3, 7); }));
   copy->notifieeDel(&r);
   ::kill(next, SIGTERM);
   Testing::waitChild(next);
}

}  // namespace
}  // namespace Tunnel::TunnelFib
