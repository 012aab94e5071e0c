// The command-line tunnel RIB tree: get-or-create without a second notification, the
// re-creation error that changes nothing, tunnelIdIs notifying every time, deletion of subtrees
// down to the store's records, the candidates' presentation order (the candidate key's order),
// the type names and the factory by type name; the candidate key's text form and parser errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "Pike/PikeWriter.h"
#include "TunnelRib/TunnelPikeStatus.h"
#include "Vela/Exception.h"
#include "Vela/TypeRegistry.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelTable {
namespace {

struct Counting : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void*) override { ++calls[attr.value]; }
   std::map<uint32_t, int> calls;
};

const ColoredTunnelEndpoint kTep(Wirekit::IpGenPrefix("10.0.0.1/32"), 7);
const InternalTunnelCandidateId kLdp(TunnelType::ldpTunnel, 1, 10);
const TunnelId kTunnel(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 5));

TEST(TunnelPikeStatus, GetOrCreateNotifiesOnceReCreationChangesNothingAndTypeNames) {
   auto status = tunnelPikeStatusFactory("s");
   Counting onStatus;
   status->notifieeAdd(&onStatus);
   auto rib = status->cliTunnelRibCollIs("tunnelRib", TunnelRibId(0));
   EXPECT_EQ(status->cliTunnelRibCollIs("tunnelRib", TunnelRibId(0)), rib);
   EXPECT_EQ(onStatus.calls[attrCliTunnelRibColl.value], 1);

   EXPECT_EQ(Testing::errorText<Vela::RecreationException>(
                 [&] { status->cliTunnelRibCollIs("coloredTunnelRib", TunnelRibId(0)); }),
             "InternalCliTunnelRib Value('Tunnel::TunnelTable::TunnelRibId', ** {'value': 0}) "
             "exists as 'tunnelRib', cannot re-create it as 'coloredTunnelRib'");
   EXPECT_EQ(status->cliTunnelRibColl(TunnelRibId(0))->name(), "tunnelRib");
   EXPECT_EQ(status->cliTunnelRibColl().size(), 1u);
   EXPECT_EQ(onStatus.calls[attrCliTunnelRibColl.value], 1);

   auto entry = rib->entryIs(kTep);
   EXPECT_EQ(rib->entryIs(kTep), entry);
   auto candidate = entry->candidatesIs(kLdp);
   // tunnelIdIs notifies every time, even with the id already there.
   Counting onCandidate;
   candidate->notifieeAdd(&onCandidate);
   candidate->tunnelIdIs(kTunnel);
   candidate->tunnelIdIs(kTunnel);
   EXPECT_EQ(candidate->tunnelId().size(), 1u);
   EXPECT_EQ(onCandidate.calls[attrTunnelId.value], 2);

   // The type names the tree is stored under, and the names of its nodes.
   EXPECT_EQ(status->fwkType(), "Tunnel::TunnelTable::TunnelPikeStatus");
   EXPECT_EQ(rib->fwkType(), "Tunnel::TunnelTable::InternalCliTunnelRib");
   EXPECT_EQ(entry->fwkType(), "Tunnel::TunnelTable::InternalCliTunnelRibEntry");
   EXPECT_EQ(candidate->fwkType(), "Tunnel::TunnelTable::InternalCliTunnelRibCandidate");
   EXPECT_EQ(candidate->name(), valueToStrep(kLdp));
   EXPECT_EQ(entry->name(), valueToStrep(kTep));
   auto created =
       Vela::TypeRegistry::instance().create("Tunnel::TunnelTable::TunnelPikeStatus", "cli");
   ASSERT_NE(Vela::dynamicPtrCast<TunnelPikeStatus>(created), nullptr);
   EXPECT_EQ(created->name(), "cli");
}

