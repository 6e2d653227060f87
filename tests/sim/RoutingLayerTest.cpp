// The routing layer's side of the feature's routing handshake and of uRPF,
// seen the way the feature sees it: the order of the flags, what holds when
// the disable count moves, and the VRFs' own flags left alone. And the
// routing status helper's readiness.

#include "sim/RoutingLayer.h"

#include <gtest/gtest.h>

#include <optional>

#include "SimFixture.h"
#include "sim/RoutingStatusHelper.h"

namespace {

using Lines = std::vector<Zop::String>;
constexpr Zop::Time kMs = Zop::kMillisecond;

struct Layer : simtest::Platform {
   Zop::Ptr<sim::MulticastHwStatus> multicast = Zop::makePtr<sim::MulticastHwStatus>();
   Zop::Ptr<SegmentSecurityStatus> status = Zop::makePtr<SegmentSecurityStatus>();
   Zop::Ptr<Ip::Status> ip = Zop::makePtr<Ip::Status>();
   Zop::Ptr<Ip6::Status> ip6 = Zop::makePtr<Ip6::Status>();

   std::optional<sim::RoutingLayer> layer;

   // blue routes IPv4 only, red routes nothing; the layer comes after them
   // and finds them.
   Layer() {
      EXPECT_TRUE(routing.vrfAdd("blue", VrfId(2), true, false).ok());
      EXPECT_TRUE(routing.vrfAdd("red", VrfId(1), false, false).ok());
      settle();
      layer.emplace(scheduler, l3Status, multicast, status, ip, ip6);
   }

   // Stage 1 of the feature's handshake, as the feature writes it.
   void requestDisable() {
      status->segmentSecurityRoutingDisableDoneIs(true);
      status->segmentSecurityRoutingDisableInc();
   }
   Zop::Time now() const { return clock->now(); }
   uint32_t refCnt() const {
      return l3Status->waitForRoutingWrapper()->waitForRoutingDisabledRefCnt();
   }
};

// Writes of the handshake flags, with the virtual time in ms, in order. When
// the disable count moves it also notes whether everything the feature's
// stage 2 waits for is in place then.
class Recorder : public L3Status::Notifiee,
                 public sim::MulticastHwStatus::Notifiee,
                 public L3::WaitForRoutingWrapper::Notifiee,
                 public L3::UrpfRoutingDisableDoneWrapper::Notifiee {
public:
   explicit Recorder(Layer& l) : l_(l) {
      L3Status::Notifiee::notifierIs(l.l3Status);
      sim::MulticastHwStatus::Notifiee::notifierIs(l.multicast);
      L3::WaitForRoutingWrapper::Notifiee::notifierIs(l.l3Status->waitForRoutingWrapper());
      L3::UrpfRoutingDisableDoneWrapper::Notifiee::notifierIs(
          l.l3Status->urpfRoutingDisableDoneWrapper());
   }
   Lines events;

   void handleWaitForRoutingDisabledInVrfs() override {
      note("wait4", l_.l3Status->waitForRoutingDisabledInVrfs());
   }
   void handleWaitForRouting6DisabledInVrfs() override {
      note("wait6", l_.l3Status->waitForRouting6DisabledInVrfs());
   }
   void handleRoutingEnabledInAnyVrf() override {
      note("any4", l_.l3Status->routingEnabledInAnyVrf());
   }
   void handleRouting6EnabledInAnyVrf() override {
      note("any6", l_.l3Status->routing6EnabledInAnyVrf());
   }
   void handleHwRouting() override { note("hwRouting", l_.multicast->hwRouting()); }
   void handleUrpfRoutingDisableDone() override {
      note("urpfDone", l_.l3Status->urpfRoutingDisableDoneWrapper()->urpfRoutingDisableDone());
   }
   void handleWaitForRoutingDisabledRefCnt() override {
      const auto& l3 = *l_.l3Status;
      const bool stage2Ready = !l3.waitForRoutingDisabledInVrfs() &&
                               !l3.waitForRouting6DisabledInVrfs() &&
                               !l3.routingEnabledInAnyVrf() && !l3.routing6EnabledInAnyVrf() &&
                               !l_.multicast->hwRouting() &&
                               !l3.urpfRoutingDisableDoneWrapper()->urpfRoutingDisableDone();
      events.push_back(std::to_string(l_.now() / kMs) + " refCnt " + std::to_string(l_.refCnt()) +
                       (stage2Ready ? " ready" : " NOT READY"));
   }

private:
   void note(const char* what, bool v) {
      events.push_back(std::to_string(l_.now() / kMs) + " " + what + " " + (v ? "1" : "0"));
   }
   Layer& l_;
};

}  // namespace

