#include "Spoor/Trace.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace Spoor {
namespace {

class StderrSink : public Sink {
  public:
   void write(const Record& r) override {
      auto now = std::chrono::system_clock::now().time_since_epoch();
      auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
      std::string line = fmt::format("{}.{:06} {} {} {} {}\n", us / 1000000, us % 1000000,
                                     ::getpid(), r.module, r.level, r.text);
      std::fwrite(line.data(), 1, line.size(), out_);
      std::fflush(out_);
   }
   explicit StderrSink(FILE* out = stderr) : out_(out) {}
   ~StderrSink() override {
      if (out_ != stderr) std::fclose(out_);
   }

  private:
   FILE* out_;
};

// The registry outlives every user: it is created on first use and never destroyed, so handles
// held in static objects stay valid during process exit.
struct Registry {
   std::mutex mutex;
   std::map<std::string, std::unique_ptr<Handle>, std::less<>> handles;
   std::map<std::string, int, std::less<>> configured;
   int defaultLevel = -1;
   std::shared_ptr<Sink> sink = std::make_shared<StderrSink>();

   Registry() {
      if (const char* env = std::getenv("SPOOR_TRACE")) configureLocked(env);
   }
   // The whole setting string is checked before any of it is applied, so a malformed one
   // changes nothing.
   bool configureLocked(std::string_view spec) {
      std::vector<std::pair<std::string_view, int>> items;
      while (!spec.empty()) {
         auto comma = spec.find(',');
         std::string_view item = spec.substr(0, comma);
         spec = comma == std::string_view::npos ? std::string_view() : spec.substr(comma + 1);
         auto slash = item.rfind('/');
         if (slash == std::string_view::npos || slash == 0 || slash + 1 >= item.size()) {
            return false;
         }
         int level = 0;
         for (char c : item.substr(slash + 1)) {
            if (c < '0' || c > '9') return false;
            level = std::min(level * 10 + (c - '0'), kMaxLevel);  // larger levels mean "all"
         }
         items.emplace_back(item.substr(0, slash), level);
      }
      for (auto [module, level] : items) setLocked(module, level);
      return true;
   }
   void setLocked(std::string_view module, int level) {
      if (module == "*") {
         defaultLevel = level;
         configured.clear();
         for (auto& [name, h] : handles) h->levelIs(level);
         return;
      }
      configured[std::string(module)] = level;
      if (auto it = handles.find(module); it != handles.end()) it->second->levelIs(level);
   }
};

Registry& registry() {
   static Registry* r = new Registry;
   return *r;
}

}  // namespace

Handle::Handle(std::string module) : module_(std::move(module)), threshold_(-1) {}

void Handle::write(int level, std::string_view text) const {
   if (!enabled(level)) return;
   std::shared_ptr<Sink> sink;
   {
      std::lock_guard lock(registry().mutex);
      sink = registry().sink;
   }
   sink->write(Record{module_, level, std::string(text)});
}

Handle& handle(std::string_view module) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   auto it = r.handles.find(module);
   if (it != r.handles.end()) return *it->second;
   auto h = std::make_unique<Handle>(std::string(module));
   auto conf = r.configured.find(module);
   h->levelIs(conf != r.configured.end() ? conf->second : r.defaultLevel);
   return *r.handles.emplace(std::string(module), std::move(h)).first->second;
}

void levelIs(std::string_view module, int maxLevel) {
   std::lock_guard lock(registry().mutex);
   registry().setLocked(module, maxLevel);
}

bool configure(std::string_view spec) {
   std::lock_guard lock(registry().mutex);
   return registry().configureLocked(spec);
}

std::shared_ptr<Sink> sinkIs(std::shared_ptr<Sink> sink) {
   std::lock_guard lock(registry().mutex);
   auto previous = registry().sink;
   registry().sink = sink ? std::move(sink) : std::make_shared<StderrSink>();
   return previous;
}

std::shared_ptr<Sink> fileSink(const std::string& path) {
   FILE* f = std::fopen(path.c_str(), "a");
   if (!f) return nullptr;
   return std::make_shared<StderrSink>(f);
}

struct Capture::Impl : Sink {
   mutable std::mutex mutex;
   std::vector<Record> records;
   void write(const Record& r) override {
      std::lock_guard lock(mutex);
      records.push_back(r);
   }
};

Capture::Capture(int maxLevel) : impl_(std::make_shared<Impl>()) {
   {
      std::lock_guard lock(registry().mutex);
      for (auto& [name, h] : registry().handles) previousLevels_.emplace_back(name, h->level());
      // Levels configured for modules that have no handle yet, which "*" below would forget.
      for (auto& [name, level] : registry().configured) {
         if (!registry().handles.count(name)) previousConfigured_.emplace_back(name, level);
      }
      previousLevels_.emplace_back("*", registry().defaultLevel);
   }
   levelIs("*", maxLevel);
   previousSink_ = sinkIs(impl_);
}

Capture::~Capture() {
   sinkIs(previousSink_);
   // Restore "*" first, then the individual modules it overwrote.
   std::lock_guard lock(registry().mutex);
   registry().setLocked("*", previousLevels_.back().second);
   previousLevels_.pop_back();
   for (auto& [name, level] : previousLevels_)
      registry().handles.find(name)->second->levelIs(level);
   for (auto& [name, level] : previousConfigured_) {
      auto it = registry().handles.find(name);
      if (it != registry().handles.end()) it->second->levelIs(level);  // created meanwhile
      registry().configured[name] = level;
   }
}

std::vector<Record> Capture::records() const {
   std::lock_guard lock(impl_->mutex);
   return impl_->records;
}

size_t Capture::count(std::string_view module, std::string_view text) const {
   std::lock_guard lock(impl_->mutex);
   size_t n = 0;
   for (const auto& r : impl_->records) {
      if ((module.empty() || r.module == module) && r.text.find(text) != std::string::npos) ++n;
   }
   return n;
}

void Capture::clear() {
   std::lock_guard lock(impl_->mutex);
   impl_->records.clear();
}

}  // namespace Spoor
