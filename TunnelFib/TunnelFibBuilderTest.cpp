// The FIB builder and the re-resolving client, with the protocol tables written by other
// processes: shared, counted encapsulations written before their first user and removed after
// their last, a refusal; random churn of RSVP, LDP and BGP labelled-unicast tunnels
// riding on each other (the seed's churn makes loops and breaks them, changes inner labels and
// joins stacks too deep), checked step by step against a brute-force model, with the tables'
// writer killed and replaced midway.
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>

#include "Loom/EventLoop.h"
#include "TunnelFib/TunnelFibBuilder.h"
#include "TunnelFib/TunnelResolutionClient.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vault/MountService.h"
#include "Wirekit/Errors.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelFib {
namespace {

using Testing::runUntil;

using namespace TunnelTable;
using Wirekit::IntfId;
using Wirekit::IpGenAddr;
using Wirekit::MplsLabelOperation;
using Wirekit::UnboundedMplsLabelOperation;

TunnelId tid(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}
IntfId ethernet(uint32_t n) {
   return IntfId::parse("Ethernet" + std::to_string(n));
}
IntfId riding(const TunnelId& inner) {
   return Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(inner.value());
}
UnboundedMplsLabelOperation pushOf(std::vector<uint32_t> labels) {
   return UnboundedMplsLabelOperation::push(std::span<const uint32_t>(labels));
}

// Checks, on every notification of the FIB, that an entry's encapsulations exist when it is
// written and that no entry names an encapsulation when it is removed.
struct OrderChecker : Vela::Entity::Notifiee {
   explicit OrderChecker(TunnelFib& fib) : fib(fib) {}
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == attrFibEntry) {
         const TunnelFibEntry e = fib.entry(*static_cast<const TunnelId*>(key));
         for (const auto* vias : {&e.tunnelVia(), &e.backupTunnelVia()}) {
            for (const TunnelVia& v : *vias) {
               if (v.encapId().encapType() == EncapType::labelStack &&
                   !fib.labelStackEncapHas(v.encapId())) {
                  faults.push_back("entry written before its encapsulation");
               }
            }
         }
      } else if (attr == attrLabelStackEncap) {
         const EncapId id = *static_cast<const EncapId*>(key);
         if (fib.labelStackEncapHas(id)) return;
         for (const TunnelId& k : fib.entryKeys()) {
            const TunnelFibEntry e = fib.entry(k);
            for (const TunnelVia& v : e.tunnelVia()) {
               if (v.encapId() == id) faults.push_back("encapsulation removed while named");
            }
         }
      }
   }
   TunnelFib& fib;
   std::vector<std::string> faults;
};

// A tables writer in a child process: `steps` run one by one, each when the parent says go, the
// child answering on `done` after each.
struct ChildWriter {
   using Step = std::function<void(const TunnelTableMounter&)>;
   void start(const std::vector<Step>& steps) {
      done.emplace(), go.emplace();
      pid = Testing::forkChild([this, steps] {
         Loom::EventLoop loop;
         auto service = Vela::makePtr<Vault::MountService>();
         TunnelTableMounter mounter(service, loop);
         for (const Step& step : steps) {
            step(mounter);
            loop.runOnce(std::chrono::milliseconds(0));
            if (!done->send() || !go->receive(std::chrono::minutes(10))) return 3;
         }
         for (;;) loop.runOnce(std::chrono::milliseconds(50));
      });
   }
   bool stepDone() { return done->receive(std::chrono::minutes(10)); }
   void next() { ASSERT_TRUE(go->send()); }
   void kill() {
      ::kill(pid, SIGKILL);
      Testing::waitChild(pid);
   }
   std::optional<Testing::Pipe> done, go;
   pid_t pid = -1;
};

template <class Table>
Vela::Ptr<Table> writerOf(const TunnelTableMounter& m, TunnelTableIdentifier id) {
   return Vela::dynamicPtrCast<Table>(m.mountWriter(id));
}

constexpr int kRsvp = 4, kLdp = 8, kBgp = 6;
const TunnelId kDeep = tid(TunnelType::bgpLuTunnel, kBgp + 1);

// What one tunnel is: the tunnel (or none) its single via rides on, and the labels it pushes.
struct Spec {
   TunnelId inner;     // default: a final via
   uint32_t link = 0;  // a final via's: to 10.0.0.<link> on Ethernet<link>
   std::vector<uint32_t> labels;
};
using Model = std::map<TunnelId, Spec>;

// One change: a tunnel written with `spec`, or removed.
struct Op {
   TunnelId id;
   std::optional<Spec> spec;
};

