// TunnelRedistConfigSm: what the two redistribution state machines share. Each files every tunnel
// of its input table under the tunnel's end point (tep() of the entry) in a TunnelRedistConfig,
// and moves or removes it when the end point changes or the entry goes; tidToTep remembers the end
// point each tunnel is filed under. The subclasses (BgpLuTunnelRedistConfigSm,
// LdpTunnelRedistConfigSm) give the input table, the add operation, what happens when a tunnel is
// seen again under the same end point, and the exact signatures their traces open with.
//
// The input table is written by another process: the machines run over a key-shadowing reader
// (a plain reader is refused in handleInitialized), whose per-key notifications, including those of
// a resynchronization after a writer restart, reach handleTunnelEntry(tunnelId).
//
// Traces: level 8 of the module "TunnelRedist", each line opening with the full signature of the
// function that writes it. One thread, the agent's event loop; notifications arrive one at a time.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "Spoor/Trace.h"
#include "TunnelRedist/TunnelRedistConfig.h"
#include "Vela/Ptr.h"

namespace Tunnel::TunnelRedist {

// The trace handle of the redistribution machines (module "TunnelRedist").
Spoor::Handle& tunnelRedistTrace();

class TunnelRedistConfigSm : public Vela::RefCounted {
  public:
   // The full signatures a machine's traces open with.
   struct Signatures {
      const char* handleInitialized;
      const char* handleTunnelEntryAll;
      const char* handleTunnelEntry;
      const char* handleDelete;
      const char* add;
      const char* del;
   };
   using TidToTepMap = std::unordered_map<TunnelId, TunnelIdToEndPoint>;

   const Vela::Ptr<TunnelRedistConfig>& tunnelRedistConfig() const noexcept { return config_; }
   bool initialized() const noexcept { return initialized_; }

   // Full pass: clears the configuration and files every entry of the table again. tidToTep is
   // kept, so a tunnel already filed under the same end point takes the "seen again" branch.
   void handleTunnelEntry();
   // Per-key reaction to a change of the tunnel's entry.
   void handleTunnelEntry(const TunnelId& tunnelId);
   // The machine's teardown: traces and stops following the table.
   void handleDelete();
   // Takes the tunnel out of the entry of `tep`; the entry goes with its last member.
   void delTunnelRedistConfig(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId);

   const TidToTepMap& tidToTep() const noexcept { return tidToTep_; }
   std::optional<TunnelIdToEndPoint> tidToTep(const TunnelId& tunnelId) const;
   void tidToTepIs(const TunnelIdToEndPoint& v) { tidToTep_.insert_or_assign(v.tunnelId(), v); }
   // Removes and returns the record; the default one when there was none.
   TunnelIdToEndPoint tidToTepDel(const TunnelId& tunnelId);
   void tidToTepDelAll() { tidToTep_.clear(); }

  protected:
   // What a machine reads of a tunnel's entry.
   struct TunnelEnd {
      Wirekit::IpGenPrefix tep;
      uint32_t igpMetric;
   };

   TunnelRedistConfigSm(Vela::Ptr<TunnelRedistConfig> config, const Signatures& signatures);
   ~TunnelRedistConfigSm() override = default;

   // Traces the signature, then runs the full pass; per-key handling starts with it, since the
   // pass files the entries through the per-key handler.
   void initialize();
   // Traces "<add signature> tunnelId:<T> tep:<P>" and files the member.
   void fileMember(const Wirekit::IpGenPrefix& tep, const TunnelInfo& info);

   // The entry of `tunnelId` in the input table; the read's errors pass through.
   virtual std::optional<TunnelEnd> tunnelEnd(const TunnelId& tunnelId) const = 0;
   virtual std::vector<TunnelId> tunnelIds() const = 0;
   // Files the tunnel under `tep` with the machine's add operation.
   virtual void add(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId,
                    uint32_t igpMetric) = 0;
   // The tunnel was seen again under the end point it is filed under.
   virtual void sameEndPoint(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId,
                             uint32_t igpMetric) = 0;
   virtual void stopFollowing() = 0;

   const Signatures& signatures_;

  private:
   Vela::Ptr<TunnelRedistConfig> config_;
   TidToTepMap tidToTep_;
   bool initialized_ = false;
};

}  // namespace Tunnel::TunnelRedist
