#pragma once
// The segment feature's command-line side: the show and clear commands the
// switch's CLI sends to the agent, served by asynchronous command reactors.
//
// KivSegmentSecurityCliSm, the root, registers KivSegmentCliCallbackWithFormat
// with the agent's command-request service. The callback reads the request
// text "COMMAND#VRF#SEGMENT" (an empty field means all) and makes one reactor:
//   HardwareSummary        ShowSegmentHardwareSummarySm   builds in pieces,
//                                                         prints in one run
//   HardwareDetail         ShowSegmentHardwareDetailSm    builds and prints in
//                                                         pieces
//   HardwareRoutes         ShowSegmentHardwareRoutesSm    builds and prints in
//                                                         pieces
//   ShowHardwareCounters   ShowSegmentHardwareCountersSm  one run
//   ClearHardwareCounters  ClearSegmentHardwareCountersSm one run, no output
//
// The show commands list VRFs, segments and prefixes in a fixed order, so
// each builds a private sorted snapshot (SortedSegmentRouteInfo) and prints
// from it. A full table is far too much for one run of the reactor thread,
// so both the building and the printing go a piece at a time: before each
// piece the command asks the scheduler (Ruv::taskShouldYield()) and, told to
// give the thread back, pauses (AgentAsyncCommandRequestSm::pauseRun) and
// goes on next run from its bookmark. The pieces: for routes, one hash
// bucket of the records taken into a sorted key set, then one listed segment
// prefix, one batch of FIB routes taken (at most 1,024), or one FIB route
// listed; for detail and summary, one hash bucket of the records, of a
// firewall VRF's configured prefixes or of the id grants; when printing, one
// segment's start or one row; at the end, one snapshot entry dropped (the
// command completes once its snapshot is gone). A pause never changes the
// output: the command prints exactly what it would have printed in one run
// from the same snapshot. (Detail and routes also stop between VRFs when
// their own budget, time or output, is spent, and then print that VRF once
// more on the next run, as they always have; a pause is not a new run for
// that budget.)
//
// What a reader sees when the table changes while a command is between
// runs: the snapshot is taken a piece at a time, each piece as the live
// state is when the build reaches it, and a piece once taken is never
// refreshed. The records are walked bucket by bucket: a record installed or
// removed meanwhile may or may not be listed (a rehash makes the walk start
// over, and for routes a key once taken stays taken). Routes then goes in
// VRF and prefix order through those keys, outermost first: each segment
// prefix still installed when reached is listed under the segment owning its
// record's id, and the FIB routes beneath the outermost one are taken in
// prefix order a batch at a time, each listed under the segment owning the
// id hardware gives it when listed (one no longer in hardware then has no id
// and is left out). Detail and summary list each record as it is when its
// bucket is walked, count a firewall VRF's configured prefixes bucket by
// bucket (starting over if its list rehashes), and list
// the segments with an id as the grants are when walked. VRF and segment
// names and ids are read when printed, as before.
//
// Counters: the firewall's counts are free running, and clear must not touch
// the hardware; the root keeps a baseline tree (snapshot), clear copies the
// live counts into it, and show prints live minus baseline (a live count below
// its baseline, after a hardware reset or wrap, is shown whole).

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>

#include "Agent/AgentCommandRequest.h"
#include "Firewall/Counters.h"
#include "Firewall/HwConfig.h"
#include "Kiv/KivExport.h"
#include "Kiv/KivReactorIs.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "KivSegmentSecurity/KivSegmentRouteHelper.h"
#include "Routing/FibRoute.h"
#include "Routing/L3Status.h"
#include "Routing/RouteReactor.h"
#include "Segment/SegmentId.h"
#include "lumo/Printer.h"

namespace Kiv {

// ---- The sorted snapshot ----

// How a listed prefix exists in hardware.
enum SegmentRouteType : uint32_t {
   routeTypeSegmentOnly = 0,
   routeTypeFibOnly = 1,
   routeTypeSegmentAndFib = 2,
};

KIV_EXPORT Zop::String stringValue(SegmentRouteType t);
KIV_EXPORT Zop::String valueToStrep(SegmentRouteType t);
// Parses a member name; an unknown name raises Zop::RangeError.
KIV_EXPORT SegmentRouteType segmentRouteTypeValue(std::string_view name);
KIV_EXPORT std::ostream& operator<<(std::ostream& os, SegmentRouteType t);
// "S", "F" or "S,F".
KIV_EXPORT const char* segmentRouteTypeLetter(SegmentRouteType t);

class KIV_EXPORT SortedPrefixInfo {
public:
   SortedPrefixInfo() = default;
   SortedPrefixInfo(const VrfAndIpGenPrefix& vrfPrefix, SegmentRouteType routeType)
       : vrfPrefix_(vrfPrefix), routeType_(routeType) {}
   explicit SortedPrefixInfo(Zop::TextCursor& c);

