// Mounting tables by identifier across real processes: a writer agent mounts the LDP table with
// mountWriter and writes; reader agents in forked processes mount it with mountKeyshadow and must
// see every key's final state, a notification for every key that changed, synchronisation and
// quiesced, also while the table is still empty; the writer restarts under them; cleanup removes
// the files. Every child is bounded by an alarm and every wait by a deadline.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>

#include "Loom/EventLoop.h"
#include "Region/Error.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vault/MountService.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"
#include "testing/TunnelTableFamilyTests.h"

namespace {

namespace fs = std::filesystem;
using namespace Tunnel::TunnelTable;
using std::chrono::milliseconds;
using Testing::Pipe;
using Testing::runUntil;

constexpr TunnelTableIdentifier kLdp = TunnelTableIdentifier::ldpTunnelTable;
constexpr uint64_t kSentinel = 9999;  // its igpMetric names the writer phase that wrote last

TunnelId ldpId(uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, index));
}

LdpTunnelTableEntry ldpEntry(uint64_t index, uint32_t metric) {
   LdpTunnelTableEntry e(ldpId(index));
   e.igpMetricIs(metric);
   e.entryMetricIs(metric * 3);
   return e;
}

// Phase 1 writes keys 1-40 (metric = index). Phase 2, by a restarted writer, rewrites 1-10 (metric
// + 1000), removes 31-40 and adds 41-50. Key 51 is never written.
std::map<uint64_t, uint32_t> finalMetrics() {
   std::map<uint64_t, uint32_t> m;
   for (uint64_t k = 1; k <= 10; ++k) m[k] = uint32_t(k + 1000);
   for (uint64_t k = 11; k <= 30; ++k) m[k] = uint32_t(k);
   for (uint64_t k = 41; k <= 50; ++k) m[k] = uint32_t(k);
   m[kSentinel] = 2;
   return m;
}

// Counts each key's notifications and, as a consumer does, reads the entry in the callback.
struct KeyCounter : Vela::Entity::Notifiee {
   LdpTunnelTable* table = nullptr;
   std::map<uint64_t, int> perIndex;
   std::map<uint64_t, uint32_t> readMetric;  // igpMetric of the entry read (0: none)
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == Vela::attrEntry && key) {
         const auto& id = *static_cast<const TunnelId*>(key);
         ++perIndex[id.tunnelIndex()];
         const auto e = table->entryIf(id);
         readMetric[id.tunnelIndex()] = e ? e->igpMetric() : 0;
      }
   }
};

// Says in the test's log which check of a reader failed (and for which key), and returns its code.
int failed(int code, const char* what, uint64_t key = 0) {
   std::fprintf(stderr, "reader %d: %s (key %llu)\n", ::getpid(), what, (unsigned long long)key);
   return code;
}

