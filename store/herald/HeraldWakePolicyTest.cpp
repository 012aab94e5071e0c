// When the herald wakes readers for changes posted with postChange: one task per loop turn when a
// loop runs on the writer's thread, else on the caller's request or explicit flush; a queued task
// that outlives its writer does nothing. (The writer's own counts: DockWriterTest.)
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "Loom/EventLoop.h"
#include "store/herald/HeraldWriter.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

uint32_t wakeWord(const HeraldWriter& w) {
   return w.header()->wakeWord.load();
}

TEST(HeraldWakePolicy, WithoutALoopTheWakeWaitsForTheCallersRequest) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 5, 16);
   const uint32_t word = wakeWord(w);
   EXPECT_TRUE(w.quiesced());
   w.postChange(1);
   w.postChange(2);
   EXPECT_FALSE(w.quiesced());
   EXPECT_EQ(w.wakes(), 0u);
   EXPECT_EQ(wakeWord(w), word);
   w.wakeSoon();
   EXPECT_TRUE(w.quiesced());
   EXPECT_EQ(w.wakes(), 1u);
   EXPECT_EQ(wakeWord(w), word + 1);
   // Nothing posted since: neither a request nor a flush wakes again.
   w.wakeSoon();
   w.flush();
   EXPECT_EQ(w.wakes(), 1u);
   w.postChange(3);
   w.flush();
   EXPECT_EQ(w.wakes(), 2u);
   EXPECT_EQ(wakeWord(w), word + 2);
}

TEST(HeraldWakePolicy, WithALoopOneTaskPerTurnWakesAtTheEndOfTheTurn) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 5, 16);
   Loom::EventLoop loop;
   for (uint64_t turn = 1; turn <= 3; ++turn) {
      loop.post([&] {
         for (uint32_t i = 0; i < 10; ++i) w.postChange(i);
         w.wakeSoon();  // the loop's task wakes, not the request
         EXPECT_FALSE(w.quiesced());
         EXPECT_EQ(w.wakes(), turn - 1);
      });
      loop.runOnce(std::chrono::milliseconds(0));
      loop.runOnce(std::chrono::milliseconds(0));
      EXPECT_TRUE(w.quiesced());
      EXPECT_EQ(w.wakes(), turn);
   }
   // A plain post() is not a change: no task, no wake until a flush.
   loop.post([&] { w.post(1); });
   loop.runOnce(std::chrono::milliseconds(0));
   loop.runOnce(std::chrono::milliseconds(0));
   EXPECT_FALSE(w.quiesced());
   w.flush();
   EXPECT_EQ(w.wakes(), 4u);
}

// The writer goes in the turn that queued its wake; the task must not touch it (a use of the
// freed writer fails the sanitizer builds). A writer made afterwards keeps its own task.
TEST(HeraldWakePolicy, AQueuedWakeThatOutlivesItsWriterDoesNothing) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   std::unique_ptr<HeraldWriter> next;
   loop.post([&] {
      auto w = std::make_unique<HeraldWriter>();
      w->create(root.path(), 5, 16);
      w->postChange(1);
      w.reset();
      next = std::make_unique<HeraldWriter>();
      next->create(root.path(), 6, 16);
      next->postChange(2);
   });
   loop.runOnce(std::chrono::milliseconds(0));
   loop.runOnce(std::chrono::milliseconds(0));
   EXPECT_EQ(next->wakes(), 1u);
   EXPECT_TRUE(next->quiesced());
}

}  // namespace
}  // namespace Dock
