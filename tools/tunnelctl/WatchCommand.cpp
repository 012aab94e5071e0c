// watch TABLE: per-key notifications of a table as a consuming agent receives them, for an
// operator: filters, timestamps, JSON lines, the writer going and coming back, and a writer's
// restart shown as one marker with the keys that really differed.
//
// Events, as text lines (JSON: one object per line, "event" naming it):
//    ldp: waiting for a writer to publish it          waiting       (--wait, table not there yet)
//    ldp: synchronized, 23 entries                    synchronized  entries, matching, writerPid
//    ldp index 7 changed: Value(...)                  changed       index, entry (EntryJson.h)
//    ldp index 7 removed                              removed       index
//    ldp: writer pid 4242 gone                        writerGone    pid
//    ldp: writer pid 4250 back                        writerBack    pid
//    ldp: resynchronized with writer pid 4250: 2 keys differed: index 3, index 9
//      ("without a live writer" when the watch stops before one is back)
//                                                     resynchronized  writerPid, differed
//    ldp: 5 changes                                   stopped       changes
// With -t each text line starts with the UTC time and each object has "time" first.
//
// Only real changes print: the watch remembers a hash of each shown entry's text, so a
// notification that leaves an entry as it was (a restarted writer rewriting the same table) is
// not a change. An entry that stops matching the filter prints once more, as it now is.
//
// A resynchronization opens when the writer goes (the reader re-attaches, or its process ends)
// and closes once a live writer holds the table, the reader has synchronized and no notification
// has come for kQuiet: a restarted writer republishes its whole table right after it mounts. The
// changes in between print after the marker, which names the keys that really differed.
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <unordered_map>

#include "Agent.h"
#include "Commands.h"
#include "EntryJson.h"
#include "Region/OwnerFile.h"
#include "Region/ProcessStart.h"
#include "Region/StoreRoot.h"
#include "StrictJson.h"
#include "store/format/Layout.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

namespace {

// "2026-11-25T05:10:03.123Z"
std::string utcNow() {
   timespec ts{};
   ::clock_gettime(CLOCK_REALTIME, &ts);
   tm t{};
   ::gmtime_r(&ts.tv_sec, &t);
   char day[32];
   ::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &t);
   return fmt::format("{}.{:03}Z", day, ts.tv_nsec / 1000000);
}

// The writer the owner file names, and whether that very process (pid and start time, on this
// host) still runs. No lock is taken: a watch polls, and must not stand in a starting writer's way.
struct WriterSeen {
   pid_t pid = 0;
   bool alive = false;
};
WriterSeen writerSeen(const std::string& dir) {
   Region::OwnerText o;
   WriterSeen w;
   if (!Region::OwnerText::parse(Region::OwnerFile::read(dir), o)) return w;
   w.pid = o.pid;
   w.alive = o.host == Region::OwnerText::self().host && Region::processStartTime(o.pid) == o.start;
   return w;
}

// One event: its text line, or with --json its object on one line.
void emitEvent(std::ostream& out, const WatchOptions& o, const std::string& text, Json j) {
   if (o.json) {
      Json line = Json::object();
      if (o.timestamps) line["time"] = utcNow();
      line.update(j);
      out << dumpJson(line) << std::endl;
   } else {
      out << (o.timestamps ? utcNow() + " " : std::string()) << text << std::endl;
   }
}

bool tableExists(const TableEntry& table) {
   try {
      existingTableDirectory(table);
      return true;
   } catch (const TableMissing&) {
      return false;
   }
}

class Watch : public Vela::Entity::Notifiee {
  public:
   Watch(std::ostream& out, const TableEntry& table, const WatchOptions& o,
         const TT::TunnelTableBase& mounted, std::string dir)
       : out_(out),
         table_(table),
         o_(o),
         mounted_(mounted),
         read_(entryReaderFor(mounted)),
         dir_(std::move(dir)) {}

   uint64_t changes() const { return changes_; }

