#include "sim/HardwareRouteTable.h"

#include <string>

namespace sim {

namespace {

// The adapters only translate the library's calls into table operations;
// they hold the table so that it lives as long as the library uses them.
class RouteAdapter final : public KivHelper::RouteSmHelper {
public:
   explicit RouteAdapter(Zop::Ptr<HardwareRouteTable> table) : table_(std::move(table)) {}
   bool programRoute(const Pexo::Prefix& prefix, VrfId vrfId, const RouteInfo& oldRouteInfo,
                     const RouteInfo& newRouteInfo) override {
      return table_->programRoute({vrfId, Pexo::IpGenPrefix(prefix)}, oldRouteInfo, newRouteInfo);
   }

private:
   Zop::Ptr<HardwareRouteTable> table_;
};

class Route6Adapter final : public KivHelper::Route6SmHelper {
public:
   explicit Route6Adapter(Zop::Ptr<HardwareRouteTable> table) : table_(std::move(table)) {}
   bool programRoute(const Pexo::Ip6Prefix& prefix, VrfId vrfId, const RouteInfo& oldRouteInfo,
                     const RouteInfo& newRouteInfo) override {
      return table_->programRoute({vrfId, Pexo::IpGenPrefix(prefix)}, oldRouteInfo, newRouteInfo);
   }

private:
   Zop::Ptr<HardwareRouteTable> table_;
};

class SegmentRouteAdapter final : public Kiv::KivSegmentRouteHelper {
public:
   explicit SegmentRouteAdapter(Zop::Ptr<HardwareRouteTable> table)
       : KivSegmentRouteHelper("SimHardwareSegmentRouteHelper"), table_(std::move(table)) {}
   SegmentHwId getHardwareId(const VrfAndIpGenPrefix& vrfPrefix) override {
      return table_->hardwareId({vrfPrefix.vrfId(), vrfPrefix.prefix()});
   }
   // The route info the library passes along is what it believes the route
   // carries; the hardware writes only the class id, so it is not needed.
   bool updateHardwareId(const Kiv::KivSegmentRouteInfo& info) override {
      return table_->hardwareIdIs({info.vrfPrefix().vrfId(), info.vrfPrefix().prefix()},
                                  info.hwId());
   }

private:
   Zop::Ptr<HardwareRouteTable> table_;
};

Zop::String routeText(const RouteInfo& r) {
   if (r.empty()) {
      return "nothing";
   }
   return valueToStrep(r.routeType()) + " adj " + std::to_string(r.adjIndex()) +
          (r.flag() ? " flag" : "");
}

}  // namespace

const char* ownerText(HardwareRouteTable::Owner owner) {
   return owner == HardwareRouteTable::Owner::fibRoute ? "FIB route" : "segment route";
}

Zop::String entryText(const RouteInfo& routeInfo, SegmentHwId classId) {
   return routeText(routeInfo) + " id " + std::to_string(classId.value());
}

Zop::String keyText(const HardwareRouteTable::Key& key) {
   return "vrf " + std::to_string(key.vrfId.value()) + " " + valueToStrep(key.prefix);
}

bool HardwareRouteTable::programRoute(const Key& key, const RouteInfo& oldRouteInfo,
                                      const RouteInfo& newRouteInfo) {
   if (refusedByFault(key)) {
      return false;
   }
   auto it = entries_.find(key);
   const RouteInfo held = it == entries_.end() ? RouteInfo() : it->second.routeInfo;
   if (held != oldRouteInfo) {
      ++counters_.oldRouteMismatches;
      logError("programRoute " + keyText(key) + ": caller's old route " + routeText(oldRouteInfo) +
               ", hardware holds " + routeText(held));
   }
   if (newRouteInfo.empty()) {
      if (it == entries_.end()) {
         ++counters_.routePrograms;
         return true;
      }
      if (it->second.owner == Owner::fibRoute) {
         ++counters_.fibRouteRemovals;
         logError("programRoute " + keyText(key) + ": asked to remove the FIB route's entry");
         return false;
      }
      if (dataplane_ && !dataplane_->entryDel(key)) {
         ++counters_.refusals;
         return false;
      }
      entries_.erase(it);
      ++counters_.routePrograms;
      checkRoom();
      return true;
   }
   if (it == entries_.end()) {
      if (capacity_ && entries_.size() >= *capacity_) {
         ++counters_.refusals;
         resourceFullIs(true);
         return false;
      }
      const Entry entry{newRouteInfo, SegmentHwId(0), Owner::segmentRoute};
      if (dataplane_ && !dataplane_->entryIs(key, entry)) {
         ++counters_.refusals;
         return false;
      }
      entries_.emplace(key, entry);
      ++counters_.routePrograms;
      return true;
   }
   if (dataplane_ &&
       !dataplane_->entryIs(key, Entry{newRouteInfo, it->second.classId, it->second.owner})) {
      ++counters_.refusals;
      return false;
   }
   if (it->second.owner == Owner::fibRoute && it->second.routeInfo != newRouteInfo) {
      ++counters_.fibRouteOverwrites;
      logError("programRoute " + keyText(key) + ": FIB route's " + routeText(it->second.routeInfo) +
               " overwritten with " + routeText(newRouteInfo));
   }
   it->second.routeInfo = newRouteInfo;
   ++counters_.routePrograms;
   return true;
}

SegmentHwId HardwareRouteTable::hardwareId(const Key& key) const {
   if (dataplane_) {
      return dataplane_->classId(key).value_or(SegmentHwId(SegmentHwId::kInvalid));
   }
   auto it = entries_.find(key);
   return it != entries_.end() ? it->second.classId : SegmentHwId(SegmentHwId::kInvalid);
}

bool HardwareRouteTable::hardwareIdIs(const Key& key, SegmentHwId id) {
   if (refusedByFault(key)) {
      return false;
   }
   auto it = entries_.find(key);
   if (it == entries_.end()) {
      ++counters_.missingEntryWrites;
      logError("updateHardwareId " + keyText(key) + ": no such entry (id " +
               std::to_string(id.value()) + ")");
      return false;
   }
   if (dataplane_ && !dataplane_->entryIs(key, Entry{it->second.routeInfo, id, it->second.owner})) {
      ++counters_.refusals;
      return false;
   }
   it->second.classId = id;
   ++counters_.hwIdWrites;
   return true;
}

Zop::Ptr<KivHelper::RouteSmHelper> HardwareRouteTable::routeSmHelper() {
   return Zop::makePtr<RouteAdapter>(Zop::Ptr<HardwareRouteTable>(this));
}

Zop::Ptr<KivHelper::Route6SmHelper> HardwareRouteTable::route6SmHelper() {
   return Zop::makePtr<Route6Adapter>(Zop::Ptr<HardwareRouteTable>(this));
}

Zop::Ptr<Kiv::KivSegmentRouteHelper> HardwareRouteTable::segmentRouteHelper() {
   return Zop::makePtr<SegmentRouteAdapter>(Zop::Ptr<HardwareRouteTable>(this));
}

void HardwareRouteTable::fibRouteIs(const Key& key, const RouteInfo& routeInfo) {
   auto [it, inserted] =
       entries_.try_emplace(key, Entry{routeInfo, SegmentHwId(0), Owner::fibRoute});
   if (!inserted) {
      it->second.routeInfo = routeInfo;
      it->second.owner = Owner::fibRoute;
   }
   ++counters_.fibWrites;
   // The routing agent's writes are never refused here; one the dataplane
   // refuses is an error of the dataplane's, and check shows the route missing.
   if (dataplane_ && !dataplane_->entryIs(key, it->second)) {
      ++counters_.dataplaneFibRefusals;
      logError("fibRouteIs " + keyText(key) + ": the dataplane refused " +
               entryText(routeInfo, it->second.classId));
   }
}

bool HardwareRouteTable::fibRouteDel(const Key& key) {
   auto it = entries_.find(key);
   if (it == entries_.end() || it->second.owner != Owner::fibRoute) {
      return false;
   }
   if (dataplane_ && !dataplane_->entryDel(key)) {
      ++counters_.dataplaneFibRefusals;
      logError("fibRouteDel " + keyText(key) + ": the dataplane refused the removal");
   }
   entries_.erase(it);
   ++counters_.fibWrites;
   checkRoom();
   return true;
}

const HardwareRouteTable::Entry* HardwareRouteTable::entry(const Key& key) const {
   const auto& all = entries();
   auto it = all.find(key);
   return it == all.end() ? nullptr : &it->second;
}

const std::map<HardwareRouteTable::Key, HardwareRouteTable::Entry>& HardwareRouteTable::entries()
    const {
   if (!dataplane_) {
      return entries_;
   }
   // Replaced only when it changed, so that what an earlier call handed out
   // stays valid while the dataplane holds the same.
   if (auto fresh = dataplane_->entries(); fresh != dataplaneView_) {
      dataplaneView_.swap(fresh);
   }
   return dataplaneView_;
}

void HardwareRouteTable::faultIs(const Key& key, Fault fault) {
   if (fault == Fault::none) {
      faults_.erase(key);
   } else {
      faults_[key] = fault;
   }
}

void HardwareRouteTable::capacityIs(std::optional<size_t> n) {
   capacity_ = n;
   checkRoom();
}

void HardwareRouteTable::resourceFullIs(bool full) {
   if (full == resourceFull_) {
      return;
   }
   resourceFull_ = full;
   if (resourceListener_) {
      resourceListener_(full);
   }
}

void HardwareRouteTable::checkRoom() {
   if (resourceFull_ && (!capacity_ || entries_.size() < *capacity_)) {
      resourceFullIs(false);
   }
}

HardwareRouteTable::Fault HardwareRouteTable::fault(const Key& key) const {
   auto it = faults_.find(key);
   return it == faults_.end() ? Fault::none : it->second;
}

bool HardwareRouteTable::refusedByFault(const Key& key) {
   if (faults_.empty()) {
      return false;
   }
   auto it = faults_.find(key);
   if (it == faults_.end()) {
      return false;
   }
   if (it->second == Fault::once) {
      faults_.erase(it);
   }
   ++counters_.refusals;
   return true;
}

void HardwareRouteTable::logError(const Zop::String& line) {
   if (errorLog_.size() < kErrorLogLimit) {
      errorLog_.push_back(line);
   }
}

}  // namespace sim
