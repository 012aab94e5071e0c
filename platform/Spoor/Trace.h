// Spoor: the trace facility. Each module writes through its own handle with a level per line,
// 0 (most important) to 9 (most detailed). A level is on when it is at or below the module's
// threshold; thresholds come from the environment variable SPOOR_TRACE and from the API.
//
//    SPOOR_TRACE="Store/5,TunnelTable/9"   modules Store up to level 5, TunnelTable up to 9
//    SPOOR_TRACE="*/3"                     every module up to level 3
//
// Lines go to the installed sink (stderr by default, or a file); a Capture installs itself as the
// sink for a test and records every line, so tests assert on trace records rather than on text
// scraped from stderr.
//
// Checking a level is one relaxed atomic load; the text is formatted only when the level is on:
//    SPOOR_TRACE(handle, 5, "quiesced {} type:{}", root, type);
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Spoor {

constexpr int kMaxLevel = 9;

struct Record {
   std::string module;
   int level;
   std::string text;
};

class Sink {
  public:
   virtual ~Sink() = default;
   virtual void write(const Record& record) = 0;
};

class Handle {
  public:
   explicit Handle(std::string module);
   Handle(const Handle&) = delete;
   Handle& operator=(const Handle&) = delete;

   const std::string& module() const { return module_; }
   bool enabled(int level) const { return level <= threshold_.load(std::memory_order_relaxed); }
   // Writes one line at `level` if that level is on.
   void write(int level, std::string_view text) const;
   // Threshold: levels 0..maxLevel are on; -1 turns the module off.
   void levelIs(int maxLevel) { threshold_.store(maxLevel, std::memory_order_relaxed); }
   int level() const { return threshold_.load(std::memory_order_relaxed); }

  private:
   std::string module_;
   std::atomic<int> threshold_;
};

// The process-wide handle of a module, created on first use; the reference stays valid.
Handle& handle(std::string_view module);

// Sets the threshold of one module ("*" for every module, present and future).
void levelIs(std::string_view module, int maxLevel);

// Applies a SPOOR_TRACE-style setting string; returns false if it is malformed.
bool configure(std::string_view spec);

// Replaces the sink; nullptr restores stderr. Returns the previous sink.
std::shared_ptr<Sink> sinkIs(std::shared_ptr<Sink> sink);

// A sink that appends lines to a file.
std::shared_ptr<Sink> fileSink(const std::string& path);

// Records every trace line while it lives, with every module switched on to `maxLevel`.
class Capture {
  public:
   explicit Capture(int maxLevel = kMaxLevel);
   ~Capture();
   Capture(const Capture&) = delete;
   Capture& operator=(const Capture&) = delete;

   std::vector<Record> records() const;
   // Lines of one module (all modules for an empty name) containing `text`.
   size_t count(std::string_view module, std::string_view text) const;
   bool contains(std::string_view text) const { return count("", text) > 0; }
   void clear();

  private:
   struct Impl;
   std::shared_ptr<Impl> impl_;
   std::shared_ptr<Sink> previousSink_;
   std::vector<std::pair<std::string, int>> previousLevels_;
   std::vector<std::pair<std::string, int>> previousConfigured_;
};

}  // namespace Spoor

#define SPOOR_TRACE(handle, level, ...)                       \
   do {                                                       \
      if ((handle).enabled(level)) {                          \
         (handle).write((level), ::fmt::format(__VA_ARGS__)); \
      }                                                       \
   } while (0)
