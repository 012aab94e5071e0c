// Mounting tables by identifier across real processes: a writer agent mounts the LDP table with
// mountWriter and writes; reader agents in forked processes mount it with mountKeyshadow and must
// see every key's final state, a notification for every key that changed, synchronisation and
// quiesced, also while the table is still empty; the writer restarts under them; cleanup removes
// the files. Every child is bounded by an alarm and every wait by a deadline.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

#include "Loom/EventLoop.h"
#include "Region/Error.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vault/MountService.h"
#include "Vela/TypeRegistry.h"
#include "testing/TempRoot.h"
#include "testing/TunnelTableFamilyTests.h"

namespace {

namespace fs = std::filesystem;
using namespace Tunnel::TunnelTable;
using std::chrono::milliseconds;
using Tunnel::TunnelTable::FamilyTest::runUntil;

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

// ---- pipes between the test and its agents ----

struct Pipe {
   int r = -1, w = -1;
   Pipe() {
      int fds[2];
      if (::pipe(fds) == 0) r = fds[0], w = fds[1];
   }
   ~Pipe() {
      ::close(r);
      ::close(w);
   }
   void send(char c) const { (void)!::write(w, &c, 1); }
   // The next byte, or 0 when none came within `timeout`.
   char receive(milliseconds timeout) const {
      pollfd p{r, POLLIN, 0};
      if (::poll(&p, 1, int(timeout.count())) != 1) return 0;
      char c = 0;
      return ::read(r, &c, 1) == 1 ? c : 0;
   }
};

struct KeyCounter : Vela::Entity::Notifiee {
   std::map<uint64_t, int> perIndex;
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == Vela::attrEntry && key) {
         ++perIndex[static_cast<const TunnelId*>(key)->tunnelIndex()];
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

   // The first writer's state, notified key by key (lookups alone read the writer's slots and
   // may run ahead of the notifications), before the test restarts the writer.
   const auto firstState = [&] {
      return counter.perIndex.size() == 41 && counter.perIndex.count(kSentinel) &&
             table->entry(ldpId(kSentinel)).igpMetric() == 1;
   };
   if (!runUntil(loop, firstState, milliseconds(30000))) return failed(21, "no first state");
   for (uint64_t k = 1; k <= 40; ++k) {
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
   auto killAll = [&] {
      for (pid_t p : {writer1, readers[0], readers[1]}) ::kill(p, SIGKILL);
   };
   for (int i = 0; i < 2; ++i) {
      if (readersReady.receive(milliseconds(30000)) != 'r') {
         killAll();
         for (pid_t p : readers) EXPECT_EQ(Testing::waitChild(p), 0) << "reader " << p;
         Testing::waitChild(writer1);
         FAIL() << "readers did not synchronise on the empty table";
      }
   }
   readersGo.send('g');
   readersGo.send('g');
   writerGo.send('g');
   ASSERT_EQ(writerReady.receive(milliseconds(30000)), 'd');
   for (int i = 0; i < 2; ++i) {
      if (readersReady.receive(milliseconds(30000)) != 'p') {
         killAll();
         ADD_FAILURE() << "readers did not see the first writer's entries";
         break;
      }
   }
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

TEST(TunnelMountProcess, SecondWriterInAnotherProcessIsRefusedUntilTheFirstUnmounts) {
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

class NotATable : public Vela::Entity, public Vault::Mountable {
  public:
   using Vela::Entity::Entity;
   void controlIs(const Vela::String&, const Vela::Ptr<VelaDock::CollectionControl>&) override {}
   void handleParent(const Vela::Ptr<Vela::Entity>&) override {}
   void unmountIs() override {}
};

TEST(TunnelMountProcess, MountedEntityThatIsNotATableYieldsNoTable) {
   Testing::TempRoot root;
   Vela::TypeRegistry::instance().typeIs(
       "Test::NotATable", [](const Vela::String& n) { return Vela::makePtr<NotATable>(n); });
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter(service, loop);
   const TunnelTableInfo info("Test::NotATable", "odd");
   EXPECT_FALSE(mounter.readMountTable(info));
   EXPECT_TRUE(service->mounted("tunnel/table/odd"));
   VelaDock::MountInfo entry;
   entry.collectionIs("entry", 8);
   EXPECT_FALSE(mounter.writeMountTable(TunnelTableInfo("Test::NotATable", "odd2"), entry));
   Vela::TypeRegistry::instance().typeDel("Test::NotATable");
}

// The same mounts with the writer agent and a reader agent as threads of one process, each with its
// own event loop and mount service (run under ThreadSanitizer too).
TEST(TunnelMountThreads, ReaderThreadFollowsWriterThread) {
   registerTunnelTableTypes();
   Testing::TempRoot root;
   std::atomic<bool> writerMounted{false};
   std::atomic<bool> readerSynced{false};
   std::atomic<bool> readerDone{false};
   std::atomic<int> writerResult{-1};
   std::atomic<int> readerResult{-1};
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
   auto waitFor = [&](const std::atomic<bool>& flag) {
      while (!flag.load(std::memory_order_acquire)) {
         if (std::chrono::steady_clock::now() > deadline) return false;
         std::this_thread::sleep_for(milliseconds(1));
      }
      return true;
   };

   std::thread writer([&] {
      Loom::EventLoop loop;
      TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
      auto table = Vela::dynamicPtrCast<LdpTunnelTable>(mounter.mountWriter(kLdp));
      writerMounted.store(true, std::memory_order_release);
      if (!table || !waitFor(readerSynced)) return writerResult.store(1);
      for (uint64_t k = 1; k <= 100; ++k) table->entryIs(ldpEntry(k, uint32_t(k)));
      for (uint64_t k = 1; k <= 20; ++k) table->entryDel(ldpId(k));
      table->entryIs(ldpEntry(kSentinel, 2));
      // The writer stays mounted until the reader has looked.
      writerResult.store(waitFor(readerDone) ? 0 : 2);
   });
   std::thread reader([&] {
      if (!waitFor(writerMounted)) return readerResult.store(1);
      Loom::EventLoop loop;
      TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
      auto table = Vela::dynamicPtrCast<LdpTunnelTable>(mounter.mountKeyshadow(kLdp));
      if (!table) return readerResult.store(2);
      auto control = table->entryControl();
      const auto synced = [&] { return control->quiesced(); };
      if (!runUntil(loop, synced, milliseconds(20000))) return readerResult.store(3);
      readerSynced.store(true, std::memory_order_release);
      const auto last = [&] { return table->entry(ldpId(kSentinel)).igpMetric() == 2; };
      if (!runUntil(loop, last, milliseconds(20000))) return readerResult.store(4);
      for (uint64_t k = 1; k <= 100; ++k) {
         const auto got = table->entryIf(ldpId(k));
         if (k <= 20 ? got.has_value() : !(got && *got == ldpEntry(k, uint32_t(k)))) {
            return readerResult.store(5);
         }
      }
      readerResult.store(table->entryCount() == 81 ? 0 : 6);
   });
   reader.join();
   readerDone.store(true, std::memory_order_release);
   writer.join();
   EXPECT_EQ(writerResult.load(), 0);
   EXPECT_EQ(readerResult.load(), 0);
}

}  // namespace