   const VrfAndIpGenPrefix& vrfPrefix() const { return vrfPrefix_; }
   SegmentRouteType routeType() const { return routeType_; }

   bool operator==(const SortedPrefixInfo& o) const = default;
   // vrfPrefix first, then the smaller route type.
   bool operator<(const SortedPrefixInfo& o) const;

private:
   VrfAndIpGenPrefix vrfPrefix_;
   SegmentRouteType routeType_ = routeTypeSegmentOnly;
};

// "Value('Kiv::SortedPrefixInfo', ** {'vrfPrefix': %s, 'routeType': %s})"
KIV_EXPORT Zop::String valueToStrep(const SortedPrefixInfo& v);
KIV_EXPORT std::ostream& operator<<(std::ostream& os, const SortedPrefixInfo& v);

// One segment of one VRF.
class KIV_EXPORT SortedSegmentPrefix : public Zop::PtrInterface {
public:
   explicit SortedSegmentPrefix(Zop::String segmentName) : segmentName_(std::move(segmentName)) {}
   const Zop::String& segmentName() const { return segmentName_; }

   uint32_t configuredPrefix() const { return configuredPrefix_; }
   void configuredPrefixIs(uint32_t n) { configuredPrefix_ = n; }
   uint32_t configuredPrefixInc(uint32_t n) { return configuredPrefix_ += n; }

   // The prefixes programmed for this segment, in SortedPrefixInfo order.
   const std::map<SortedPrefixInfo, bool>& programmedPrefix() const { return programmedPrefix_; }
   void programmedPrefixIs(const SortedPrefixInfo& info, bool v) { programmedPrefix_[info] = v; }
   void programmedPrefixDel(const SortedPrefixInfo& info) { programmedPrefix_.erase(info); }
   void programmedPrefixDelFirst() { programmedPrefix_.erase(programmedPrefix_.begin()); }
   void programmedPrefixDelAll() { programmedPrefix_.clear(); }

private:
   const Zop::String segmentName_;
   uint32_t configuredPrefix_ = 0;
   std::map<SortedPrefixInfo, bool> programmedPrefix_;
};

// One VRF: its segments in name order.
class KIV_EXPORT SortedVrfRouteInfo : public Zop::PtrInterface {
public:
   explicit SortedVrfRouteInfo(VrfId vrfId) : vrfId_(vrfId) {}
   VrfId vrfId() const { return vrfId_; }

