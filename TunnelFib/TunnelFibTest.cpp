// The TunnelFib entity: its collections in the store, notifications per attribute and key, no
// cascading between entries and encapsulations, the process-local VXLAN map, and a reader's copy
// in another process across a writer restart.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "TunnelFib/TunnelFib.h"
#include "Vault/MountService.h"
#include "Vela/TypeRegistry.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelFib {
namespace {

using TunnelTable::EncapType;
using TunnelTable::TunnelType;
using TunnelTable::TunnelVia;
using Wirekit::IntfId;
using Wirekit::IpGenAddr;

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
GreTunnelInfo greInfo(uint32_t okey) {
   GreTunnelInfo info;
   info.srcAddrIs(IpGenAddr::ipv4(0x01010101));
   info.dstAddrIs(IpGenAddr::ipv4(0x02020202));
   info.okeyIs(okey);
   return info;
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
      fib.greEncapIs(GreEncap(EncapId(EncapType::gre, 2), greInfo(9)));
      for (uint64_t i = 1; i <= 3; ++i) fib.entryIs(entryOf(i, 1));
   });
   ASSERT_TRUE(ready.receive());

   Spoor::Capture capture(5);
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   auto copy = mountTunnelFib(*service, false, loop);
   Recorder r;
   copy->notifieeAdd(&r);
   const auto until = [&](const std::function<bool()>& done) {
      return Testing::runUntil(loop, done);
   };
   ASSERT_TRUE(until([&] { return copy->entryCount() == 3 && copy->synchronized(); }));
   EXPECT_EQ(copy->entry(ldp(2)), entryOf(2, 1));
   EXPECT_EQ(copy->greEncap(EncapId(EncapType::gre, 2)).tunnelInfo(), greInfo(9));
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
   EXPECT_TRUE(until([&] {
      return copy->entryHas(ldp(5)) && !copy->entryHas(ldp(1)) && told(5) && told(1) &&
             !copy->greEncapHas(EncapId(EncapType::gre, 2)) && copy->labelStackEncapHas(labels(1));
   }));
   EXPECT_TRUE(until([&] { return copy->entry(ldp(3)) == entryOf(3, 7); }));
   copy->notifieeDel(&r);
   ::kill(next, SIGTERM);
   Testing::waitChild(next);
}

}  // namespace
}  // namespace Tunnel::TunnelFib