// A reader agent. Exit codes name the first check that failed.
int readerAgent(const Pipe& ready, const Pipe& release) {
   ::alarm(60);
   Loom::EventLoop loop;
   TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
   auto table = Vela::dynamicPtrCast<LdpTunnelTable>(mounter.mountKeyshadow(kLdp));
   if (!table) return 10;
   if (table->isWriter()) return 11;
   auto control = table->entryControl();
   if (!control || control->mode() != VelaDock::keyshadow()) return 12;
   KeyCounter counter;
   counter.table = table.get();
   table->notifieeAdd(&counter);

   // Synchronised and quiesced on the still empty table.
   const auto synced = [&] { return control->quiesced() && control->mountStatus() != 0; };
   if (!runUntil(loop, synced, milliseconds(20000))) return failed(13, "no sync on empty table");
   if (table->entryCount() != 0 || !table->entryKeys().empty() || !counter.perIndex.empty() ||
       !table->getCurrentQuiescedState()) {
      return 14;
   }
   ready.send('r');
   if (release.receive(milliseconds(30000)) != 'g') return 15;
   const auto& counters = table->store()->reader()->readerCounters();
   const uint64_t copiedBefore = counters.slotsCopied - counters.notifications;

   // The first writer's state, notified key by key (lookups alone read the writer's slots and
   // may run ahead of the notifications), before the test restarts the writer.
   const auto firstState = [&] {
      return counter.perIndex.size() == 41 && counter.perIndex.count(kSentinel) &&
             table->entry(ldpId(kSentinel)).igpMetric() == 1;
   };
   if (!runUntil(loop, firstState, milliseconds(30000))) return failed(21, "no first state");
   // Each change copied out of shared memory once: the callback's read used that copy.
   if (counters.slotsCopied - counters.notifications != copiedBefore) {
      return failed(23, "a change copied more than once");
   }
   for (uint64_t k = 1; k <= 40; ++k) {
      if (counter.readMetric[k] != k) return failed(24, "callback read a wrong entry", k);
      if (!(table->entry(ldpId(k)) == ldpEntry(k, uint32_t(k)))) return 22;
   }
   ready.send('p');

   // Until the restarted writer's last write is seen.
   const auto last = [&] { return table->entry(ldpId(kSentinel)).igpMetric() == 2; };
   const auto finalState = [&] { return last() && control->quiesced(); };
   if (!runUntil(loop, finalState, milliseconds(30000))) return failed(16, "no final state");
   const auto expected = finalMetrics();
   for (uint64_t k = 1; k <= 51; ++k) {
      auto it = expected.find(k);
      const auto got = table->entryIf(ldpId(k));
      if (it == expected.end() ? got.has_value() : !got || !(*got == ldpEntry(k, it->second))) {
         return failed(17, "wrong or present where it should be gone", k);
      }
      // Every change was seen (the reader saw the first writer's state before the second changed
      // it), so a key is notified at least once per change; at most once more, for the whole-table
      // resynchronisation that follows the writer's restart. Key 51 never.
      const int n = counter.perIndex.count(k) ? counter.perIndex[k] : 0;
      const int changes = k == 51 ? 0 : ((k <= 10 || (k >= 31 && k <= 40)) ? 2 : 1);
      const int most = changes ? changes + 1 : 0;
      if (n < changes || n > most) return failed(19, "notified too few or too many times", k);
   }
   if (table->entryCount() != expected.size()) return 20;
   table->notifieeDel(&counter);
   return 0;
}

// Writer agents. Phase 1 mounts, reports, waits for the go, writes and then is killed.
int writerPhase1(const Pipe& ready, const Pipe& release) {
   ::alarm(60);
   Loom::EventLoop loop;
   TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
   auto table = Vela::dynamicPtrCast<LdpTunnelTable>(mounter.mountWriter(kLdp));
   if (!table || !table->isWriter()) return 30;
   if (table->entryControl()->mountStatus() != 1) return 31;  // fresh files
   ready.send('w');
   if (release.receive(milliseconds(30000)) != 'g') return 32;
   for (uint64_t k = 1; k <= 40; ++k) table->entryIs(ldpEntry(k, uint32_t(k)));
   table->entryIs(ldpEntry(kSentinel, 1));
   loop.runOnce(milliseconds(0));
   ready.send('d');
   ::pause();  // until killed: the restart must not depend on an orderly unmount
   return 33;
}

int writerPhase2() {
   ::alarm(60);
   Loom::EventLoop loop;
   TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
   auto table = Vela::dynamicPtrCast<LdpTunnelTable>(mounter.mountWriter(kLdp));
   if (!table) return 40;
   if (table->entryControl()->mountStatus() != 2) return 41;  // re-attached, entries kept
   for (uint64_t k = 1; k <= 40; ++k) {
      if (!(table->entry(ldpId(k)) == ldpEntry(k, uint32_t(k)))) return 42;
   }
   for (uint64_t k = 1; k <= 10; ++k) table->entryIs(ldpEntry(k, uint32_t(k + 1000)));
   for (uint64_t k = 31; k <= 40; ++k) {
      if (!(table->entryDel(ldpId(k)) == ldpEntry(k, uint32_t(k)))) return 43;
   }
   for (uint64_t k = 41; k <= 50; ++k) table->entryIs(ldpEntry(k, uint32_t(k)));
   table->entryIs(ldpEntry(kSentinel, 2));
   loop.runOnce(milliseconds(0));
   return mounter.unmount(kLdp) ? 0 : 44;
}

