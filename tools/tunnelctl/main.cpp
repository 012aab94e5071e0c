// tunnelctl: how a person sees the tunnel tables of a store root.
#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv) {
   CLI::App app{"tunnelctl: inspect, publish and watch the tunnel tables under a store root"};
   app.set_version_flag("--version", std::string("tunnelctl ") + TUNNEL_VERSION);
   app.require_subcommand(0, 1);
   CLI11_PARSE(app, argc, argv);
   if (app.get_subcommands().empty()) {
      std::cout << app.help();
   }
   return 0;
}