TEST(SimRoutingLayer, DisablesRoutingOnceAndRestoresItWhenHwRoutingReturns) {
   Layer l;
   ASSERT_EQ(l.l3Status->waitForRoutingWrapper(), l.layer->waitWrapper());
   ASSERT_EQ(l.l3Status->urpfRoutingDisableDoneWrapper(), l.layer->urpfWrapper());
   EXPECT_TRUE(l.l3Status->routingEnabledInAnyVrf());
   EXPECT_FALSE(l.l3Status->routing6EnabledInAnyVrf());
   Recorder r(l);

   l.requestDisable();
   EXPECT_EQ(r.events, Lines()) << "written inside the notification";
   l.settle();
   EXPECT_EQ(r.events, (Lines{"0 wait4 1", "0 wait6 1", "50 any4 0", "50 hwRouting 0", "50 wait4 0",
                              "50 wait6 0", "50 refCnt 1 ready"}));
   EXPECT_TRUE(l.layer->suspended());
   // The VRFs' own flags are not the layer's.
   EXPECT_TRUE(l.l3Status->vrfStatus("blue")->routingEnabled());

   // A VRF that starts routing while routing is suspended changes nothing yet.
   r.events.clear();
   ASSERT_TRUE(l.routing.vrfRoutingIs("red", false, true).ok());
   l.settle();
   EXPECT_EQ(r.events, Lines());

   // Stage 2 turns multicast routing back on: routing returns for both
   // families that some VRF routes.
   l.status->segmentSecurityRoutingDisableDoneIs(false);
   l.multicast->hwRoutingIs(true);
   l.settle();
   EXPECT_EQ(r.events, (Lines{"50 hwRouting 1", "50 any4 1", "50 any6 1"}));
   EXPECT_FALSE(l.layer->suspended());
   EXPECT_TRUE(l.l3Status->vrfStatus("blue")->routingEnabled());
   EXPECT_FALSE(l.l3Status->vrfStatus("red")->routingEnabled());

   // Outside a suspension the flags follow the VRFs.
   r.events.clear();
   ASSERT_TRUE(l.routing.vrfDelete("blue").ok());
   l.settle();
   EXPECT_EQ(r.events, (Lines{"50 any4 0"}));
}

TEST(SimRoutingLayer, OneDisablePerRequestWhateverTheNotificationsAndHold) {
   Layer l;
   Recorder r(l);
   // The flag and the count of one request, then more counts while the
   // disable is in progress: one disable.
   l.requestDisable();
   l.scheduler->runReady();
   EXPECT_TRUE(l.layer->busy());
   l.status->segmentSecurityRoutingDisableInc();
   l.scheduler->runFor(10 * kMs);
   l.status->segmentSecurityRoutingDisableInc();
   // hwRouting written true while busy: the disable still turns it off.
   l.multicast->hwRoutingIs(false);
   l.multicast->hwRoutingIs(true);
   l.settle();
   EXPECT_EQ(l.refCnt(), 1u);
   EXPECT_EQ(l.layer->disablesStarted(), 1u);
   EXPECT_FALSE(l.multicast->hwRouting());
   EXPECT_FALSE(l.l3Status->routingEnabledInAnyVrf());

   // The flag is still true: a new count is a new request (routing is off
   // already, and it is still a full disable).
   r.events.clear();
   l.layer->heldIs(true);
   l.status->segmentSecurityRoutingDisableInc();
   l.settle();
   l.scheduler->runFor(Zop::kSecond);
   EXPECT_TRUE(l.layer->busy()) << "held";
   EXPECT_EQ(r.events, (Lines{"50 wait4 1", "50 wait6 1"}));
   EXPECT_EQ(l.refCnt(), 1u);
   l.layer->heldIs(false);
   l.settle();
   EXPECT_EQ(r.events, (Lines{"50 wait4 1", "50 wait6 1", "1050 wait4 0", "1050 wait6 0",
                              "1050 refCnt 2 ready"}));

   // Flag false and true again without a count: one more.
   l.status->segmentSecurityRoutingDisableDoneIs(false);
   l.status->segmentSecurityRoutingDisableDoneIs(true);
   l.settle();
   EXPECT_EQ(l.refCnt(), 3u);
   // A count with the flag false is no request.
   l.status->segmentSecurityRoutingDisableDoneIs(false);
   l.status->segmentSecurityRoutingDisableInc();
   l.settle();
   EXPECT_EQ(l.refCnt(), 3u);
}

