// What `tunnelctl publish` costs on a large description: 100,000 LDP tunnels published by a writer,
// then a reload of the same file with one tunnel changed. Each step runs in a child process of its
// own, so its peak resident memory is its own (wait4). The floor, measured in the same run, is
// parsing the same file with nlohmann::json alone: publishing cannot be cheaper than reading.
//
// Peak memory counts the table's own shared-memory pages, which every writer of that table holds.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Agent.h"
#include "BenchSupport.h"
#include "Description.h"
#include "Publisher.h"

namespace {

constexpr int kTunnels = 100000;
constexpr int kChanged = 50000;  // the index whose metric the reload changes

void writeDescription(const std::string& path, int changedMetric) {
   std::ofstream out(path);
   out << "{\"name\": \"bench\", \"tunnels\": [\n";
   for (int i = 1; i <= kTunnels; ++i) {
      const int metric = i == kChanged ? changedMetric : 10 + i % 90;
      out << "{\"table\": \"ldp\", \"index\": " << i << ", \"endpoint\": \"10." << (i >> 16) << "."
          << ((i >> 8) & 255) << "." << (i & 255) << "\", \"entryMetric\": " << metric
          << ", \"name\": \"ldp-" << i
          << "\", \"vias\": [{\"nextHop\": \"10.0.1.1\", \"interface\": \"Ethernet1\", "
             "\"labels\": \"push "
          << (16 + i) << "\"}]}" << (i < kTunnels ? ",\n" : "\n");
   }
   out << "]}\n";
}

struct Measured {
   double seconds = 0;
   double peakMb = 0;
   std::string note;
};

// Runs `work` in a child; it writes its own figure (seconds, note) to the pipe.
Measured inChild(const std::function<void(FILE*)>& work) {
   int fds[2];
   if (::pipe(fds) != 0) std::abort();
   const pid_t pid = ::fork();
   if (pid == 0) {
      ::close(fds[0]);
      FILE* out = ::fdopen(fds[1], "w");
      work(out);
      std::fclose(out);
      std::_Exit(0);
   }
   ::close(fds[1]);
   FILE* in = ::fdopen(fds[0], "r");
   Measured m;
   char note[256] = {0};
   if (std::fscanf(in, "%lf %255[^\n]", &m.seconds, note) < 1) std::abort();
   m.note = note;
   std::fclose(in);
   int status = 0;
   rusage ru{};
   ::wait4(pid, &status, 0, &ru);
   if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::abort();
   m.peakMb = double(ru.ru_maxrss) / 1024.0;
   return m;
}

double secondsSince(uint64_t startNs) {
   return double(Bench::nowNs() - startNs) / 1e9;
}

}  // namespace

int main() {
   const std::string root = Bench::freshRoot("publish-bench");
   const std::string file = root + "/description.json";
   const std::string changed = root + "/description-changed.json";
   writeDescription(file, 1);
   writeDescription(changed, 9999);
   const double fileMb = double(std::filesystem::file_size(file)) / 1e6;

   const Measured floor = inChild([&](FILE* out) {
      const uint64_t t0 = Bench::nowNs();
      std::ifstream in(file);
      std::stringstream text;
      text << in.rdbuf();
      const auto doc = nlohmann::json::parse(text.str());
      std::fprintf(out, "%f %zu tunnels\n", secondsSince(t0), doc["tunnels"].size());
   });
   const Measured publish = inChild([&](FILE* out) {
      const uint64_t t0 = Bench::nowNs();
      TunnelCtl::Agent agent;
      TunnelCtl::Publisher publisher(agent);
      const auto changes = publisher.apply(TunnelCtl::loadDescription(file));
      std::fprintf(out, "%f %zu changes\n", secondsSince(t0), changes.size());
   });
   // The reload's own cost: the child publishes first (not timed), then reloads.
   const Measured reload = inChild([&](FILE* out) {
      TunnelCtl::Agent agent;
      TunnelCtl::Publisher publisher(agent);
      publisher.apply(TunnelCtl::loadDescription(file));
      rusage ru{};
      ::getrusage(RUSAGE_SELF, &ru);
      const uint64_t t0 = Bench::nowNs();
      const auto changes = publisher.apply(TunnelCtl::loadDescription(changed));
      std::fprintf(out, "%f %zu changes, peak before the reload %.1f MB\n", secondsSince(t0),
                   changes.size(), double(ru.ru_maxrss) / 1024.0);
   });
   std::filesystem::remove_all(root);

   std::printf("description: %d LDP tunnels, %.1f MB of JSON\n", kTunnels, fileMb);
   std::printf("%-34s %8.3f s  peak %7.1f MB  (%s)\n", "floor: parse with nlohmann::json",
               floor.seconds, floor.peakMb, floor.note.c_str());
   std::printf("%-34s %8.3f s  peak %7.1f MB  (%s)\n", "publish", publish.seconds, publish.peakMb,
               publish.note.c_str());
   std::printf("%-34s %8.3f s  peak %7.1f MB  (%s)\n", "reload with one tunnel changed",
               reload.seconds, reload.peakMb, reload.note.c_str());
   std::printf("ratio publish/floor: time %.2f, peak memory %.2f\n",
               publish.seconds / floor.seconds, publish.peakMb / floor.peakMb);
   return 0;
}
