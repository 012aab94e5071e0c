// Pike: the record byte form, the per-thread allocator, and a writer and readers over the same
// store - in one thread (pending until flushed), in other processes (a writer killed and
// restarted) and in other threads (for the thread sanitizer).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "Loom/EventLoop.h"
#include "Pike/PikeCollection.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Pike {
namespace {

using Testing::runUntil;

constexpr Vela::AttributeId attrChild{900};
constexpr Vela::AttributeId attrValue{901};

// A tree node: children by number, and a set of numbers.
class Node final : public PikeEntity {
  public:
   Node(const Vela::String& name, uint32_t key) : PikeEntity(name), key_(key) {
      if (name == "throws") throw Vela::Exception("construction failed");
   }
   std::string_view fwkType() const override { return "Pike::Test::Node"; }
   Vela::Ptr<Node> childIs(uint32_t key) {
      if (auto c = children.find(key)) return c;
      return children.create(key, "n" + std::to_string(key));
   }
   uint32_t key_;
   EntityMap<uint32_t, Node> children{*this, attrChild};
   ValueSet<uint64_t> values{*this, attrValue};
};

// What a tree holds, as text: "name{values}[children...]", children and values in order.
std::string shape(const Node& n) {
   std::map<uint32_t, std::string> kids;
   for (const auto& [k, c] : n.children) kids[k] = shape(*c);
   std::set<uint64_t> vals(n.values.begin(), n.values.end());
   std::string s = n.name() + "{";
   for (uint64_t v : vals) s += std::to_string(v) + ",";
   s += "}[";
   for (const auto& [k, t] : kids) s += t;
   return s + "]";
}

struct Counting : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void*) override { ++calls[attr.value]; }
   std::map<uint32_t, int> calls;
};

TEST(PikeRecord, ByteFormRoundTripsAndRejectsWhatDoesNotAddUp) {
   PikeRecord r;
   r.key = pikeKeyOf(7, attrChild, uint32_t(0x01020304));
   r.child = 9;
   r.typeName = "T";
   r.name = "ab";
   std::vector<uint8_t> bytes(r.serializeLen());
   r.serialize(bytes.data());
   EXPECT_EQ(bytes.size(), 63u);
   EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 12, bytes.begin() + 20),
             Testing::hexBytes("04000000 04030201"));  // keyLen 4, then the key's bytes
   EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 56, bytes.end()),
             Testing::hexBytes("0100 0200 54 6162"));
   PikeRecord back;
   back.deserialize(bytes.data(), uint32_t(bytes.size()));
   EXPECT_EQ(back, r);
   EXPECT_EQ(PikeRecord::deserializeLen(bytes.data(), uint32_t(bytes.size()) - 1), 0u);

   struct Case {
      std::function<void(std::vector<uint8_t>&)> damage;
      uint32_t length;
      std::string error;
   } cases[] = {
       {[](auto&) {}, 59, "Pike record of 59 bytes does not add up"},
       {[](auto&) {}, 64, "Pike record of 64 bytes does not add up"},
       {[](auto& b) { b[12] = 33; }, 63, "Pike record key of 33 bytes"},
       {[](auto& b) {
           b.resize(60 + 300);
           b[56] = 0x2c, b[57] = 0x01, b[58] = 0;
        },
        360, "Pike record name longer than 256"},
   };
   for (const Case& c : cases) {
      std::vector<uint8_t> b = bytes;
      c.damage(b);
      b.resize(std::max<size_t>(b.size(), c.length));
      EXPECT_EQ(Testing::errorText([&] { PikeRecord().deserialize(b.data(), c.length); }), c.error);
   }
}

TEST(PikeAllocator, CurrentPerThreadAndRestoredAlsoWhenConstructionThrows) {
   Testing::TempRoot root;
   PikeWriter a("pike/a");
   PikeWriter b("pike/b");
   EXPECT_EQ(Allocator::current(), nullptr);
   {
      AllocatorScope outer(&a);
      std::thread([] { EXPECT_EQ(Allocator::current(), nullptr); }).join();
      EXPECT_THROW(pikeNew<Node>(b, "throws", 1u), Vela::Exception);
      EXPECT_EQ(Allocator::current(), &a);
      auto n = pikeNew<Node>(b, "fine", 1u);
      EXPECT_EQ(Allocator::current(), &a);
      EXPECT_EQ(n->pikeWriter(), &b);
      EXPECT_EQ(n->pikeId(), 1u);
   }
   EXPECT_EQ(Allocator::current(), nullptr);
   // Without an allocator an entity is a private one: it writes nothing anywhere.
   auto plain = Vela::makePtr<Node>("plain", 0u);
   plain->doPikeInit();
   EXPECT_EQ(plain->pikeWriter(), nullptr);
   plain->childIs(3)->values.insert(4);
   EXPECT_EQ(shape(*plain), "plain{}[n3{4,}[]]");
   EXPECT_EQ(b.pendingMembers(), 1u);  // only b's id counter
}

