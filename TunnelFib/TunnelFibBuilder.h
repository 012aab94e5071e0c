// TunnelFibBuilder: keeps a TunnelFib current from the protocol tunnel tables, which other
// processes write. Any agent can run it on its event loop; `tunnelctl fib-builder` runs it as a
// process of its own.
//
// Selection: every tunnel of every protocol table is selected for forwarding, RIB winner or not.
// A tunnel that loses its endpoint's RIB election may still carry traffic that names it directly
// (a BGP labelled-unicast tunnel riding on one LDP tunnel, a static route over a named tunnel),
// and a winner's inner tunnels must be there for it to resolve; following the RIB would make the
// FIB flap with every election for no gain in size worth the coupling. Interface tables may name
// one tunnel id twice: the table met first (in registry order) wins, the other takes over when it
// goes.
//
// Each tunnel's entry becomes a FibForm (FibForm.h), and the form a TunnelFibEntry whose vias name
// shared encapsulations:
//   - a via with a label stack names the one LabelStackEncap of that stack, shared by every via
//     of every tunnel that pushes the same stack; a via without labels names no encapsulation;
//   - every via of an interface or EVPN tunnel names the tunnel's GRE, IPsec GRE, IPsec VTI or
//     VXLAN encapsulation, shared likewise by equal parameters (VXLAN ones stay in this process).
// The FIB keeps no reference counts: the builder does. It writes an encapsulation before the
// first entry that names it and removes it after the last entry naming it has been rewritten or
// removed, so a reader never meets a name whose encapsulation was never written. Identifiers are
// allocated per kind from 1, freed ones reused first.
//
// Refused: a tunnel with a label stack deeper than a LabelStackEncap record holds, or with more
// vias than an entry holds, gets no FIB entry (an earlier one is removed); refused() names it with
// the reason, and the trace says it at level 1.
//
// Incremental and reconciled as the RIB builder is (TableWatch): changes per event-loop turn,
// an unchanged form writes nothing, and once the readers are ready (at start, after a
// resynchronization) whatever the FIB holds that the builder did not write (an earlier builder's
// entries and encapsulations) is removed or rewritten.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "TunnelFib/FibForm.h"
#include "TunnelFib/TunnelFib.h"
#include "TunnelTable/TableWatch.h"
#include "TunnelTable/TunnelMount.h"

namespace Tunnel::TunnelFib {

class TunnelFibBuilder {
  public:
   struct Counters {
      uint64_t tunnelChanges = 0;  // tunnels whose form changed
      uint64_t entryWrites = 0;
      uint64_t entryDeletes = 0;
      uint64_t encapWrites = 0;
      uint64_t encapDeletes = 0;
      uint64_t reconciles = 0;
   };

   // Mounts the protocol tables (key-shadowing readers) and the FIB (writer) through `mounter`,
   // on its loop. Throws what the mounts throw (a second FIB writer: Region::OwnerError).
   explicit TunnelFibBuilder(const TunnelTable::TunnelTableMounter& mounter);
   // Over tables already mounted (sources as key-shadowing readers, the FIB as writer), all on
   // `loop`. Sources of a kind that holds no unicast tunnels are ignored.
   TunnelFibBuilder(const std::vector<Vela::Ptr<TunnelTable::TunnelTableBase>>& sources,
                    Vela::Ptr<TunnelFib> fib, Loom::EventLoop& loop);
   TunnelFibBuilder(const TunnelFibBuilder&) = delete;
   TunnelFibBuilder& operator=(const TunnelFibBuilder&) = delete;

   const Vela::Ptr<TunnelFib>& tunnelFib() const noexcept { return fib_; }
   size_t sourceCount() const noexcept { return watch_.size(); }
   // True when the readers are ready and everything they said has been applied.
   bool settled() const { return watch_.settled(); }
   const Counters& counters() const noexcept { return counters_; }
   // Tunnels that have no FIB entry because they could not be written, with the reason.
   const std::map<TunnelTable::TunnelId, std::string>& refused() const noexcept { return refused_; }
   // How many vias of written entries name `id` (0 for an identifier not in use).
   uint32_t encapReferences(const EncapId& id) const;

  private:
   // One encapsulation in use: its identifier and the vias naming it.
   struct EncapUse {
      EncapId id;
      uint32_t references = 0;
   };
   // A tunnel as written: its form and one reference per via that names an encapsulation.
   struct Installed {
      FibForm form;
      std::vector<EncapId> encaps;
   };

   void attach(const std::vector<Vela::Ptr<TunnelTable::TunnelTableBase>>& sources);
   void apply(const std::set<TunnelTable::TableWatch::Change>& changes, bool reconcile);
   void install(uint64_t tunnelId);
   void uninstall(uint64_t tunnelId);
   // Why `form` cannot be written, or nothing.
   static std::optional<std::string> refusal(const FibForm& form);
   TunnelFibEntry entryOf(const TunnelTable::TunnelId& key, const FibForm& form,
                          std::vector<EncapId>& encaps);
   EncapId viaEncap(const FormVia& via, const TunnelEncap& tunnelEncap,
                    std::vector<EncapId>& encaps);
   // Takes a reference on the encapsulation with these parameters, writing it when new.
   template <class Encap, class Value>
   EncapId acquire(TunnelTable::EncapType type, const Value& value);
   void release(const EncapId& id);
   void writeEncap(const EncapId& id, const std::string& key);
   void removeEncap(const EncapId& id);
   void reconcile();

   Vela::Ptr<TunnelFib> fib_;
   std::vector<FibFormReader> readers_;
   TunnelTable::TableWatch watch_;

   // Per tunnel, what each source offers (source index -> form); the first one is written.
   std::unordered_map<uint64_t, std::map<uint32_t, FibForm>> offers_;
   std::unordered_map<uint64_t, Installed> installed_;
   // Encapsulations by kind and parameter bytes, and back.
   std::map<std::string, EncapUse> encapsByKey_;
   std::unordered_map<EncapId, std::string> encapKeys_;
   std::map<TunnelTable::EncapType, uint32_t> nextEncapValue_;
   std::map<TunnelTable::EncapType, std::vector<uint32_t>> freeEncapValues_;
   std::map<TunnelTable::TunnelId, std::string> refused_;
   Counters counters_;
};

}  // namespace Tunnel::TunnelFib