   const std::map<Zop::String, Zop::Ptr<SortedSegmentPrefix>>& sortedPrefix() const {
      return sortedPrefix_;
   }
   Zop::Ptr<SortedSegmentPrefix> sortedPrefix(const Zop::String& segmentName) const;
   void sortedPrefixIs(const Zop::Ptr<SortedSegmentPrefix>& s) {
      sortedPrefix_[s->segmentName()] = s;
   }
   void sortedPrefixDel(const Zop::String& segmentName) { sortedPrefix_.erase(segmentName); }

private:
   const VrfId vrfId_;
   std::map<Zop::String, Zop::Ptr<SortedSegmentPrefix>> sortedPrefix_;
};

// The whole snapshot: VRFs in ascending id.
class KIV_EXPORT SortedSegmentRouteInfo : public Zop::PtrInterface {
public:
   const std::map<VrfId, Zop::Ptr<SortedVrfRouteInfo>>& sortedVrf() const { return sortedVrf_; }
   Zop::Ptr<SortedVrfRouteInfo> sortedVrf(VrfId vrfId) const;
   void sortedVrfIs(const Zop::Ptr<SortedVrfRouteInfo>& v) { sortedVrf_[v->vrfId()] = v; }
   void sortedVrfDel(VrfId vrfId) { sortedVrf_.erase(vrfId); }

private:
   std::map<VrfId, Zop::Ptr<SortedVrfRouteInfo>> sortedVrf_;
};

KIV_EXPORT Zop::Ptr<SortedSegmentRouteInfo> sortedSegmentRouteInfoFactory();
KIV_EXPORT Zop::Ptr<SortedVrfRouteInfo> sortedVrfRouteInfoFactory(VrfId vrfId);
KIV_EXPORT Zop::Ptr<SortedSegmentPrefix> sortedSegmentPrefixFactory(const Zop::String& segmentName);

// The list that routes of the segment with `hwId` go into (created empty when
// absent); null when no segment owns the id. The VRF must be in `sorted`.
KIV_EXPORT Zop::Ptr<SortedSegmentPrefix> getSortedPrefixListForSegment(
    const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, VrfId vrfId, SegmentHwId hwId);

// Fills an empty snapshot for the summary and detail commands: programmed
// prefixes, configured prefix counts, and every segment that has an id.
KIV_EXPORT void getSortedSegmentPrefixInfo(const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                           const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                           const Zop::Ptr<const L3Status>& l3Status,
                                           const Zop::Ptr<const Firewall::HwConfig>& fwConfig);

// ---- Text and structured printers ----

KIV_EXPORT void showSegmentHardwareRouteLegend(lumo::Printer& printer);
KIV_EXPORT void showSegmentHardwareSummaryHeader(lumo::Printer& printer,
                                                 const Zop::String& vrfName);
KIV_EXPORT void showSegmentHardwareDetailHeader(lumo::Printer& printer, const Zop::String& vrfName);
KIV_EXPORT void showSegmentHardwareRoutesHeader(lumo::Printer& printer, const Zop::String& vrfName);

KIV_EXPORT void showSegmentHardwareSummary(lumo::Printer& printer, VrfId vrfId,
                                           const Zop::String& segmentName,
                                           const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                           const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                                           const Zop::Ptr<const L3Status>& l3Status);
KIV_EXPORT void showSegmentHardwareDetail(lumo::Printer& printer, VrfId vrfId,
                                          const Zop::String& segmentName,
                                          const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                          const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                          const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                          const Zop::Ptr<const L3Status>& l3Status);
KIV_EXPORT void showSegmentHardwareRoutes(lumo::Printer& printer, VrfId vrfId,
                                          const Zop::String& segmentName,
                                          const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                          const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                          const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                          const Zop::Ptr<const L3Status>& l3Status);
KIV_EXPORT void showVrfHardwareSummary(lumo::Printer& printer, VrfId vrfId,
                                       const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                       const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                       const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                                       const Zop::Ptr<const L3Status>& l3Status);
KIV_EXPORT void showVrfHardwareDetail(lumo::Printer& printer, VrfId vrfId,
                                      const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                      const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                      const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                      const Zop::Ptr<const L3Status>& l3Status);
KIV_EXPORT void showVrfHardwareRoutes(lumo::Printer& printer, VrfId vrfId,
                                      const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                      const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                      const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                      const Zop::Ptr<const L3Status>& l3Status);

// ---- Counters ----

// Trims the snapshot to what the live tree still holds; with `reset`, also
// makes its counts equal to the live ones. Never adds entries.
KIV_EXPORT void reconcileSnapshotCounters(const Zop::Ptr<const Firewall::Counters>& fwCounters,
                                          const Zop::Ptr<Firewall::Counters>& snapshot, bool reset);
// One VRF of a counters tree; the policy of a (destination, source) pair is
// the one `fwConfig` applies ("n/a" when none).
KIV_EXPORT void showVrfHardwareCounters(lumo::Printer& printer, const L3::VrfName& vrfName,
                                        const Zop::Ptr<const Firewall::Counters>& counters,
                                        const Zop::Ptr<const Firewall::HwConfig>& fwConfig);

// ---- Command reactors ----

using AsyncCommandSm = Agent::AgentAsyncCommandRequestSm;

// The resumable pieces, defined with the reactors.
struct SortedPrefixInfoBuild;
struct SortedRoutesBuild;
struct ShowWalkState;

// What the summary and detail commands read: the installed routes, the ids,
// the VRF names and the configuration, for one VRF or all, one segment or all.
class KIV_EXPORT ShowSegmentPrefixInfoSm : public AsyncCommandSm {
public:
   ShowSegmentPrefixInfoSm(const Zop::String& name,
                           const Zop::Ptr<Agent::AgentCommandRequest>& request, double timeValue,
                           const Zop::Ptr<Zop::Clock>& clock,
                           const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                           const Zop::Ptr<const L3Status>& l3Status,
                           const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                           const Zop::String& vrfName, const Zop::String& segmentName);