   // Remembers what matches now and says so.
   void start() {
      for (const TT::TunnelId& key : mounted_.entryKeys()) {
         if (auto e = read_(key); e && o_.filter.matches(*e)) shown_[key.value()] = hashOf(*e);
      }
      ownerStamp_ = ownerStamp();
      writer_ = writerSeen(dir_);
      reattaches_ = mounted_.storeReattaches();
      const size_t entries = mounted_.entryCount();
      std::string text = fmt::format("{}: synchronized, {} entries", table_.mountName, entries);
      if (o_.filter.any()) text += fmt::format(", {} match", shown_.size());
      emit(text, {{"event", "synchronized"},
                  {"table", table_.mountName},
                  {"entries", entries},
                  {"matching", shown_.size()},
                  {"writerPid", writer_.alive ? Json(writer_.pid) : Json(nullptr)}});
   }

   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr != Vela::attrEntry || !key) return;
      lastNotification_ = std::chrono::steady_clock::now();
      // A notification may be the first sign of a new writer (during a resync poll() looks).
      if (!resyncing_) noticeWriter(false);
      const auto& id = *static_cast<const TT::TunnelId*>(key);
      std::optional<EntryView> e = read_(id);
      const bool matches = e && o_.filter.matches(*e);
      const auto it = shown_.find(id.value());
      if (!matches && it == shown_.end()) return;  // outside what this watch shows
      const size_t hash = matches ? hashOf(*e) : 0;
      if (matches && it != shown_.end() && it->second == hash) return;  // unchanged
      if (matches) {
         shown_[id.value()] = hash;
      } else {
         shown_.erase(it);
      }
      if (resyncing_) {
         if (std::find(differed_.begin(), differed_.end(), id) == differed_.end()) {
            differed_.push_back(id);
         }
      } else {
         printChange(id, e);
      }
   }

   // Called between loop turns: the writer's comings and goings, and the end of a resync.
   void poll() {
      const auto now = std::chrono::steady_clock::now();
      const bool due = now >= nextWriterPoll_;
      if (due) nextWriterPoll_ = now + std::chrono::milliseconds(100);
      noticeWriter(due);
      if (resyncing_ && writer_.alive && readerSynchronized(mounted_) &&
          now - lastNotification_ >= kQuiet) {
         endResync();
      }
   }

   void stop() {
      if (resyncing_) endResync();
      emit(fmt::format("{}: {} changes", table_.mountName, changes_),
           {{"event", "stopped"}, {"table", table_.mountName}, {"changes", changes_}});
   }

  private:
   static constexpr std::chrono::milliseconds kQuiet{300};

   // A re-attach opens a resync. The writer's identity is looked at when `look` (the periodic
   // look) or when its owner file changed since the last look (a new writer rewrites it before it
   // writes anything).
   void noticeWriter(bool look) {
      if (mounted_.storeReattaches() != reattaches_) {
         reattaches_ = mounted_.storeReattaches();
         resyncing_ = true;
         look = true;
      }
      const OwnerStamp stamp = ownerStamp();
      if (!look && stamp == ownerStamp_) return;
      ownerStamp_ = stamp;
      const WriterSeen w = writerSeen(dir_);
      const bool same = w.pid == writer_.pid;
      if (writer_.alive && (!w.alive || !same)) {
         writerEvent("gone", writer_.pid);
         resyncing_ = true;
      }
      if (w.alive && (!writer_.alive || !same)) writerEvent("back", w.pid);
      writer_ = w;
   }

   using OwnerStamp = std::pair<ino_t, int64_t>;  // the owner file's inode and change time
   OwnerStamp ownerStamp() const {
      struct stat st {};
      if (::stat((dir_ + "/" + Dock::kOwnerFile).c_str(), &st) != 0) return {};
      return {st.st_ino, int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec};
   }

   static size_t hashOf(const EntryView& e) { return std::hash<std::string_view>()(e.text); }

   void emit(const std::string& text, Json j) { emitEvent(out_, o_, text, std::move(j)); }

   void printChange(const TT::TunnelId& id, const std::optional<EntryView>& e) {
      ++changes_;
      const std::string what = table_.mountName + " " + keyText(id);
      if (!e) {
         emit(what + " removed",
              {{"event", "removed"}, {"table", table_.mountName}, {"index", id.tunnelIndex()}});
         return;
      }
      Json entry = e->fields;
      entry["text"] = e->text;
      emit(what + " changed: " + std::string(e->text), {{"event", "changed"},
                                                        {"table", table_.mountName},
                                                        {"index", id.tunnelIndex()},
                                                        {"entry", std::move(entry)}});
   }

   void writerEvent(const char* what, pid_t pid) {
      emit(fmt::format("{}: writer pid {} {}", table_.mountName, pid, what),
           {{"event", std::string("writer") + (what[0] == 'g' ? "Gone" : "Back")},
            {"table", table_.mountName},
            {"pid", pid}});
   }

   void endResync() {
      resyncing_ = false;
      std::string keys;
      Json indexes = Json::array();
      for (const auto& id : differed_) {
         keys += (keys.empty() ? "" : ", ") + keyText(id);
         indexes.push_back(id.tunnelIndex());
      }
      const std::string differed =
          differed_.empty() ? "no key differed"
                            : fmt::format("{} keys differed: {}", differed_.size(), keys);
      const std::string with = writer_.alive ? fmt::format("with writer pid {}", writer_.pid)
                                             : std::string("without a live writer");
      emit(fmt::format("{}: resynchronized {}: {}", table_.mountName, with, differed),
           {{"event", "resynchronized"},
            {"table", table_.mountName},
            {"writerPid", writer_.alive ? Json(writer_.pid) : Json(nullptr)},
            {"differed", std::move(indexes)}});
      for (const auto& id : std::exchange(differed_, {})) printChange(id, read_(id));
   }

   std::ostream& out_;
   const TableEntry& table_;
   const WatchOptions& o_;
   const TT::TunnelTableBase& mounted_;
   const EntryReader read_;
   const std::string dir_;
   std::unordered_map<uint64_t, size_t> shown_;  // key value -> hash of the text last shown
   WriterSeen writer_;
   OwnerStamp ownerStamp_;
   uint64_t reattaches_ = 0;
   bool resyncing_ = false;
   std::vector<TT::TunnelId> differed_;  // during a resync, in notification order
   std::chrono::steady_clock::time_point nextWriterPoll_{};
   std::chrono::steady_clock::time_point lastNotification_{};
   uint64_t changes_ = 0;
};

}  // namespace

