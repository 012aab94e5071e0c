// An outside program built against the installed library: it must find the headers, link both
// shared libraries and run.
#include <Spoor/Trace.h>
#include <Vela/Exception.h>
#include <Vela/Hash.h>

#include <cstdio>

int main() {
   // The published test vector of the one-at-a-time hash: "a" hashes to 0xca2e9442.
   if (Vela::oneAtATime("a", 1) != 0xca2e9442u) return 1;
   auto e = Vela::RangeException::forType("Outside::Index");
   std::printf("outside program ok: %s\n", e.what());
   Spoor::handle("Outside").write(0, "not shown: tracing is off");
   return 0;
}