TEST(SimRoutingLayer, UrpfDisablesRoutingForAWhileOnlyWhereRoutingIsOn) {
   Layer l;
   Recorder r(l);
   // Nothing routes IPv6: turning its uRPF on is only configuration.
   l.layer->urpfIs(Pexo::AddressFamily::ipv6, true);
   EXPECT_TRUE(l.ip6->urpfConfigured());
   l.settle();
   EXPECT_EQ(r.events, Lines());

   // IPv4 routes: the flag is up for the uRPF delay (20 ms), and a new
   // uRPF change meanwhile starts it again.
   l.layer->urpfIs(Pexo::AddressFamily::ipv4, true);
   EXPECT_TRUE(l.ip->urpfConfigured());
   l.scheduler->runFor(10 * kMs);
   l.layer->urpfIs(Pexo::AddressFamily::ipv4, false);
   l.layer->urpfIs(Pexo::AddressFamily::ipv4, true);
   l.scheduler->runFor(15 * kMs);
   EXPECT_TRUE(l.layer->urpfWrapper()->urpfRoutingDisableDone());
   l.settle();
   EXPECT_EQ(r.events, (Lines{"0 urpfDone 1", "30 urpfDone 0"}));
   EXPECT_TRUE(l.l3Status->routingEnabledInAnyVrf()) << "uRPF leaves the flags alone";
   EXPECT_EQ(l.layer->urpfDisables(), 2u);

   // With routing suspended by the feature there is nothing to disable.
   l.requestDisable();
   l.settle();
   r.events.clear();
   l.layer->urpfIs(Pexo::AddressFamily::ipv4, false);
   l.layer->urpfIs(Pexo::AddressFamily::ipv4, true);
   l.settle();
   EXPECT_EQ(r.events, Lines());
}

TEST(SimRoutingStatusHelper, AnnouncesEachChangeOfItsAnswer) {
   struct Listener : KivHelper::RoutingStatusSmHelper::Notifiee {
      int heard = 0;
      void handleReady() override { ++heard; }
   } listener;
   auto helper = Zop::makePtr<sim::RoutingStatusHelper>();
   listener.notifierIs(helper);
   EXPECT_TRUE(helper->routingStatusReady(true));
   helper->readyIs(true);
   EXPECT_EQ(listener.heard, 0);
   helper->readyIs(false);
   EXPECT_EQ(listener.heard, 1);
   EXPECT_FALSE(helper->routingStatusReady(true));
   EXPECT_FALSE(helper->routingStatusReady(false));
   helper->readyIs(false);
   helper->readyIs(true);
   EXPECT_EQ(listener.heard, 2);
   EXPECT_EQ(helper->askedEnable(), 2u);
   EXPECT_EQ(helper->askedDisable(), 1u);
}

// Busy on its own: the busy flags follow whichever of the layer's own work
// and the feature's disable ends last.
TEST(SimRoutingLayer, BusyOnItsOwnSetsTheBusyFlagsUntilBothAreDone) {
   Layer l;
   l.layer->ownBusyIs(true);
   EXPECT_TRUE(l.l3Status->waitForRoutingDisabledInVrfs());
   EXPECT_TRUE(l.l3Status->waitForRouting6DisabledInVrfs());
   EXPECT_FALSE(l.layer->suspended());
   // The feature's disable runs meanwhile; the flags stay while the layer is
   // busy on its own.
   l.requestDisable();
   l.settle();
   EXPECT_TRUE(l.layer->suspended());
   EXPECT_EQ(l.refCnt(), 1u);
   EXPECT_TRUE(l.l3Status->waitForRoutingDisabledInVrfs());
   l.layer->ownBusyIs(false);
   EXPECT_FALSE(l.l3Status->waitForRoutingDisabledInVrfs());
   EXPECT_FALSE(l.l3Status->waitForRouting6DisabledInVrfs());
   // And the other way round: its own work ending during the feature's
   // disable leaves the flags to that disable.
   l.status->segmentSecurityRoutingDisableDoneIs(false);
   l.multicast->hwRoutingIs(true);
   l.settle();
   l.requestDisable();
   l.layer->ownBusyIs(true);
   l.scheduler->runReady();
   l.layer->ownBusyIs(false);
   EXPECT_TRUE(l.l3Status->waitForRoutingDisabledInVrfs());
   l.settle();
   EXPECT_FALSE(l.l3Status->waitForRoutingDisabledInVrfs());
   EXPECT_EQ(l.refCnt(), 2u);
}