// Writer and reader on one thread: nothing is visible before the flush; after it the copy equals
// the tree, notifications included; deletions take subtrees with them; a second writer is refused.
TEST(Pike, ReaderSeesAFlushAtATimeAndFollowsDeletions) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   PikeWriter writer("pike/t");
   EXPECT_THROW(PikeWriter("pike/t"), Region::OwnerError);
   auto tree = Vela::makePtr<Node>("root", 0u);
   writer.rootIs(*tree);
   for (uint32_t i = 1; i <= 3; ++i) {
      auto c = tree->childIs(i);
      for (uint64_t v = 0; v < i; ++v) c->values.insert(v * 10);
      c->childIs(i * 100)->values.insert(i);
   }
   PikeReader reader("pike/t", loop);
   auto copy = Vela::makePtr<Node>("root", 0u);
   reader.rootIs(*copy);
   Counting seen;
   copy->notifieeAdd(&seen);
   ASSERT_TRUE(runUntil(loop, [&] { return reader.synchronized(); }));
   EXPECT_EQ(shape(*copy), "root{}[]");

   tree->handleFlush();
   const std::string full =
       "root{}[n1{0,}[n100{1,}[]]n2{0,10,}[n200{2,}[]]n3{0,10,20,}[n300{3,}[]]]";
   ASSERT_TRUE(runUntil(loop, [&] { return shape(*copy) == full; })) << shape(*copy);
   EXPECT_EQ(seen.calls[attrChild.value], 3);
   EXPECT_EQ(copy->children.find(2)->parent(), copy.get());

   // A change flushed through a subtree: only that subtree's members are written.
   tree->children.find(1)->values.insert(99);
   tree->children.find(3)->values.insert(77);
   tree->children.find(1)->handleFlush();
   ASSERT_TRUE(runUntil(loop, [&] { return copy->children.find(1)->values.contains(99); }));
   EXPECT_FALSE(copy->children.find(3)->values.contains(77));
   EXPECT_EQ(writer.pendingMembers(), 1u);

   tree->children.del(2);
   tree->children.find(3)->children.delAll();
   tree->handleFlush();
   ASSERT_TRUE(runUntil(loop, [&] {
      return shape(*copy) == "root{}[n1{0,99,}[n100{1,}[]]n3{0,10,20,77,}[]]";
   })) << shape(*copy);
   EXPECT_EQ(seen.calls[attrChild.value], 4);
   // The store holds the root, the counter and one record per member: nothing of the deleted.
   EXPECT_EQ(writer.map().members(), 2u + 2 + 1 + 1 + 2 + 4);
}

// A writer in another process builds a tree and changes it, is killed, and a new writer builds
// another: the reader's copy follows each step; the new writer's ids are all new.
TEST(Pike, ReaderInAnotherProcessFollowsChangesAndAWriterRestart) {
   Testing::TempRoot root;
   Testing::Pipe toWriter, fromWriter;
   const pid_t first = Testing::forkChild([&] {
      PikeWriter writer("pike/p");
      auto tree = Vela::makePtr<Node>("root", 0u);
      writer.rootIs(*tree);
      for (uint32_t i = 1; i <= 50; ++i) tree->childIs(i)->values.insert(i);
      tree->handleFlush();
      fromWriter.send();
      toWriter.receive();
      for (uint32_t i = 1; i <= 25; ++i) tree->children.del(i);
      tree->childIs(50)->values.insert(5000);
      tree->handleFlush();
      fromWriter.send();
      toWriter.receive();  // killed here
      return 0;
   });
   Loom::EventLoop loop;
   ASSERT_TRUE(fromWriter.receive());
   PikeReader reader("pike/p", loop);
   auto copy = Vela::makePtr<Node>("root", 0u);
   reader.rootIs(*copy);
   ASSERT_TRUE(runUntil(loop, [&] { return copy->children.size() == 50; }));
   const uint64_t firstRootId = copy->pikeId();
   toWriter.send();
   ASSERT_TRUE(fromWriter.receive());
   ASSERT_TRUE(runUntil(loop, [&] {
      return copy->children.size() == 25 && copy->children.find(50) &&
             copy->children.find(50)->values.contains(5000);
   }));
   ::kill(first, SIGKILL);
   EXPECT_EQ(Testing::waitChild(first), 128 + SIGKILL);

   const pid_t second = Testing::forkChild([&] {
      PikeWriter writer("pike/p");
      auto tree = Vela::makePtr<Node>("root", 0u);
      writer.rootIs(*tree);
      tree->childIs(7)->childIs(8)->values.insert(9);
      tree->handleFlush();
      return writer.counters().staleRemoved == 52u ? 0 : 1;
   });
   EXPECT_EQ(Testing::waitChild(second), 0);
   ASSERT_TRUE(runUntil(loop, [&] { return shape(*copy) == "root{}[n7{}[n8{9,}[]]]"; }))
       << shape(*copy);
   EXPECT_GT(copy->pikeId(), firstRootId + 50);
   EXPECT_GE(reader.counters().restarts, 1u);
}

// The writer and a reader as threads over the same files (for the thread sanitizer): the reader
// ends equal to the writer's final tree.
TEST(Pike, WriterAndReaderThreads) {
   Testing::TempRoot root;
   std::atomic<bool> written{false};
   std::string expected;
   std::thread writerThread([&] {
      PikeWriter writer("pike/th");
      auto tree = Vela::makePtr<Node>("root", 0u);
      writer.rootIs(*tree);
      tree->handleFlush();
      for (uint32_t round = 0; round < 200; ++round) {
         auto c = tree->childIs(round % 17);
         c->values.insert(round);
         if (round % 5 == 0) tree->children.del((round + 3) % 17);
         tree->handleFlush();
      }
      expected = shape(*tree);
      written = true;
   });
   Loom::EventLoop loop;
   PikeReader reader("pike/th", loop);
   auto copy = Vela::makePtr<Node>("root", 0u);
   reader.rootIs(*copy);
   ASSERT_TRUE(runUntil(loop, [&] { return written && shape(*copy) == expected; })) << shape(*copy);
   writerThread.join();
}

}  // namespace
}  // namespace Pike
