// Utilities and the segment route helper base.

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "KivSegmentSecurity/KivSegmentRouteHelper.h"

using namespace Kiv;

namespace {
VrfAndIpGenPrefix key(uint32_t vrf, const char* p) {
   return VrfAndIpGenPrefix(VrfId(vrf), Zop::strepToValue<Pexo::IpGenPrefix>(p));
}
}  // namespace

TEST(KivUtils, SplitStr) {
   using V = std::vector<Zop::String>;
   EXPECT_EQ(splitStr("a,,b", ","), (V{"a", "", "b"}));
   EXPECT_EQ(splitStr("", ","), (V{""}));
   EXPECT_EQ(splitStr("abc", ","), (V{"abc"}));
   EXPECT_EQ(splitStr("a,", ","), (V{"a", ""}));
   EXPECT_EQ(splitStr(",a", ","), (V{"", "a"}));
   EXPECT_EQ(splitStr("HardwareRoutes#red#web", "#"), (V{"HardwareRoutes", "red", "web"}));
   // A separator of several characters is skipped whole.
   EXPECT_EQ(splitStr("a::b::", "::"), (V{"a", "b", ""}));
   EXPECT_EQ(splitStr("a:::b", "::"), (V{"a", ":b"}));
   EXPECT_EQ(splitStr("ab", ""), (V{"ab"}));
}

TEST(KivUtils, FibRouteLookupIsPerFamilyAndVrf) {
   auto l3 = L3::l3StatusFactory();
   auto adj = Zop::makePtr<AdjEntry>(RouteType::routeTypeForward, 77);
   l3->routeAdjIs(VrfAndPrefix(VrfId(1), Zop::strepToValue<Pexo::Prefix>("10.1.0.0/16")), adj);
   l3->route6AdjIs(VrfAndIp6Prefix(VrfId(1), Zop::strepToValue<Pexo::Ip6Prefix>("2001:db8::/32")),
                   adj);
   EXPECT_EQ(getAdjacencyInfo(key(1, "10.1.0.0/16"), l3), adj);
   EXPECT_EQ(getAdjacencyInfo(key(1, "10.1.0.0/16"), l3)->l2Adj().index(), 77u);
   EXPECT_TRUE(isFibRoute(key(1, "2001:db8::/32"), l3));
   EXPECT_FALSE(isFibRoute(key(2, "10.1.0.0/16"), l3));
   EXPECT_FALSE(isFibRoute(key(1, "10.1.0.0/24"), l3));
   // The same bits in the other family are another route.
   EXPECT_FALSE(isFibRoute(key(1, "::/0"), l3));
   EXPECT_FALSE(isFibRoute(VrfAndIpGenPrefix(VrfId(1), Pexo::IpGenPrefix()), l3));
}

TEST(KivUtils, SegmentRouteInfoLookup) {
   auto coll = kivSegmentRouteInfoCollFactory();
   KivSegmentRouteInfo info(key(3, "10.9.0.0/16"), SegmentHwId(8),
                            RouteInfo(RouteType::routeTypeDrop, 1));
   coll->routeInfoIs(info);
   EXPECT_EQ(getSegmentRouteInfo(VrfId(3), info.vrfPrefix().prefix(), coll), info);
}

TEST(KivUtilsDeathTest, MissingSegmentRouteInfoIsFatal) {
   auto coll = kivSegmentRouteInfoCollFactory();
   EXPECT_DEATH(
       getSegmentRouteInfo(VrfId(3), Zop::strepToValue<Pexo::IpGenPrefix>("10.9.0.0/16"), coll),
       "assertion failed: routeInfoColl->routeInfoHas\\( vrfPrefix \\) && \"RouteInfo "
       "for segment prefix not found\"\n  source: "
       "KivSegmentSecurity/KivSegmentSecurityUtils\n  function: getSegmentRouteInfo");
}

TEST(KivUtilsDeathTest, BaseRouteHelperMustBeOverridden) {
   unsetenv("KIV_NOOP_AGENT");
   KivSegmentRouteHelper helper("base");
   EXPECT_DEATH(helper.getHardwareId(key(1, "10.0.0.0/8")),
                "This function must be implemented by derived class\nassertion failed: 0\n  "
                "source: Kiv/KivBaseHelper\n  function: KivBaseHelper::kivAssert");
   EXPECT_DEATH(helper.updateHardwareId(KivSegmentRouteInfo()),
                "This function must be implemented by derived class");
}

TEST(KivUtils, NoopAgentAnswersWithoutHardware) {
   setenv("KIV_NOOP_AGENT", "", 1);
   KivSegmentRouteHelper helper("noop");
   EXPECT_EQ(helper.getHardwareId(key(1, "10.0.0.0/8")).value(), 65535);
   EXPECT_TRUE(helper.updateHardwareId(KivSegmentRouteInfo()));
   unsetenv("KIV_NOOP_AGENT");
}
