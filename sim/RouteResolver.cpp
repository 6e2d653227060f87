#include "sim/RouteResolver.h"

#include <vector>

#include "Zop/Assert.h"

namespace sim {

namespace {

using Quarn::Fib::GlobalFecId;

// The prefix with only its first `len` bits.
Pexo::IpGenPrefix shortened(const Pexo::IpGenPrefix& p, uint32_t len) {
   if (p.isIpv4()) {
      return Pexo::Prefix(p.v4().addr(), len).masked();
   }
   return Pexo::Ip6Prefix(p.v6().addr(), len).masked();
}

}  // namespace

class RouteResolver::ConfigNotifiee final : public RouteReactorConfig::Notifiee {
public:
   explicit ConfigNotifiee(RouteResolver& r) : r_(r) {}
   void handleWatchedPrefix(const VrfAndPrefix& k) override {
      r_.watchChanged(Key(k.vrfId(), k.prefix()));
   }

private:
   RouteResolver& r_;
};

class RouteResolver::Config6Notifiee final : public Route6ReactorConfig::Notifiee {
public:
   explicit Config6Notifiee(RouteResolver& r) : r_(r) {}
   void handleWatchedPrefix(const VrfAndIp6Prefix& k) override {
      r_.watchChanged(Key(k.vrfId(), k.prefix()));
   }

private:
   RouteResolver& r_;
};

class RouteResolver::FibNotifiee final : public KivVrfFibRouteCollection::Notifiee {
public:
   explicit FibNotifiee(RouteResolver& r) : r_(r) {}
   void handleFibRoute(const VrfAndPrefix& k) override {
      r_.fibChanged(Key(k.vrfId(), k.prefix()));
   }

private:
   RouteResolver& r_;
};

class RouteResolver::Fib6Notifiee final : public KivVrfFibRoute6Collection::Notifiee {
public:
   explicit Fib6Notifiee(RouteResolver& r) : r_(r) {}
   void handleFibRoute(const VrfAndIp6Prefix& k) override {
      r_.fibChanged(Key(k.vrfId(), k.prefix()));
   }

private:
   RouteResolver& r_;
};

class RouteResolver::L3Notifiee final : public L3Status::Notifiee {
public:
   explicit L3Notifiee(RouteResolver& r) : r_(r) {}
   void handleVrfName(const VrfId& id) override { r_.vrfChanged(id); }

private:
   RouteResolver& r_;
};

RouteResolver::RouteResolver(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<L3Status> l3Status,
                             Zop::Ptr<KivVrfFibRouteCollection> fibRoutes,
                             Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6,
                             Zop::Ptr<RouteReactorConfig> routeConfig,
                             Zop::Ptr<Route6ReactorConfig> route6Config,
                             Zop::Ptr<RouteReactorStatus> routeStatus,
                             Zop::Ptr<Route6ReactorStatus> route6Status)
    : scheduler_(std::move(scheduler)),
      l3Status_(std::move(l3Status)),
      fibRoutes_(std::move(fibRoutes)),
      fibRoutes6_(std::move(fibRoutes6)),
      routeConfig_(std::move(routeConfig)),
      route6Config_(std::move(route6Config)),
      routeStatus_(std::move(routeStatus)),
      route6Status_(std::move(route6Status)),
      task_(Ruv::makeTask(scheduler_, "SimRouteResolverTask", [this] { run(); })),
      configNotifiee_(std::make_unique<ConfigNotifiee>(*this)),
      config6Notifiee_(std::make_unique<Config6Notifiee>(*this)),
      fibNotifiee_(std::make_unique<FibNotifiee>(*this)),
      fib6Notifiee_(std::make_unique<Fib6Notifiee>(*this)),
      l3Notifiee_(std::make_unique<L3Notifiee>(*this)) {
   configNotifiee_->notifierIs(routeConfig_);
   l3Notifiee_->notifierIs(l3Status_);
   config6Notifiee_->notifierIs(route6Config_);
   fibNotifiee_->notifierIs(fibRoutes_);
   fib6Notifiee_->notifierIs(fibRoutes6_);
   // Watches made before the resolver started are answered too.
   for (const auto& [k, w] : routeConfig_->watchedPrefix()) {
      watchChanged(Key(k.vrfId(), k.prefix()));
   }
   for (const auto& [k, w] : route6Config_->watchedPrefix()) {
      watchChanged(Key(k.vrfId(), k.prefix()));
   }
}

RouteResolver::~RouteResolver() {
   task_->cancel();
}

void RouteResolver::modeIs(Mode mode) {
   if (mode == mode_) {
      return;
   }
   mode_ = mode;
   forEachWatch([this](const Key& key) { pendingKeys_.insert(key); });
   task_->scheduleTask();
}

void RouteResolver::resolve(VrfId vrf, const Pexo::IpGenPrefix& prefix, uint64_t adjIndex) {
   held_[Key(vrf, prefix)] = adjIndex;
   pendingKeys_.insert(Key(vrf, prefix));
   task_->scheduleTask();
}

void RouteResolver::resolveNone(VrfId vrf, const Pexo::IpGenPrefix& prefix) {
   held_[Key(vrf, prefix)] = std::nullopt;
   pendingKeys_.insert(Key(vrf, prefix));
   task_->scheduleTask();
}

void RouteResolver::resolveDel(VrfId vrf, const Pexo::IpGenPrefix& prefix) {
   held_.erase(Key(vrf, prefix));
   pendingKeys_.insert(Key(vrf, prefix));
   task_->scheduleTask();
}

std::optional<uint64_t> RouteResolver::answerAdjIndex(VrfId vrf,
                                                      const Pexo::IpGenPrefix& prefix) const {
   auto it = published_.find(Key(vrf, prefix));
   if (it == published_.end() || !it->second.fec) {
      return std::nullopt;
   }
   return it->second.fec->second;
}

void RouteResolver::watchChanged(const Key& key) {
   pendingKeys_.insert(key);
   task_->scheduleTask();
}

void RouteResolver::vrfChanged(VrfId id) {
   if (l3Status_->vrfNameHas(id)) {
      // Back (or new): its watched keys are answered with its FIB table.
      forEachWatch([this, id](const Key& key) {
         if (key.vrfId() == id) {
            pendingKeys_.insert(key);
         }
      });
      task_->scheduleTask();
      return;
   }
   // Gone, with its FIB table: its answers go at once, before the VRF can
   // come back under the same id with another table, where the FEC indices
   // they name would mean nothing (or something else).
   std::vector<Key> gone;
   for (const auto& [key, answer] : published_) {
      if (key.vrfId() == id) {
         gone.push_back(key);
      }
   }
   for (const Key& key : gone) {
      withdraw(key);
   }
}

void RouteResolver::fibChanged(const Key& key) {
   if (mode_ != Mode::automatic) {
      return;
   }
   pendingFib_.insert(key);
   task_->scheduleTask();
}

void RouteResolver::run() {
   // A FIB route change at Q matters to the watched prefixes strictly inside
   // Q. Keys sort by VRF, family, address: those prefixes follow Q in the
   // watch set, and the scan ends at the first address beyond Q's range.
   // One FIB change per item (a withdrawn table is a hundred thousand of
   // them), then one key per item, the scheduler asked before each.
   while (!pendingFib_.empty()) {
      if (scheduler_->taskShouldYield()) {
         task_->scheduleTask();
         return;
      }
      const Key fib = *pendingFib_.begin();
      pendingFib_.erase(pendingFib_.begin());
      const Pexo::IpGenPrefix& q = fib.prefix();
      auto scan = [&](const auto& watches, const auto& from) {
         for (auto it = watches.upper_bound(from); it != watches.end(); ++it) {
            const Pexo::IpGenPrefix p(it->first.prefix());
            if (it->first.vrfId() != fib.vrfId() || shortened(p, q.len()) > q) {
               break;
            }
            if (q.contains(p)) {
               pendingKeys_.insert(Key(it->first.vrfId(), p));
            }
         }
      };
      if (q.isIpv4()) {
         scan(routeConfig_->watchedPrefix().members(), VrfAndPrefix(fib.vrfId(), q.v4()));
      } else if (q.isIpv6()) {
         scan(route6Config_->watchedPrefix().members(), VrfAndIp6Prefix(fib.vrfId(), q.v6()));
      }
   }
   while (!pendingKeys_.empty()) {
      if (scheduler_->taskShouldYield()) {
         task_->scheduleTask();
         return;
      }
      const Key key = *pendingKeys_.begin();
      pendingKeys_.erase(key);
      answer(key);
   }
   pendingKeys_.release();
   // Drained (an answer's handlers may note a FIB change, which then waits
   // for the next run in pendingFib_, and keeps the pool).
   if (pendingFib_.empty()) {
      pendingPool_.release();
   }
}

template <class F>
void RouteResolver::forEachWatch(F&& f) const {
   for (const auto& [k, w] : routeConfig_->watchedPrefix()) {
      f(Key(k.vrfId(), k.prefix()));
   }
   for (const auto& [k, w] : route6Config_->watchedPrefix()) {
      f(Key(k.vrfId(), k.prefix()));
   }
}

bool RouteResolver::watched(const Key& key) const {
   const Pexo::IpGenPrefix& p = key.prefix();
   if (p.isIpv4()) {
      return routeConfig_->watchedPrefixHas(VrfAndPrefix(key.vrfId(), p.v4()));
   }
   return p.isIpv6() && route6Config_->watchedPrefixHas(VrfAndIp6Prefix(key.vrfId(), p.v6()));
}

std::optional<std::optional<uint64_t>> RouteResolver::desired(const Key& key) const {
   if (mode_ == Mode::manual) {
      auto it = held_.find(key);
      if (it == held_.end()) {
         return std::nullopt;
      }
      return it->second;
   }
   const Pexo::IpGenPrefix& p = key.prefix();
   if (p.len() == 0 || !p.validAsPrefix()) {
      return std::optional<uint64_t>();
   }
   // The longest FIB route containing P with its last bit dropped is the
   // longest one strictly covering P.
   const Pexo::IpGenPrefix above = shortened(p, p.len() - 1);
   if (p.isIpv4()) {
      const auto trie = routeStatus_->fibTrie(key.vrfId());
      const auto match = trie ? trie->longestMatch(above.v4()) : std::nullopt;
      const RouteInfo* r =
          match ? fibRoutes_->fibRoute(VrfAndPrefix(key.vrfId(), *match)) : nullptr;
      return r ? std::optional<uint64_t>(r->adjIndex()) : std::nullopt;
   }
   const auto trie = route6Status_->fibTrie(key.vrfId());
   const auto match = trie ? trie->longestMatch(above.v6()) : std::nullopt;
   const RouteInfo* r =
       match ? fibRoutes6_->fibRoute(VrfAndIp6Prefix(key.vrfId(), *match)) : nullptr;
   return r ? std::optional<uint64_t>(r->adjIndex()) : std::nullopt;
}

void RouteResolver::answer(const Key& key) {
   if (!watched(key)) {
      withdraw(key);
      return;
   }
   const auto want = desired(key);
   if (!want) {
      withdraw(key);
      return;
   }
   Answer a;
   if (*want) {
      const uint32_t* tableId =
          l3Status_->vrfTableStatus()->fibTableId(l3Status_->vrfName(key.vrfId()));
      if (tableId) {
         a.fec = std::make_pair(*tableId, **want);
      }
   }
   publish(key, a);
}

void RouteResolver::publish(const Key& key, const Answer& answer) {
   Answer next = answer;
   NextHopEntryList list;
   if (next.fec) {
      // The adjacency goes out before the answer that refers to it.
      next.fecIndex = acquireFec(next.fec->first, next.fec->second);
      list.push_back({true, RouteType::routeTypeForward, next.fecIndex});
   }
   const Pexo::IpGenPrefix& p = key.prefix();
   if (p.isIpv4()) {
      routeStatus_->resolvedEntryIs(VrfAndPrefix(key.vrfId(), p.v4()), list);
   } else {
      route6Status_->resolvedEntryIs(VrfAndIp6Prefix(key.vrfId(), p.v6()), list);
   }
   // The FEC the previous answer used goes only after nothing refers to it.
   auto [it, inserted] = published_.try_emplace(key, next);
   if (!inserted) {
      const Answer previous = it->second;
      it->second = next;
      if (previous.fec) {
         releaseFec(*previous.fec);
      }
   }
}

void RouteResolver::withdraw(const Key& key) {
   auto it = published_.find(key);
   if (it == published_.end()) {
      return;
   }
   const Answer previous = it->second;
   published_.erase(it);
   const Pexo::IpGenPrefix& p = key.prefix();
   if (p.isIpv4()) {
      routeStatus_->resolvedEntryDel(VrfAndPrefix(key.vrfId(), p.v4()));
   } else {
      route6Status_->resolvedEntryDel(VrfAndIp6Prefix(key.vrfId(), p.v6()));
   }
   if (previous.fec) {
      releaseFec(*previous.fec);
   }
}

uint16_t RouteResolver::acquireFec(uint32_t tableId, uint64_t adjIndex) {
   auto [it, inserted] = fecs_.try_emplace({tableId, adjIndex});
   if (inserted) {
      FecIndices& indices = fecIndices_[tableId];
      uint16_t index;
      if (!indices.free.empty()) {
         index = *indices.free.begin();
         indices.free.erase(indices.free.begin());
      } else {
         ZOP_ASSERT(indices.next <= 0xffff, "the simulated resolver ran out of FEC indices",
                    "sim/RouteResolver");
         index = uint16_t(indices.next++);
      }
      it->second.index = index;
      l3Status_->adjacencyIs(GlobalFecId(GlobalFecId::kForward, tableId, index),
                             Zop::makePtr<AdjEntry>(RouteType::routeTypeForward, adjIndex));
   }
   ++it->second.users;
   return it->second.index;
}

void RouteResolver::releaseFec(const std::pair<uint32_t, uint64_t>& fec) {
   auto it = fecs_.find(fec);
   ZOP_ASSERT(it != fecs_.end() && it->second.users > 0, "released a FEC nobody holds",
              "sim/RouteResolver");
   if (--it->second.users > 0) {
      return;
   }
   const uint16_t index = it->second.index;
   fecs_.erase(it);
   auto indices = fecIndices_.find(fec.first);
   FecIndices& in = indices->second;
   in.free.insert(index);
   // A table whose FECs all went starts again at 1. Free indices at the top
   // stay in the free set rather than lower `next` one by one: the lowest
   // free index is the same either way, and a release that freed the last
   // of ten thousand such indices trimmed them all in one item (2 ms).
   if (in.free.size() == in.next - 1) {
      fecIndices_.erase(indices);
   }
   l3Status_->adjacencyDel(GlobalFecId(GlobalFecId::kForward, fec.first, index));
}

}  // namespace sim