   ~ShowSegmentPrefixInfoSm() override;

protected:
   // Builds the snapshot a piece at a time into sortedData_ (a fresh one on
   // the first call); true once it is complete, false when the run paused.
   bool buildSnapshot(const std::function<bool()>& pause);

   Zop::Ptr<const KivSegmentRouteInfoColl> routeInfo_;
   Zop::Ptr<const SegmentIdResponse> hwIdStatus_;
   Zop::Ptr<const L3Status> l3Status_;
   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   Zop::String vrfName_;
   Zop::String segmentName_;
   Zop::Ptr<SortedSegmentRouteInfo> sortedData_;
   std::unique_ptr<SortedPrefixInfoBuild> build_;
   // The listing is out; the snapshot is being dropped a piece at a time (a
   // full table's is a million entries) before the command completes.
   bool dropping_ = false;
};

class KIV_EXPORT ShowSegmentHardwareSummarySm : public ShowSegmentPrefixInfoSm {
public:
   using ShowSegmentPrefixInfoSm::ShowSegmentPrefixInfoSm;
   void handleInitialized() override;
   void handleAsyncCommand() override;
};

// The detail and routes commands: built and printed a piece at a time,
// resumable after a pause or a yield between VRFs.
class KIV_EXPORT ShowSegmentHardwareDetailSm : public ShowSegmentPrefixInfoSm {
public:
   using ShowSegmentPrefixInfoSm::ShowSegmentPrefixInfoSm;
   void handleInitialized() override;
   void handleAsyncCommand() override;

   const Zop::Ptr<SortedSegmentRouteInfo>& sortedData() const { return sortedData_; }
   const Zop::Ptr<SortedVrfRouteInfo>& vrfBookmark() const { return vrfBookmark_; }
   ~ShowSegmentHardwareDetailSm() override;

private:
   Zop::Ptr<SortedVrfRouteInfo> vrfBookmark_;
   std::unique_ptr<ShowWalkState> walk_;
};

class KIV_EXPORT ShowSegmentHardwareRoutesSm : public AsyncCommandSm {
public:
   ShowSegmentHardwareRoutesSm(const Zop::String& name,
                               const Zop::Ptr<Agent::AgentCommandRequest>& request,
                               double timeValue, const Zop::Ptr<Zop::Clock>& clock,
                               const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                               const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                               const Zop::Ptr<const L3Status>& l3Status, const Zop::String& vrfName,
                               const Zop::String& segmentName,
                               const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                               const Zop::Ptr<const RouteReactorStatus>& routeStatus,
                               const Zop::Ptr<const Route6ReactorStatus>& route6Status,
                               const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
                               const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db);
   void handleInitialized() override;
   void handleAsyncCommand() override;
   // Fills an empty snapshot in one go: segment prefixes (S, or S,F when
   // also a FIB route) and the FIB routes inside them (F, or S,F).
   void getSortedRoutes(const Zop::Ptr<SortedSegmentRouteInfo>& sorted);

   const Zop::Ptr<SortedSegmentRouteInfo>& sortedData() const { return sortedData_; }
   const Zop::Ptr<SortedVrfRouteInfo>& vrfBookmark() const { return vrfBookmark_; }
   ~ShowSegmentHardwareRoutesSm() override;

private:
   bool inFib(const VrfAndIpGenPrefix& key) const;
   // One piece of the build at a time, asking `pause` before each; true once
   // `sorted` is complete.
   bool buildSortedRoutes(SortedRoutesBuild& build, const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                          const std::function<bool()>& pause);
   // The next batch of the FIB routes beneath the build's outermost key, as
   // they are now.
   void takeFibRoutes(SortedRoutesBuild& build);
   // One segment prefix, one FIB route into `sorted`, as they are now.
   void addSegmentPrefix(const VrfAndIpGenPrefix& key,
                         const Zop::Ptr<SortedSegmentRouteInfo>& sorted);
   void addFibRoute(const VrfAndIpGenPrefix& route, const Zop::Ptr<SortedSegmentRouteInfo>& sorted);

