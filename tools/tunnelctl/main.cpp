// tunnelctl: how a person sees the tunnel tables of a store root ($TUNNEL_SHMEM_ROOT or
// /var/shmem): list them, show and watch one as a reader sees it, check its files, publish a
// network description as a writer agent, run the RIB and FIB builders and the redistributor as
// agents, show what they write (RIBs, FIB, encapsulations, resolution, configurations), and run
// the writer-and-readers demo.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "Commands.h"
#include "Description.h"
#include "Region/OwnerFile.h"
#include "TableCatalog.h"

// Where the demo's example descriptions are, found at run time. An installed tunnelctl
// (<prefix>/bin) has them in <prefix>/share/tunnel/examples. One run from its build tree has,
// beside it, the never-installed file tunnelctl-examples.path naming the source tree's examples;
// so nothing of the source tree is compiled in, and an installed binary never looks there.
static std::string examplesDirectory() {
   namespace fs = std::filesystem;
   std::error_code ec;
   const fs::path bin = fs::read_symlink("/proc/self/exe", ec).parent_path();
   const fs::path installed = bin.parent_path() / "share/tunnel/examples";
   if (fs::is_directory(installed, ec)) return installed.string();
   std::ifstream beside(bin / "tunnelctl-examples.path");
   std::string dir;
   if (std::getline(beside, dir) && !dir.empty()) return dir;
   return installed.string();  // neither: the demo's error names where they belong
}