TEST(TunnelMountProcess, KeyshadowReadersFollowWritersAcrossARestartAndCleanupRemovesFiles) {
   registerTunnelTableTypes();
   Testing::TempRoot root;
   Pipe writerReady, writerGo, readersReady, readersGo;

   const pid_t writer1 = Testing::forkChild([&] { return writerPhase1(writerReady, writerGo); });
   ASSERT_EQ(writerReady.receive(milliseconds(30000)), 'w');
   pid_t readers[2];
   for (pid_t& r : readers) {
      r = Testing::forkChild([&] { return readerAgent(readersReady, readersGo); });
   }
   // On a failure every child is killed; the waits below then report how each one ended.
   const auto killAll = [&](const char* what) {
      for (pid_t p : {writer1, readers[0], readers[1]}) ::kill(p, SIGKILL);
      ADD_FAILURE() << what;
   };
   const auto fromBothReaders = [&](char c) {
      return readersReady.receive(milliseconds(30000)) == c &&
             readersReady.receive(milliseconds(30000)) == c;
   };
   if (!fromBothReaders('r')) killAll("readers did not synchronise on the empty table");
   readersGo.send('g');
   readersGo.send('g');
   writerGo.send('g');
   EXPECT_EQ(writerReady.receive(milliseconds(30000)), 'd');
   if (!fromBothReaders('p')) killAll("readers did not see the first writer's entries");
   ::kill(writer1, SIGKILL);
   EXPECT_EQ(Testing::waitChild(writer1), 128 + SIGKILL);

   const pid_t writer2 = Testing::forkChild(writerPhase2);
   EXPECT_EQ(Testing::waitChild(writer2), 0);
   for (pid_t r : readers) EXPECT_EQ(Testing::waitChild(r), 0) << "reader " << r;

   // The test process tears the table down.
   Loom::EventLoop loop;
   TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
   EXPECT_TRUE(fs::exists(root.path() + "/tunnel/table/ldp/entry"));
   EXPECT_TRUE(mounter.cleanup(kLdp));
   EXPECT_FALSE(fs::exists(root.path() + "/tunnel"));
   EXPECT_FALSE(mounter.cleanup(kLdp));
}

// One writer per table across processes: another process's writer is refused while this one is
// mounted and takes the table once it unmounts.
TEST(TunnelMountProcess, WriterMountIsSharedAndRefusedToAnotherProcessUntilUnmounted) {
   registerTunnelTableTypes();
   Testing::TempRoot root;
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter(service, loop);
   auto sr = mounter.mountWriter(TunnelTableIdentifier::isisSrTunnelTable);
   ASSERT_TRUE(sr);
   EXPECT_EQ(sr->fwkTypeName(), "Tunnel::TunnelTable::IsisSrTunnelTable");
   EXPECT_EQ(sr->entryControl()->storeDirectory(), root.path() + "/tunnel/table/sr/entry");
   EXPECT_EQ(sr->entryControl()->sizing(), 1024u);
   EXPECT_EQ(mounter.mountWriter(TunnelTableIdentifier::isisSrTunnelTable), sr);
   EXPECT_TRUE(service->database()->entity("tunnel/table/sr"));

   auto otherWriter = [] {
      return Testing::forkChild([] {
         ::alarm(30);
         Loom::EventLoop childLoop;
         TunnelTableMounter m(Vela::makePtr<Vault::MountService>(), childLoop);
         try {
            m.mountWriter(TunnelTableIdentifier::isisSrTunnelTable);
         } catch (const Region::OwnerError&) {
            return 1;
         }
         return 0;
      });
   };
   EXPECT_EQ(Testing::waitChild(otherWriter()), 1);
   EXPECT_TRUE(mounter.unmount(TunnelTableIdentifier::isisSrTunnelTable));
   EXPECT_FALSE(sr->hasStore());
   EXPECT_FALSE(mounter.unmount(TunnelTableIdentifier::isisSrTunnelTable));
   EXPECT_EQ(Testing::waitChild(otherWriter()), 0);
}

}  // namespace