   Zop::Ptr<const KivSegmentRouteInfoColl> routeInfo_;
   Zop::Ptr<const SegmentIdResponse> hwIdStatus_;
   Zop::Ptr<const L3Status> l3Status_;
   Zop::String vrfName_;
   Zop::String segmentName_;
   Zop::Ptr<KivSegmentRouteHelper> segmentRouteHelper_;
   Zop::Ptr<const RouteReactorStatus> routeStatus_;
   Zop::Ptr<const Route6ReactorStatus> route6Status_;
   Zop::Ptr<const KivVrfFibRouteCollection> vrfFibRouteDb_;
   Zop::Ptr<const KivVrfFibRoute6Collection> vrfFibRoute6Db_;
   Zop::Ptr<SortedSegmentRouteInfo> sortedData_;
   Zop::Ptr<SortedVrfRouteInfo> vrfBookmark_;
   std::unique_ptr<SortedRoutesBuild> build_;
   std::unique_ptr<ShowWalkState> walk_;
   bool dropping_ = false;
};

class KIV_EXPORT ShowSegmentHardwareCountersSm : public AsyncCommandSm {
public:
   ShowSegmentHardwareCountersSm(const Zop::String& name,
                                 const Zop::Ptr<Agent::AgentCommandRequest>& request,
                                 double timeValue, const Zop::Ptr<Zop::Clock>& clock,
                                 const Zop::Ptr<const L3Status>& l3Status,
                                 const Zop::Ptr<const Firewall::Counters>& fwCounters,
                                 const Zop::Ptr<Firewall::Counters>& snapshot,
                                 const Zop::String& vrfName,
                                 const Zop::Ptr<const Firewall::HwConfig>& fwConfig);
   void handleInitialized() override;
   void handleAsyncCommand() override;
   // Fills an empty tree with live minus snapshot, adding to the snapshot
   // (at zero) what only the live tree has.
   void getCountersDelta(const Zop::Ptr<Firewall::Counters>& delta);

private:
   Zop::Ptr<const L3Status> l3Status_;
   Zop::Ptr<const Firewall::Counters> fwCounters_;
   Zop::Ptr<Firewall::Counters> snapshot_;
   Zop::String vrfName_;
   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
};

class KIV_EXPORT ClearSegmentHardwareCountersSm : public AsyncCommandSm {
public:
   ClearSegmentHardwareCountersSm(const Zop::String& name,
                                  const Zop::Ptr<Agent::AgentCommandRequest>& request,
                                  double timeValue, const Zop::Ptr<Zop::Clock>& clock,
                                  const Zop::Ptr<const Firewall::Counters>& fwCounters,
                                  const Zop::Ptr<Firewall::Counters>& snapshot);
   void handleInitialized() override;
   void handleAsyncCommand() override;

private:
   Zop::Ptr<const Firewall::Counters> fwCounters_;
   Zop::Ptr<Firewall::Counters> snapshot_;
};

// ---- The callback and the root ----

class KIV_EXPORT KivSegmentCliCallbackWithFormat : public Agent::AgentCommandCallbackWithFormat {
public:
   KivSegmentCliCallbackWithFormat(const Zop::String& agentName, const Zop::String& callbackName,
                                   const Zop::Ptr<const Firewall::Counters>& fwCounters,
                                   const Zop::Ptr<Firewall::Counters>& snapshot,
                                   const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                   const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                   const Zop::Ptr<const L3Status>& l3Status,
                                   const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                                   const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                                   const Zop::Ptr<const RouteReactorStatus>& routeStatus,
                                   const Zop::Ptr<const Route6ReactorStatus>& route6Status,
                                   const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
                                   const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db,
                                   const Zop::Ptr<Zop::Clock>& clock);