int main(int argc, char** argv) {
   CLI::App app{"tunnelctl: inspect, publish and watch the tunnel tables under a store root"};
   app.set_version_flag("--version", std::string("tunnelctl ") + TUNNEL_VERSION);
   app.require_subcommand(0, 1);
   app.footer("Store root: $TUNNEL_SHMEM_ROOT, or /var/shmem. TABLE is a mount name: " +
              TunnelCtl::knownMountNames() + ".");

   bool json = false;
   std::string table;
   auto* list = app.add_subcommand(
       "list", "the tables under the store root: writer, readers, entries, capacity");
   list->add_flag("--json", json, "machine-readable output");

   // The filters show and watch share (EntryFilter.h).
   std::string endpointFilter, nexthopFilter, nameFilter;
   auto addFilters = [&](CLI::App* cmd) {
      cmd->add_option("--endpoint", endpointFilter,
                      "entries with an endpoint that is PREFIX or covers it (show: the longest)");
      cmd->add_option("--nexthop", nexthopFilter, "entries with a via to ADDRESS");
      cmd->add_option("--name", nameFilter, "entries whose name matches the shell pattern GLOB");
   };

   TunnelCtl::ShowOptions showOptions;
   auto* show = app.add_subcommand("show", "the entries of TABLE as a reader sees them");
   show->add_option("TABLE", table, "mount name of the table")->required();
   show->add_option("INDEX", showOptions.index, "one tunnel, by its index");
   show->add_flag("--json", showOptions.json, "every field of every entry as JSON");
   show->add_flag("--detail", showOptions.detail, "each entry's full Value(...) text form");
   show->add_flag("--count", showOptions.count, "only how many entries there are and match");
   addFilters(show);

   TunnelCtl::WatchOptions watchOptions;
   double seconds = 0;
   auto* watch = app.add_subcommand("watch", "per-key notifications of TABLE as they arrive");
   watch->add_option("TABLE", table, "mount name of the table")->required();
   watch->add_option("--count", watchOptions.count, "stop after N changes");
   watch->add_option("--seconds", watchOptions.seconds, "stop after S seconds");
   watch->add_flag("-t,--timestamps", watchOptions.timestamps, "each line starts with its time");
   watch->add_flag("--json", watchOptions.json, "one JSON object per line");
   watch->add_flag("--wait", watchOptions.wait, "wait for a table no writer has published yet");
   addFilters(watch);

   auto* validate = app.add_subcommand("validate", "deep check of the files of TABLE");
   validate->add_option("TABLE", table, "mount name of the table")->required();
   validate->add_flag("--json", json, "the verdict and counts as JSON");

   auto* remove =
       app.add_subcommand("remove", "delete the files of TABLE unless a live writer holds it");
   remove->add_option("TABLE", table, "mount name of the table")->required();

   std::string file;
   bool once = false;
   auto* publish = app.add_subcommand(
       "publish", "writer agent for a network description (SIGHUP re-reads it; SIGINT stops)");
   publish->add_option("FILE", file, "network description (JSON)")->required();
   publish->add_flag("--once", once, "exit after publishing, leaving the files");

   const std::string examples = examplesDirectory();
   std::string demoFile = examples + "/network.json";
   std::string demoUpdate = examples + "/network-update.json";
   auto* demo = app.add_subcommand(
       "demo", "a writer and two readers in separate processes on the bundled example network");
   demo->add_option("--file", demoFile, "network description to publish");
   demo->add_option("--update", demoUpdate,
                    "description the writer changes to once readers are in sync");

   bool colored = false;
   std::string endpoint;
   auto* rib = app.add_subcommand("rib", "a tunnel RIB as a reader sees it (a builder writes it)");
   rib->add_flag("--colored", colored, "the colored tunnel RIB");
   rib->add_option("ENDPOINT", endpoint, "only the entries of this endpoint prefix");
   rib->add_flag("--json", json, "machine-readable output, every field a field");
   bool candidates = false;
   rib->add_flag("--candidates", candidates,
                 "every candidate class of each endpoint with its tunnels, the winner marked");
   auto* ribBuilder = app.add_subcommand(
       "rib-builder", "the tunnel RIB builder as an agent: protocol tables in, both RIBs out");
   ribBuilder->add_option("--seconds", seconds, "stop after S seconds");

   auto* fibBuilder = app.add_subcommand(
       "fib-builder", "the tunnel FIB builder as an agent: protocol tables in, the FIB out");
   fibBuilder->add_option("--seconds", seconds, "stop after S seconds");
   auto* resolver = app.add_subcommand(
       "resolver",
       "the re-resolving client as an agent: the FIB in, flattened tunnels kept current");
   resolver->add_option("--seconds", seconds, "stop after S seconds");
   std::string tunnel;
   auto* fib =
       app.add_subcommand("fib", "the tunnel FIB as a reader sees it (fib-builder writes it)");
   fib->add_option("TUNNEL", tunnel, "one tunnel: TABLE:INDEX (ldp:7), TYPE:INDEX or its id value");
   fib->add_flag("--json", json, "machine-readable output");
   std::string encapKind;
   auto* encap = app.add_subcommand("encap", "the tunnel FIB's encapsulations");
   encap->add_option("KIND", encapKind,
                     "labelStack, gre, ipsecGre, ipsecVti or vxlan (default: all)");
   encap->add_flag("--json", json, "machine-readable output");
   auto* resolve = app.add_subcommand(
       "resolve", "a tunnel's chain down to its final next hops, and the flattened result");
   resolve->add_option("TUNNEL", tunnel, "TABLE:INDEX (bgpLu:300), TYPE:INDEX or its id value")
       ->required();
   resolve->add_flag("--json", json, "machine-readable output");

   std::string redistName;
   auto* redist = app.add_subcommand(
       "redist", "the redistribution configurations (a redistributor writes them)");
   redist->add_option("NAME", redistName, "ldp or bgpLu (default: both)");
   redist->add_flag("--json", json, "machine-readable output");
   auto* redistributor = app.add_subcommand(
       "redistributor", "the redistribution agent: LDP and BGP-LU tables in, configurations out");
   redistributor->add_option("--seconds", seconds, "stop after S seconds");

   auto* decap = app.add_subcommand("decap", "the decapsulation configuration (publish writes it)");
   decap->add_flag("--json", json, "machine-readable output");
   auto* nexthopGroup = app.add_subcommand(
       "nexthop-group", "the nexthop-group tunnel configuration (publish writes it)");
   nexthopGroup->add_flag("--json", json, "machine-readable output");

   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      // --help and --version are "errors" that exit 0; every usage mistake exits 2.
      return app.exit(e) == 0 ? 0 : 2;
   }
   try {
      if (*list) return TunnelCtl::runList(std::cout, json);
      if (*show) {
         showOptions.filter = TunnelCtl::entryFilterOf(endpointFilter, nexthopFilter, nameFilter);
         return TunnelCtl::runShow(std::cout, table, showOptions);
      }
      if (*watch) {
         watchOptions.filter = TunnelCtl::entryFilterOf(endpointFilter, nexthopFilter, nameFilter);
         return TunnelCtl::runWatch(std::cout, table, watchOptions);
      }
      if (*validate) return TunnelCtl::runValidate(std::cout, table, json);
      if (*remove) return TunnelCtl::runRemove(std::cout, table);
      if (*publish) return TunnelCtl::runPublish(std::cout, file, once);
      if (*rib) return TunnelCtl::runRib(std::cout, colored, endpoint, json, candidates);
      if (*ribBuilder) return TunnelCtl::runRibBuilder(std::cout, seconds);
      if (*fibBuilder) return TunnelCtl::runFibBuilder(std::cout, seconds);
      if (*resolver) return TunnelCtl::runResolver(std::cout, seconds);
      if (*fib) return TunnelCtl::runFib(std::cout, tunnel, json);
      if (*encap) return TunnelCtl::runEncap(std::cout, encapKind, json);
      if (*resolve) return TunnelCtl::runResolve(std::cout, tunnel, json);
      if (*redist) return TunnelCtl::runRedist(std::cout, redistName, json);
      if (*redistributor) return TunnelCtl::runRedistributor(std::cout, seconds);
      if (*decap) return TunnelCtl::runDecap(std::cout, json);
      if (*nexthopGroup) return TunnelCtl::runNexthopGroup(std::cout, json);
      if (*demo) return TunnelCtl::runDemo(std::cout, demoFile, demoUpdate);
   } catch (const TunnelCtl::UsageError& e) {
      std::cerr << "tunnelctl: " << e.what() << "\n";
      return 2;
   } catch (const std::exception& e) {
      std::cerr << "tunnelctl: " << e.what() << "\n";
      return 1;
   }
   std::cout << app.help();
   return 0;
}