std::vector<std::vector<Op>> churn(uint32_t seed, int steps) {
   std::mt19937 rng(seed);
   std::vector<std::vector<Op>> out(steps);
   for (auto& step : out) {
      for (int i = 0; i < 4; ++i) {
         const int kind = int(rng() % 3);
         Op op;
         Spec s;
         if (kind == 0) {
            op.id = tid(TunnelType::rsvpFrrTunnel, 1 + rng() % kRsvp);
            s.link = 1 + rng() % 4;
            s.labels = {1000 + uint32_t(rng() % 8)};
         } else if (kind == 1) {
            op.id = tid(TunnelType::ldpTunnel, 1 + rng() % kLdp);
            if (rng() % 5 != 0) s.inner = tid(TunnelType::rsvpFrrTunnel, 1 + rng() % kRsvp);
            s.link = 1 + rng() % 4;
            s.labels = {2000 + uint32_t(rng() % 8)};
         } else {
            op.id = tid(TunnelType::bgpLuTunnel, 1 + rng() % kBgp);
            s.inner = rng() % 10 < 5 ? tid(TunnelType::ldpTunnel, 1 + rng() % kLdp)
                                     : tid(TunnelType::bgpLuTunnel, 1 + rng() % kBgp);
            // Now and then a stack that overflows once joined with the ones below.
            s.labels.assign(rng() % 20 == 0 ? 10 : 1 + rng() % 2, 3000 + uint32_t(rng() % 8));
         }
         if (rng() % 6 != 0) op.spec = s;
         step.push_back(op);
      }
   }
   return out;
}

void applyTo(Model& model, const std::vector<Op>& step) {
   for (const Op& op : step) {
      if (op.spec) {
         model[op.id] = *op.spec;
      } else {
         model.erase(op.id);
      }
   }
}

// The single via of a tunnel of `s`: final, or riding on its inner tunnel.
MplsVia viaOf(const Spec& s) {
   const bool final = s.inner == TunnelId();
   return MplsVia(final ? IpGenAddr::ipv4(0x0A000000 + s.link) : IpGenAddr(),
                  final ? ethernet(s.link) : riding(s.inner), MplsLabelOperation::push(s.labels));
}

// Writes `op` into the table of `Table`, the entry made by `make`.
template <class Table, class Make>
void put(const TunnelTableMounter& m, TunnelTableIdentifier table, const Op& op, Make make) {
   auto t = writerOf<Table>(m, table);
   op.spec ? t->entryIs(make(*op.spec)) : (void)t->entryDel(op.id);
}

// Writes `op` into its table.
void write(const TunnelTableMounter& m, const Op& op) {
   const TunnelType type = op.id.tunnelType();
   if (type == TunnelType::rsvpFrrTunnel) {
      put<RsvpFrrTunnelTable>(m, TunnelTableIdentifier::rsvpFrrTunnelTable, op, [&](auto& s) {
         RsvpFrrTunnelTableEntry e(op.id);
         e.viaIs(viaOf(s));
         e.isPrimaryViaUsableIs(true);
         return e;
      });
   } else if (type == TunnelType::ldpTunnel) {
      put<LdpTunnelTable>(m, TunnelTableIdentifier::ldpTunnelTable, op, [&](auto& s) {
         LdpTunnelTableEntry e(op.id);
         e.viaIs(0, viaOf(s));
         return e;
      });
   } else {
      put<BgpLuTunnelTable>(m, TunnelTableIdentifier::bgpLuTunnelTable, op, [&](auto& s) {
         BgpLuTunnelTableEntry e(op.id);
         e.viaIs(0, Via::tunnelIdVia(s.inner));
         e.labelsIs(pushOf(s.labels));
         return e;
      });
   }
}

// ---- churn against a model ----

// The brute-force resolution of one tunnel: its final vias, nothing (no entry, a loop, an inner
// tunnel with nothing), or an error (its own joined stack is too deep).
struct Resolution {
   enum Kind { nothing, vias, error } kind = nothing;
   std::set<MplsVia> set;
};
Resolution resolve(const Model& model, const TunnelId& t, std::vector<TunnelId>& path) {
   auto it = model.find(t);
   if (it == model.end() || std::find(path.begin(), path.end(), t) != path.end()) return {};
   const Spec& s = it->second;
   if (s.inner == TunnelId()) return {Resolution::vias, {viaOf(s)}};
   path.push_back(t);
   const Resolution inner = resolve(model, s.inner, path);
   path.pop_back();
   if (inner.kind != Resolution::vias) return {};
   const MplsLabelOperation own = MplsLabelOperation::push(s.labels);
   Resolution out{Resolution::vias, {}};
   try {
      for (const MplsVia& w : inner.set) {
         out.set.insert(MplsVia(w.nextHop(), w.intfId(), own.smush(w.labels())));
      }
   } catch (const Wirekit::LabelStackOverflow&) {
      return {Resolution::error, {}};
   }
   return out;
}

