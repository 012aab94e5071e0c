#include <gtest/gtest.h>

#include <map>
#include <set>
#include <utility>

#include "TunnelTable/TunnelTableIdentifier.h"
#include "TunnelTable/TunnelType.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

struct TypeRow {
   uint32_t code;
   const char* name;
   unsigned defaultPref;
};

// The contract table: every valid code, its enumerator and its default entry preference.
constexpr TypeRow kRows[] = {
    {0, "reservedTunnel0", 255},
    {1, "bgpLuPushTunnel", 255},
    {2, "bgpLuTunnel", 85},
    {3, "ldpTunnel", 55},
    {4, "reservedTunnel4", 255},
    {5, "staticTunnel", 15},
    {6, "evpnVxlanTunnel", 255},
    {7, "isisSrTunnel", 65},
    {8, "srTeSegmentListTunnel", 255},
    {9, "staticInterfaceTunnel", 255},
    {10, "reservedTunnel10", 255},
    {11, "nexthopGroupTunnel", 25},
    {12, "tiLfaTunnel", 255},
    {13, "ospfSrTunnel", 60},
    {14, "srTePolicyTunnel", 255},
    {15, "reservedTunnel15", 255},
    {16, "rsvpLerTunnel", 45},
    {17, "rsvpFrrTunnel", 255},
    {18, "nimboSdkSbfdTunnel", 255},
    {19, "reservedTunnel19", 255},
    {20, "rsvpLerSubTunnel", 255},
    {21, "isisFlexAlgoTunnel", 65},
    {22, "mldpTunnel", 255},
    {31, "reservedTunnel31", 255},
};

TEST(TunnelTypeTest, CodesNamesAndDefaultPreferencesAreExactlyTheTable) {
   for (const TypeRow& row : kRows) {
      const TunnelType type(static_cast<TunnelType>(row.code));
      EXPECT_TRUE(isValidTunnelTypeCode(row.code));
      EXPECT_EQ(tunnelTypeName(type), row.name) << row.code;
      EXPECT_EQ(valueToStrep(type), row.name);
      EXPECT_EQ(getDefaultPrefForType(type).value(), row.defaultPref) << row.name;
   }
   for (uint32_t code = 23; code <= 30; ++code) EXPECT_FALSE(isValidTunnelTypeCode(code));
   EXPECT_EQ(tunnelTypeCode(staticInterfaceTunnel_), 9u);
   EXPECT_EQ(tunnelTypeCode(isisFlexAlgoTunnel_), 21u);
}

TEST(TunnelTypeTest, UnknownTypeEndsTheProcessWithItsAssertion) {
   EXPECT_DEATH(getDefaultPrefForType(TunnelType(23)),
                "^assertion failed: 0 && \"Unknown tunnel type\" "
                "\\(Tunnel/TunnelTableVaultTypes:66\\)");
}

TEST(TunnelTypeTest, DisplayTextsAreUniquePerCodeAndParseBack) {
   std::map<Vela::String, uint32_t> owner;
   for (const TypeRow& row : kRows) {
      const TunnelType type(static_cast<TunnelType>(row.code));
      for (const Vela::String& text : {Vela::String(row.name), tunnelTypeToCliStrep(type, false),
                                       tunnelTypeToCliStrep(type, true)}) {
         const auto [it, inserted] = owner.emplace(text, row.code);
         EXPECT_TRUE(inserted || it->second == row.code) << "'" << text << "' names two codes";
         EXPECT_EQ(tunnelTypeFromString(text), type) << text;
         EXPECT_EQ(tunnelTypeFromString(text.begin(), text.end()), type);
      }
   }
   EXPECT_EQ(tunnelTypeToCliStrep(TunnelType::ldpTunnel, false), "LDP");
   EXPECT_EQ(tunnelTypeToCliStrep(TunnelType::ldpTunnel, true), "LDP tunnel");
   EXPECT_EQ(tunnelTypeToCliStrep(TunnelType(25), false), "invalid(25)");
   EXPECT_EQ(Testing::errorText<Vela::ParseException>([] { tunnelTypeFromString("invalid(25)"); }),
             "unknown tunnel type 'invalid(25)'");
   EXPECT_THROW(tunnelTypeFromString("ldp"), Vela::ParseException);
   EXPECT_THROW(tunnelTypeFromString(""), Vela::ParseException);
}

TEST(TunnelTableIdentifierTest, CodesAreTheTableNotTheTunnelTypes) {
   using enum TunnelTableIdentifier;
   const std::pair<TunnelTableIdentifier, int> codes[] = {
       {bgpLuTunnelTable, 1},         {bgpLuPushTunnelTable, 2},     {isisSrTunnelTable, 7},
       {greIntfTunnelTable, 12},      {ipsecVtiIntfTunnelTable, 13}, {ipsecGreIntfTunnelTable, 14},
       {isisFlexAlgoTunnelTable, 19}, {mldpTunnelTable, 20}};
   for (const auto& [id, code] : codes) EXPECT_EQ(static_cast<int>(id), code) << valueToStrep(id);
   EXPECT_FALSE(isValidTunnelTableIdentifier(TunnelTableIdentifier(0)));
   EXPECT_FALSE(isValidTunnelTableIdentifier(TunnelTableIdentifier(21)));
   std::set<Vela::String> names;
   for (int code = 1; code <= 20; ++code) {
      EXPECT_TRUE(isValidTunnelTableIdentifier(TunnelTableIdentifier(code)));
      names.insert(valueToStrep(TunnelTableIdentifier(code)));
   }
   EXPECT_EQ(names.size(), 20u);
   EXPECT_EQ(valueToStrep(TunnelTableIdentifier(10)), "nexthopGroupTunnelTable");
   EXPECT_EQ(valueToStrep(TunnelTableIdentifier(0)), "invalidTunnelTableId");
   EXPECT_EQ(valueToStrep(TunnelTableIdentifier(200)), "invalid(200)");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