int runWatch(std::ostream& out, const std::string& name, const WatchOptions& o) {
   const TableEntry& table = requireTable(name);
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   const auto limit = o.seconds > 0 ? std::chrono::milliseconds(int64_t(o.seconds * 1000))
                                    : std::chrono::milliseconds(std::chrono::hours(24 * 365));
   const auto deadline = std::chrono::steady_clock::now() + limit;
   auto left = [&] {
      return std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
   };
   if (!tableExists(table)) {
      if (!o.wait) existingTableDirectory(table);  // throws the missing table's error
      emitEvent(out, o, table.mountName + ": waiting for a writer to publish it",
                {{"event", "waiting"}, {"table", table.mountName}});
      auto nextLook = std::chrono::steady_clock::now();
      const bool found = agent.runUntil(
          [&] {
             if (stop || std::chrono::steady_clock::now() < nextLook) return stop;
             nextLook += std::chrono::milliseconds(100);
             return tableExists(table);
          },
          left());
      if (!found || stop) {
         emitEvent(out, o, table.mountName + ": 0 changes",
                   {{"event", "stopped"}, {"table", table.mountName}, {"changes", 0}});
         return 0;
      }
   }
   auto mounted = mountSynchronized(agent, table);
   Watch watch(out, table, o, *mounted, existingTableDirectory(table));
   watch.start();
   mounted->notifieeAdd(&watch);
   agent.runUntil(
       [&] {
          watch.poll();
          return stop || (o.count && watch.changes() >= o.count);
       },
       left());
   mounted->notifieeDel(&watch);
   watch.stop();
   return 0;
}

}  // namespace TunnelCtl