// The first difference between the FIB and client and what the model says, or "".
std::string mismatch(const Model& model, const TunnelFibBuilder& builder,
                     const TunnelResolutionClient& client) {
   const TunnelFib& fib = *builder.tunnelFib();
   if (fib.entryCount() != model.size()) return "entry count " + std::to_string(fib.entryCount());
   std::set<UnboundedMplsLabelOperation> stacks;
   std::map<EncapId, uint32_t> references;  // equal stacks share one encapsulation
   for (const auto& [id, spec] : model) {
      const std::string name = valueToStrep(id);
      const std::optional<TunnelFibEntry> e = fib.entryIf(id);
      if (!e || e->tunnelVia().count() != 1) return name + ": no entry or not one via";
      const TunnelVia& v = e->tunnelVia(0);
      const UnboundedMplsLabelOperation labels = fib.labelStackEncap(v.encapId()).labelStack();
      if (labels != pushOf(spec.labels)) return name + ": labels " + valueToStrep(labels);
      if (spec.inner != TunnelId() && v.intfId() != riding(spec.inner)) return name + ": inner";
      stacks.insert(labels);
      ++references[v.encapId()];
      std::vector<TunnelId> path;
      const Resolution want = resolve(model, id, path);
      const auto got = client.result(id);
      const bool failed = client.error(id).has_value();
      if (failed != (want.kind == Resolution::error)) return name + ": error differs";
      if (bool(got) != (want.kind == Resolution::vias)) return name + ": result presence";
      if (got && std::set<MplsVia>(got->viaInfo().begin(), got->viaInfo().end()) != want.set)
         return name + ": resolved vias differ";
   }
   if (fib.labelStackEncapCount() != stacks.size() || references.size() != stacks.size()) {
      return "orphan, missing or unshared label stacks";
   }
   for (const auto& [id, n] : references) {
      if (builder.encapReferences(id) != n) return "references of " + valueToStrep(id);
   }
   return "";
}

TEST(TunnelFibBuilder, ChurnOfTablesInAnotherProcessResolvesAsTheModelSays) {
   Testing::TempRoot root;
   constexpr int kSteps = 40, kKillAfter = 19;
   const auto steps = churn(20261125, kSteps);
   const auto asSteps = [&](int from, int to, const Model* restart) {
      std::vector<ChildWriter::Step> out;
      if (restart) {
         // A new writer clears what the killed one left and writes the state it had reached.
         out.push_back([restart](const TunnelTableMounter& m) {
            writerOf<RsvpFrrTunnelTable>(m, TunnelTableIdentifier::rsvpFrrTunnelTable)
                ->entryDelAll();
            writerOf<LdpTunnelTable>(m, TunnelTableIdentifier::ldpTunnelTable)->entryDelAll();
            writerOf<BgpLuTunnelTable>(m, TunnelTableIdentifier::bgpLuTunnelTable)->entryDelAll();
            for (const auto& [id, spec] : *restart) write(m, Op{id, spec});
            // Too deep a stack for an encapsulation: refused, no entry.
            write(m, Op{kDeep, Spec{tid(TunnelType::ldpTunnel, 1), 0, std::vector(1100, 16u)}});
         });
      }
      for (int i = from; i < to; ++i) {
         out.push_back([&steps, i](const TunnelTableMounter& m) {
            for (const Op& op : steps[size_t(i)]) write(m, op);
         });
      }
      return out;
   };
   ChildWriter child;
   child.start(asSteps(0, kKillAfter, nullptr));

   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter(service, loop);
   TunnelFibBuilder builder(mounter);
   TunnelResolutionClient client(builder.tunnelFib(), loop);
   OrderChecker order(*builder.tunnelFib());
   builder.tunnelFib()->notifieeAdd(&order);

   Model model;
   for (int i = 0; i < kSteps; ++i) {
      SCOPED_TRACE("step " + std::to_string(i));
      if (i == kKillAfter) {
         child.kill();
         child.start(asSteps(kKillAfter, kSteps, &model));
         ASSERT_TRUE(child.stepDone());  // the restart's own step
         child.next();
      }
      ASSERT_TRUE(child.stepDone());
      applyTo(model, steps[size_t(i)]);
      std::string last;
      runUntil(loop, [&] {
         if (!builder.settled() || client.pending()) return false;
         last = mismatch(model, builder, client);
         return last.empty();
      });
      ASSERT_EQ(last, "");
      if (i == kKillAfter) {
         EXPECT_EQ(
             builder.refused(),
             (std::map<TunnelId, std::string>{{kDeep,
                                               "a label stack of 1100 labels, deeper than the "
                                               "1024 a label stack encapsulation holds"}}));
      }
      if (i + 1 < kSteps) child.next();
   }
   EXPECT_EQ(order.faults, std::vector<std::string>());
   builder.tunnelFib()->notifieeDel(&order);
   child.kill();
}

}  // namespace
}  // namespace Tunnel::TunnelFib