// Candidates are presented best first: entryPref, whatever the rest, then the type's default
// preference (RSVP 45 before LDP 55 before IS-IS SR 65, though RSVP's number is the highest), not
// the type number, then entryMetric, then the type number (IS-IS SR 7 before flex-algo 21, which
// share 65). Every pair is compared both ways; each key is equal only to itself.
TEST(TunnelPikeStatus, CandidatesInPresentationOrder) {
   auto entry = Vela::makePtr<InternalCliTunnelRibEntry>(kTep);
   const std::vector<InternalTunnelCandidateId> ordered = {
       {TunnelType::rsvpLerTunnel, 1, 50},     {TunnelType::ldpTunnel, 1, 5},
       {TunnelType::ldpTunnel, 1, 6},          {TunnelType::isisSrTunnel, 1, 3},
       {TunnelType::isisFlexAlgoTunnel, 1, 3}, {TunnelType::rsvpLerTunnel, 2, 0},
   };
   Testing::expectStrictOrder(ordered);
   for (auto it = ordered.rbegin(); it != ordered.rend(); ++it) entry->candidatesIs(*it);
   EXPECT_EQ(entry->candidatesInOrder(), ordered);
   entry->candidatesDel(ordered[2]);
   EXPECT_EQ(entry->candidates().size(), 5u);
   entry->candidatesDelAll();
   EXPECT_EQ(entry->candidates().size(), 0u);
}

// Deleting a RIB mirror removes its whole subtree from the store at the next flush.
TEST(TunnelPikeStatus, DeletionsReachTheStore) {
   Testing::TempRoot root;
   Pike::PikeWriter writer("tunnel/rib/cli/pike");
   Vela::Ptr<TunnelPikeStatus> status;
   {
      Pike::AllocatorScope scope(&writer);
      status = tunnelPikeStatusFactory("tunnelPikeStatus");
   }
   writer.rootIs(*status);
   for (uint32_t r = 0; r < 2; ++r) {
      auto rib = status->cliTunnelRibCollIs("rib" + std::to_string(r), TunnelRibId(r));
      for (uint32_t e = 0; e < 3; ++e) {
         auto entry = rib->entryIs(ColoredTunnelEndpoint(Wirekit::IpGenPrefix("10.0.0.0/24"), e));
         entry->candidatesIs(kLdp)->tunnelIdIs(kTunnel);
      }
   }
   status->handleFlush();
   // root + counter + 2 ribs + 6 entries + 6 candidates + 6 ids
   EXPECT_EQ(writer.map().members(), 22u);
   auto rib0 = status->cliTunnelRibColl(TunnelRibId(0));
   status->cliTunnelRibCollDel(TunnelRibId(0));
   EXPECT_EQ(rib0->entry().size(), 0u);
   EXPECT_EQ(rib0->parent(), nullptr);
   bool flushed = false;
   status->handleFlush([&] { flushed = true; });
   EXPECT_TRUE(flushed);
   EXPECT_EQ(writer.map().members(), 12u);
   // A deleted mirror writes nothing any more.
   rib0->entryIs(kTep);
   status->handleFlush();
   EXPECT_EQ(writer.map().members(), 12u);
   status->cliTunnelRibCollDelAll();
   status->handleFlush();
   EXPECT_EQ(writer.map().members(), 2u);
}

TEST(InternalTunnelCandidateId, TextFormRoundTripsAndNamesTheAttributeThatFails) {
   const InternalTunnelCandidateId id(TunnelType::rsvpLerTunnel, 7, 4000000000u);
   const Vela::String text =
       "Value('Tunnel::TunnelTable::InternalTunnelCandidateId', ** {'tunnelType': rsvpLerTunnel, "
       "'entryPref': 7, 'entryMetric': 4000000000})";
   EXPECT_EQ(valueToStrep(id), text);
   EXPECT_EQ(InternalTunnelCandidateId(text.cbegin(), text.cend()), id);

   const std::pair<const char*, const char*> bad[] = {
       {"{'tunnelType': noSuchTunnel, 'entryPref': 7, 'entryMetric': 1}",
        "cannot read attribute 'tunnelType' of "
        "Tunnel::TunnelTable::InternalTunnelCandidateId: unknown tunnel type 'noSuchTunnel'"},
       {"{'tunnelType': ldpTunnel, 'entryPref': x, 'entryMetric': 1}",
        "cannot read attribute 'entryPref'"},
       {"{'tunnelType': ldpTunnel, 'entryPref': 7, 'entryMetric': -1}",
        "cannot read attribute 'entryMetric'"},
   };
   for (const auto& [fields, attribute] : bad) {
      const Vela::String t =
          Vela::String("Value('Tunnel::TunnelTable::InternalTunnelCandidateId', ** ") + fields +
          ")";
      EXPECT_THAT(Testing::errorText<Vela::Exception>(
                      [&] { InternalTunnelCandidateId(t.cbegin(), t.cend()); }),
                  ::testing::HasSubstr(attribute));
   }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