   Zop::Ptr<Agent::AgentAsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
       const Zop::Ptr<Agent::AgentCommandRequest>& request) override;
   void handleCommand(int socket, const Zop::String& command, lumo::Format format) override;

private:
   Zop::Ptr<const Firewall::Counters> fwCounters_;
   Zop::Ptr<Firewall::Counters> snapshot_;
   Zop::Ptr<const KivSegmentRouteInfoColl> routeInfo_;
   Zop::Ptr<const SegmentIdResponse> hwIdStatus_;
   Zop::Ptr<const L3Status> l3Status_;
   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   Zop::Ptr<KivSegmentRouteHelper> segmentRouteHelper_;
   Zop::Ptr<const RouteReactorStatus> routeStatus_;
   Zop::Ptr<const Route6ReactorStatus> route6Status_;
   Zop::Ptr<const KivVrfFibRouteCollection> vrfFibRouteDb_;
   Zop::Ptr<const KivVrfFibRoute6Collection> vrfFibRoute6Db_;
   Zop::Ptr<Zop::Clock> clock_;
};

class KIV_EXPORT KivSegmentSecurityCliSm : public Zop::PtrInterface {
public:
   KivSegmentSecurityCliSm(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
                           const Zop::Ptr<Zop::Dir>& cliRequestDir,
                           const Zop::Ptr<const Firewall::Counters>& fwCounters,
                           const Zop::Ptr<Firewall::Counters>& snapshot,
                           const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                           const Zop::Ptr<const L3Status>& l3Status,
                           const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                           const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                           const Zop::Ptr<const RouteReactorStatus>& routeStatus,
                           const Zop::Ptr<const Route6ReactorStatus>& route6Status,
                           const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
                           const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db);

   // Going live runs handleInitialized once.
   bool initialized() const { return initialized_; }
   void initializedIs(bool v);
   void handleInitialized();

   void cliRequestDirSmIs();
   void cliRequestDirSmDel();
   const Zop::Ptr<Agent::AgentCommandRequestDirSm>& cliRequestDirSm() const {
      return cliRequestDirSm_;
   }
   void cliCallbackWithFormatIs(const Zop::String& agentName, const Zop::String& callbackName);
   void cliCallbackWithFormatDel();
   const Zop::Ptr<KivSegmentCliCallbackWithFormat>& cliCallbackWithFormat() const {
      return cliCallbackWithFormat_;
   }
   void fwConfigDel();

   bool hasNotificationActive() const { return hasNotificationActive_; }
   void hasNotificationActiveIs(bool on);

   void handleFwActive();
   void handleFwDefaultDrop();

protected:
   ~KivSegmentSecurityCliSm() override;

private:
   class FwConfigNotifiee;

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<Zop::Dir> cliRequestDir_;
   Zop::Ptr<const Firewall::Counters> fwCounters_;
   Zop::Ptr<Firewall::Counters> snapshot_;
   Zop::Ptr<const KivSegmentRouteInfoColl> routeInfo_;
   Zop::Ptr<const SegmentIdResponse> hwIdStatus_;
   Zop::Ptr<const L3Status> l3Status_;
   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   Zop::Ptr<KivSegmentRouteHelper> segmentRouteHelper_;
   Zop::Ptr<const RouteReactorStatus> routeStatus_;
   Zop::Ptr<const Route6ReactorStatus> route6Status_;
   Zop::Ptr<const KivVrfFibRouteCollection> vrfFibRouteDb_;
   Zop::Ptr<const KivVrfFibRoute6Collection> vrfFibRoute6Db_;

   bool initialized_ = false;
   bool hasNotificationActive_ = true;
   Zop::Ptr<Agent::AgentCommandRequestDirSm> cliRequestDirSm_;
   Zop::Ptr<KivSegmentCliCallbackWithFormat> cliCallbackWithFormat_;
   std::unique_ptr<FwConfigNotifiee> fwConfigNotifiee_;
};

KIV_EXPORT Zop::Ptr<KivSegmentSecurityCliSm> kivSegmentSecurityCliSmFactory(
    const Zop::Ptr<Ruv::TaskScheduler>& scheduler, const Zop::Ptr<Zop::Dir>& cliRequestDir,
    const Zop::Ptr<const Firewall::Counters>& fwCounters,
    const Zop::Ptr<Firewall::Counters>& snapshot,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<const RouteReactorStatus>& routeStatus,
    const Zop::Ptr<const Route6ReactorStatus>& route6Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db);
// KivSegmentSecurityCliSmIs(holder, the factory's arguments): a new reactor in place of the old.
KIV_REACTOR_IS(KivSegmentSecurityCliSm, kivSegmentSecurityCliSmFactory)

}  // namespace Kiv
