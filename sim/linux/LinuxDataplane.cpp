#include "sim/linux/LinuxDataplane.h"

#include "sim/HardwareRouteTable.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

extern char** environ;

namespace sim {

namespace {

constexpr const char* kNetnsDir = "/run/netns/";
constexpr const char* kLink = "kiv0";
constexpr const char* kPeer = "kiv1";
// Next hops: 100.64.0.0/10 for IPv4 (the link's own address at its top),
// fd00:6b69:7600::/64 for IPv6.
constexpr uint32_t kNextHop4Base = 0x64400000u;
constexpr uint64_t kNextHop4Count = (1u << 22) - 2;
constexpr const char* kLinkAddress4 = "100.127.255.254/10";
constexpr uint64_t kNextHop6Hi = 0xfd006b6976000000ull;

// The namespaces this process made, for the exit and signal paths, which may
// run when nothing else can (fixed buffers, no allocation).
constexpr size_t kMaxOwnNetns = 64;
char gOwnNetnsPaths[kMaxOwnNetns][128];

void removeNetnsPath(const char* path) {
   umount2(path, MNT_DETACH);
   unlink(path);
}

void removeOwnNetns() {
   for (auto& path : gOwnNetnsPaths) {
      if (path[0]) {
         removeNetnsPath(path);
         path[0] = '\0';
      }
   }
}

void onSignal(int sig) {
   removeOwnNetns();
   signal(sig, SIG_DFL);
   raise(sig);
}

void cleanUpOnExitAndSignals() {
   static bool installed = false;
   if (installed) {
      return;
   }
   installed = true;
   std::atexit(removeOwnNetns);
   struct sigaction action {};
   action.sa_handler = onSignal;
   sigemptyset(&action.sa_mask);
   for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGABRT}) {
      sigaction(sig, &action, nullptr);
   }
}

// Registers a namespace this process made; false when there is no room left.
bool ownNetnsIs(const std::string& name) {
   cleanUpOnExitAndSignals();
   const std::string path = kNetnsDir + name;
   for (auto& slot : gOwnNetnsPaths) {
      if (!slot[0] && path.size() < sizeof slot) {
         std::memcpy(slot, path.c_str(), path.size() + 1);
         return true;
      }
   }
   return false;
}

// Deletes a namespace this process made, now.
void ownNetnsDel(const std::string& name) {
   const std::string path = kNetnsDir + name;
   for (auto& slot : gOwnNetnsPaths) {
      if (path == slot) {
         slot[0] = '\0';
      }
   }
   removeNetnsPath(path.c_str());
}

// Runs `ip ARGS...`; 0 or the exit status, with what it printed.
int runIp(const std::vector<std::string>& args, std::string* said = nullptr) {
   std::vector<char*> argv;
   std::string ip = "ip";
   argv.push_back(ip.data());
   std::vector<std::string> copy = args;
   for (auto& a : copy) {
      argv.push_back(a.data());
   }
   argv.push_back(nullptr);
   int pipeFds[2];
   if (pipe(pipeFds) != 0) {
      return -1;
   }
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
   posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
   posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
   pid_t pid = 0;
   int rc = posix_spawnp(&pid, "ip", &actions, nullptr, argv.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   ::close(pipeFds[1]);
   std::string text;
   char buf[512];
   ssize_t n;
   while ((n = read(pipeFds[0], buf, sizeof buf)) > 0) {
      text.append(buf, size_t(n));
   }
   ::close(pipeFds[0]);
   if (rc != 0) {
      if (said) {
         *said = std::string("cannot run ip: ") + std::strerror(rc);
      }
      return -1;
   }
   int status = 0;
   while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
   }
   while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
      text.pop_back();
   }
   if (said) {
      *said = text;
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What a command printed, on one line.
std::string oneLine(std::string text) {
   for (size_t i = 0; (i = text.find('\n', i)) != std::string::npos;) {
      text.replace(i, 1, "; ");
   }
   return text;
}

bool reservedTable(uint32_t table) {
   return table == RT_TABLE_UNSPEC || table == RT_TABLE_DEFAULT || table == RT_TABLE_MAIN ||
          table == RT_TABLE_LOCAL;
}

void putAddress(nlmsghdr* nlh, uint16_t type, const Pexo::IpGenPrefix& p) {
   if (p.isIpv4()) {
      mnl_attr_put_u32(nlh, type, htonl(p.v4().addr().value()));
   } else {
      uint8_t bytes[16];
      const auto a = p.v6().addr();
      for (int i = 0; i < 8; ++i) {
         bytes[i] = uint8_t(a.hi() >> (56 - 8 * i));
         bytes[8 + i] = uint8_t(a.lo() >> (56 - 8 * i));
      }
      mnl_attr_put(nlh, type, sizeof bytes, bytes);
   }
}

uint64_t bigEndian64(const uint8_t* b) {
   uint64_t v = 0;
   for (int i = 0; i < 8; ++i) {
      v = (v << 8) | b[i];
   }
   return v;
}

// The destination prefix of a route message (its RTA_DST, absent for a /0).
Pexo::IpGenPrefix routeDestination(const rtmsg* rtm, const nlattr* const* tb) {
   const auto* dst =
       tb[RTA_DST] ? static_cast<const uint8_t*>(mnl_attr_get_payload(tb[RTA_DST])) : nullptr;
   if (rtm->rtm_family == AF_INET) {
      uint32_t a = 0;
      if (dst) {
         std::memcpy(&a, dst, 4);
      }
      return Pexo::IpGenPrefix(Pexo::Prefix(Pexo::IpAddr(ntohl(a)), rtm->rtm_dst_len));
   }
   uint64_t hi = dst ? bigEndian64(dst) : 0, lo = dst ? bigEndian64(dst + 8) : 0;
   return Pexo::IpGenPrefix(Pexo::Ip6Prefix(Pexo::Ip6Addr(hi, lo), rtm->rtm_dst_len));
}

std::string keyLine(const HwKey& key) {
   return "vrf " + std::to_string(key.vrfId.value()) + " " + valueToStrep(key.prefix);
}

rtmsg* routeHeader(nlmsghdr* nlh, uint16_t type, uint16_t flags, uint32_t seq, const HwKey& key) {
   nlh->nlmsg_type = type;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | flags;
   nlh->nlmsg_seq = seq;
   auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
   const uint32_t table = key.vrfId.value();
   rtm->rtm_family = key.prefix.isIpv4() ? AF_INET : AF_INET6;
   rtm->rtm_dst_len = uint8_t(key.prefix.len());
   rtm->rtm_table = table < 256 ? uint8_t(table) : uint8_t(RT_TABLE_UNSPEC);
   mnl_attr_put_u32(nlh, RTA_TABLE, table);
   putAddress(nlh, RTA_DST, key.prefix);
   return rtm;
}

}  // namespace

std::shared_ptr<LinuxDataplane> LinuxDataplane::open(const std::string& netns) {
   if (geteuid() != 0) {
      throw Error("needs root (network namespaces and routing tables)");
   }
   std::shared_ptr<LinuxDataplane> dp(new LinuxDataplane());
   if (netns.empty()) {
      static unsigned opened = 0;
      dp->netns_ =
          "kivsim-" + std::to_string(getpid()) + (opened ? "-" + std::to_string(opened) : "");
      ++opened;
      std::string said;
      if (runIp({"netns", "add", dp->netns_}, &said) != 0) {
         throw Error("cannot create network namespace " + dp->netns_ + ": " + oneLine(said));
      }
      dp->ownNamespace_ = true;
      ownNetnsIs(dp->netns_);
   } else {
      if (netns.find('/') != std::string::npos || netns == "." || netns == "..") {
         throw Error("bad namespace name '" + netns + "'");
      }
      dp->netns_ = netns;
   }
   const std::string path = kNetnsDir + dp->netns_;
   struct stat st {};
   if (stat(path.c_str(), &st) != 0) {
      throw Error("no network namespace '" + dp->netns_ + "' (" + path + ")");
   }
   const std::string n = dp->netns_;
   std::string said;
   if (runIp({"-n", n, "link", "show", kLink}) != 0) {
      if (runIp({"-n", n, "link", "add", kLink, "type", "veth", "peer", "name", kPeer}, &said) !=
          0) {
         throw Error("cannot add the next-hop link in " + n + ": " + oneLine(said));
      }
      dp->ownLink_ = true;
      runIp({"-n", n, "addr", "add", kLinkAddress4, "dev", kLink});
   }
   for (const char* link : {"lo", kLink, kPeer}) {
      if (runIp({"-n", n, "link", "set", link, "up"}, &said) != 0) {
         throw Error("cannot bring " + std::string(link) + " up in " + n + ": " + oneLine(said));
      }
   }
   // The socket is opened by a thread of its own that enters the namespace:
   // a netlink socket stays in the namespace it was made in, and this thread
   // never leaves its own.
   std::string why;
   std::thread opener([&] {
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
         why = "cannot open " + path + ": " + std::strerror(errno);
         return;
      }
      if (setns(fd, CLONE_NEWNET) != 0) {
         why = "cannot enter " + path + ": " + std::strerror(errno);
         ::close(fd);
         return;
      }
      ::close(fd);
      dp->nl_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
      if (!dp->nl_ || mnl_socket_bind(dp->nl_, 0, MNL_SOCKET_AUTOPID) < 0) {
         why = std::string("cannot open a netlink socket: ") + std::strerror(errno);
         return;
      }
      dp->portId_ = mnl_socket_get_portid(dp->nl_);
      dp->linkIndex_ = int(if_nametoindex(kLink));
      if (dp->linkIndex_ == 0) {
         why = std::string("no link ") + kLink + " in " + path;
      }
   });
   opener.join();
   if (!why.empty()) {
      throw Error(why);
   }
   dp->flushOwnRoutes();
   return dp;
}

LinuxDataplane::~LinuxDataplane() {
   close();
}

void LinuxDataplane::close() {
   if (nl_ && !ownNamespace_) {
      flushOwnRoutes();
   }
   if (monitor_) {
      mnl_socket_close(monitor_);
      monitor_ = nullptr;
   }
   if (nl_) {
      mnl_socket_close(nl_);
      nl_ = nullptr;
   }
   if (!ownNamespace_) {
      // A namespace that stays: what was made in it goes.
      if (ownLink_) {
         runIp({"-n", netns_, "link", "del", kLink});
      }
      for (const auto& [name, host] : hosts_) {
         runIp({"-n", netns_, "rule", "del", "iif", host.link});
      }
      if (ruleTable_) {
         runIp({"netns", "exec", netns_, "nft", "delete", "table", "inet", "kiv"});
      }
   }
   // A host's namespace takes its end of the link, and so the link, with it.
   for (const auto& [name, host] : hosts_) {
      ownNetnsDel(host.netns);
   }
   hosts_.clear();
   if (ownNamespace_) {
      ownNetnsDel(netns_);
      ownNamespace_ = false;
   }
}

int LinuxDataplane::transact(void* buffer) {
   auto* nlh = static_cast<nlmsghdr*>(buffer);
   if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0) {
      return -errno;
   }
   char buf[MNL_SOCKET_BUFFER_SIZE];
   for (;;) {
      ssize_t n = mnl_socket_recvfrom(nl_, buf, sizeof buf);
      if (n < 0) {
         return -errno;
      }
      int ret = mnl_cb_run(buf, size_t(n), nlh->nlmsg_seq, portId_, nullptr, nullptr);
      if (ret < 0) {
         return -errno;
      }
      if (ret == MNL_CB_STOP) {
         return 0;
      }
   }
}

void LinuxDataplane::refused(const HwKey& key, const std::string& what, int err) {
   refusals_.push_back(keyLine(key) + ": " + what + ": " + std::strerror(-err));
}

bool LinuxDataplane::entryIs(const HwKey& key, const HwEntry& entry) {
   const uint32_t table = key.vrfId.value();
   const RouteInfo& r = entry.routeInfo;
   const bool drop = r.routeType() == RouteType::routeTypeDrop;
   if (auto f = foreign_.find(key);
       f != foreign_.end() && f->second.skipped.empty() && entry.owner == HwOwner::fibRoute &&
       !r.flag() && r.routeType() == RouteType::routeTypeForward && r.adjIndex() == f->second.adj) {
      // Another program's route: it stays theirs, only its realm is ours.
      // The kernel keeps no realm on IPv6 routes: nothing to write there.
      if (key.prefix.isIpv4() && f->second.realm != entry.classId.value()) {
         if (int err = adoptedWrite(key, entry.classId.value()); err != 0) {
            refused(key, "realm on an adopted route", err);
            return false;
         }
      }
      acked_[key] = entry;
      return true;
   }
   if (reservedTable(table) || r.flag() ||
       !(drop || r.routeType() == RouteType::routeTypeForward) ||
       (!drop && key.prefix.isIpv4() && r.adjIndex() >= kNextHop4Count &&
        !hostAdjLink_.count(r.adjIndex()))) {
      refused(key, "not expressible as a kernel route", -EINVAL);
      return false;
   }
   char buf[MNL_SOCKET_BUFFER_SIZE];
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
   rtmsg* rtm = routeHeader(nlh, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE, ++seq_, key);
   rtm->rtm_protocol = entry.owner == HwOwner::fibRoute ? kProtoFib : kProtoSegment;
   rtm->rtm_scope = RT_SCOPE_UNIVERSE;
   if (drop) {
      rtm->rtm_type = RTN_BLACKHOLE;
   } else if (auto link = hostAdjLink_.find(r.adjIndex()); link != hostAdjLink_.end()) {
      // A host's link: the connected route, out of the link.
      rtm->rtm_type = RTN_UNICAST;
      rtm->rtm_scope = RT_SCOPE_LINK;
      mnl_attr_put_u32(nlh, RTA_OIF, uint32_t(link->second));
   } else {
      rtm->rtm_type = RTN_UNICAST;
      rtm->rtm_flags |= RTNH_F_ONLINK;
      if (key.prefix.isIpv4()) {
         mnl_attr_put_u32(nlh, RTA_GATEWAY, htonl(kNextHop4Base + uint32_t(r.adjIndex())));
      } else {
         putAddress(
             nlh, RTA_GATEWAY,
             Pexo::IpGenPrefix(Pexo::Ip6Prefix(Pexo::Ip6Addr(kNextHop6Hi, r.adjIndex()), 128)));
      }
      mnl_attr_put_u32(nlh, RTA_OIF, uint32_t(linkIndex_));
   }
   if (key.prefix.isIpv4() && entry.classId.value() != 0) {
      mnl_attr_put_u32(nlh, RTA_FLOW, entry.classId.value());
   }
   if (int err = transact(buf); err != 0) {
      refused(key, "route " + entryText(r, entry.classId), err);
      return false;
   }
   if (drop) {
      dropAdj_[{table, rtm->rtm_family}] = r.adjIndex();
   }
   acked_[key] = entry;
   return true;
}

int LinuxDataplane::delRoute(const HwKey& key, uint8_t proto) {
   char buf[MNL_SOCKET_BUFFER_SIZE];
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
   rtmsg* rtm = routeHeader(nlh, RTM_DELROUTE, 0, ++seq_, key);
   rtm->rtm_scope = RT_SCOPE_NOWHERE;
   rtm->rtm_protocol = proto;
   return transact(buf);
}

bool LinuxDataplane::entryDel(const HwKey& key) {
   if (reservedTable(key.vrfId.value())) {
      return true;
   }
   if (auto f = foreign_.find(key); f != foreign_.end()) {
      // Another program's route: our realm goes, the route stays.
      if (key.prefix.isIpv4() && f->second.skipped.empty() && f->second.realm != 0) {
         if (int err = adoptedWrite(key, 0); err != 0) {
            refused(key, "realm removal on an adopted route", err);
            return false;
         }
      }
      acked_.erase(key);
      return true;
   }
   // Only a route of ours: another program's route at the same prefix stays.
   auto acked = acked_.find(key);
   uint8_t proto = 0;
   if (acked != acked_.end()) {
      proto = acked->second.owner == HwOwner::fibRoute ? kProtoFib : kProtoSegment;
   }
   int err = delRoute(key, proto);
   if (err != 0 && err != -ESRCH && err != -ENOENT) {
      refused(key, "route removal", err);
      return false;
   }
   acked_.erase(key);
   return true;
}

std::optional<SegmentHwId> LinuxDataplane::classId(const HwKey& key) {
   auto it = acked_.find(key);
   if (it == acked_.end()) {
      return std::nullopt;
   }
   return it->second.classId;
}

namespace {

struct DumpState {
   int family;
   const std::map<int, uint64_t>* linkHostAdj;
   const std::map<std::pair<uint32_t, int>, uint64_t>* dropAdj;
   const std::map<HwKey, HwEntry>* acked;
   const std::map<HwKey, uint64_t>* adopted;
   std::map<HwKey, HwEntry>* out;
};

int attrCallback(const nlattr* attr, void* data) {
   auto** tb = static_cast<const nlattr**>(data);
   const uint16_t type = mnl_attr_get_type(attr);
   if (type <= RTA_MAX) {
      tb[type] = attr;
   }
   return MNL_CB_OK;
}

int routeCallback(const nlmsghdr* nlh, void* data) {
   auto& s = *static_cast<DumpState*>(data);
   const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
   const bool ours = rtm->rtm_protocol == LinuxDataplane::kProtoFib ||
                     rtm->rtm_protocol == LinuxDataplane::kProtoSegment;
   if (rtm->rtm_family != s.family || (!ours && s.adopted->empty())) {
      return MNL_CB_OK;
   }
   const nlattr* tb[RTA_MAX + 1] = {};
   mnl_attr_parse(nlh, sizeof(*rtm), attrCallback, tb);
   const uint32_t table = tb[RTA_TABLE] ? mnl_attr_get_u32(tb[RTA_TABLE]) : rtm->rtm_table;
   const Pexo::IpGenPrefix prefix = routeDestination(rtm, tb);
   const HwKey key{VrfId(table), prefix};
   HwEntry e;
   e.owner =
       rtm->rtm_protocol == LinuxDataplane::kProtoFib ? HwOwner::fibRoute : HwOwner::segmentRoute;
   auto adopted = ours ? s.adopted->end() : s.adopted->find(key);
   if (!ours && adopted == s.adopted->end()) {
      return MNL_CB_OK;
   }
   if (adopted != s.adopted->end()) {
      // Another program's route that the table placed as a FIB route.
      e.owner = HwOwner::fibRoute;
      e.routeInfo = RouteInfo(RouteType::routeTypeForward, adopted->second);
   } else if (rtm->rtm_type == RTN_BLACKHOLE) {
      auto it = s.dropAdj->find({table, s.family});
      e.routeInfo = RouteInfo(RouteType::routeTypeDrop, it == s.dropAdj->end() ? 0 : it->second);
   } else if (tb[RTA_GATEWAY]) {
      const auto* gw = static_cast<const uint8_t*>(mnl_attr_get_payload(tb[RTA_GATEWAY]));
      uint64_t adj = 0;
      if (s.family == AF_INET) {
         uint32_t a = 0;
         std::memcpy(&a, gw, 4);
         adj = ntohl(a) - kNextHop4Base;
      } else {
         adj = bigEndian64(gw + 8);
      }
      e.routeInfo = RouteInfo(RouteType::routeTypeForward, adj);
   } else if (auto it = tb[RTA_OIF] ? s.linkHostAdj->find(int(mnl_attr_get_u32(tb[RTA_OIF])))
                                    : s.linkHostAdj->end();
              it != s.linkHostAdj->end()) {
      e.routeInfo = RouteInfo(RouteType::routeTypeForward, it->second);
   } else {
      e.routeInfo = RouteInfo(RouteType::routeTypeInvalid, 0);
   }
   if (s.family == AF_INET) {
      e.classId = SegmentHwId(tb[RTA_FLOW] ? mnl_attr_get_u32(tb[RTA_FLOW]) & 0xFFFF : 0);
   } else {
      auto it = s.acked->find(key);
      e.classId = it == s.acked->end() ? SegmentHwId(0) : it->second.classId;
   }
   (*s.out)[key] = e;
   return MNL_CB_OK;
}

}  // namespace

bool LinuxDataplane::requestRouteDump(int family) {
   char buf[MNL_SOCKET_BUFFER_SIZE];
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
   nlh->nlmsg_type = RTM_GETROUTE;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   nlh->nlmsg_seq = ++seq_;
   auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
   rtm->rtm_family = uint8_t(family);
   return mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) >= 0;
}

void LinuxDataplane::dumpFamily(int family, std::map<HwKey, HwEntry>& out) {
   if (!requestRouteDump(family)) {
      return;
   }
   // Adopted routes the table placed (an entry acknowledged) are listed too.
   std::map<HwKey, uint64_t> adopted;
   for (const auto& [key, f] : foreign_) {
      if (f.skipped.empty() && acked_.count(key)) {
         adopted[key] = f.adj;
      }
   }
   DumpState state{family, &linkHostAdj_, &dropAdj_, &acked_, &adopted, &out};
   std::vector<char> rx(1 << 16);
   for (;;) {
      ssize_t n = mnl_socket_recvfrom(nl_, rx.data(), rx.size());
      if (n < 0) {
         return;
      }
      int ret = mnl_cb_run(rx.data(), size_t(n), seq_, portId_, routeCallback, &state);
      if (ret <= MNL_CB_STOP) {
         return;
      }
   }
}

std::map<HwKey, HwEntry> LinuxDataplane::entries() {
   std::map<HwKey, HwEntry> out;
   dumpFamily(AF_INET, out);
   dumpFamily(AF_INET6, out);
   return out;
}

void LinuxDataplane::flushOwnRoutes() {
   for (const auto& [key, entry] : entries()) {
      if (foreign_.count(key)) {
         entryDel(key);
      } else {
         delRoute(key, entry.owner == HwOwner::fibRoute ? kProtoFib : kProtoSegment);
      }
   }
   acked_.clear();
}

std::vector<std::string> LinuxDataplane::statusLines() const {
   std::vector<std::string> lines = {
       "dataplane: linux (VRF id N is kernel table N; IPv4 ids are route realms)",
       "dataplaneIpv6Ids: kept beside the kernel table (the kernel carries no realm on "
       "IPv6 routes)"};
   if (monitor_) {
      lines.push_back(
          "dataplaneAdopt: on (other programs' routes in table N are FIB routes of "
          "the VRF with id N)");
   }
   return lines;
}

namespace {

// A socket made in the namespace `netns` by a thread that enters it; -1 and
// `why` when it cannot be had.
int socketIn(const std::string& netns, int type, std::string& why) {
   int sock = -1;
   std::thread maker([&] {
      const std::string path = kNetnsDir + netns;
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
         why = "cannot enter " + path + ": " + std::strerror(errno);
      } else {
         sock = socket(AF_INET, type | SOCK_CLOEXEC, 0);
         if (sock < 0) {
            why = std::string("no socket: ") + std::strerror(errno);
         }
      }
      if (fd >= 0) {
         ::close(fd);
      }
   });
   maker.join();
   return sock;
}

int linkIndexIn(const std::string& netns, const std::string& link) {
   int index = 0;
   std::thread looker([&] {
      const std::string path = kNetnsDir + netns;
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0 && setns(fd, CLONE_NEWNET) == 0) {
         index = int(if_nametoindex(link.c_str()));
      }
      if (fd >= 0) {
         ::close(fd);
      }
   });
   looker.join();
   return index;
}

std::string addressText(Pexo::IpAddr a) {
   return std::to_string(a.value() >> 24) + "." + std::to_string((a.value() >> 16) & 0xFF) + "." +
          std::to_string((a.value() >> 8) & 0xFF) + "." + std::to_string(a.value() & 0xFF);
}

std::string hex32(uint32_t v) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "0x%08x", v);
   return buf;
}

}  // namespace

std::string LinuxDataplane::hostIs(const std::string& name, VrfId vrf, Pexo::IpAddr address,
                                   uint32_t len, Pexo::IpAddr gateway, uint64_t& adj) {
   if (hosts_.count(name)) {
      return "host '" + name + "' exists";
   }
   if (reservedTable(vrf.value())) {
      return "VRF id " + std::to_string(vrf.value()) + " is a kernel table of its own";
   }
   for (const auto& [other, host] : hosts_) {
      if (host.address == address) {
         return "host '" + other + "' has " + addressText(address);
      }
   }
   std::string said;
   if (!forwarding_) {
      if (runIp({"netns", "exec", netns_, "sysctl", "-qw", "net.ipv4.ip_forward=1",
                 "net.ipv4.conf.all.rp_filter=0", "net.ipv4.conf.default.rp_filter=0"},
                &said) != 0) {
         return "cannot turn forwarding on: " + oneLine(said);
      }
      forwarding_ = true;
   }
   const size_t n = hosts_.size();
   Host h;
   h.netns = netns_ + "-" + name;
   h.link = "kh" + std::to_string(n);
   h.address = address;
   if (runIp({"netns", "add", h.netns}, &said) != 0) {
      return "cannot create the host's namespace " + h.netns + ": " + oneLine(said);
   }
   if (!ownNetnsIs(h.netns)) {
      ownNetnsDel(h.netns);
      return "too many namespaces";
   }
   const std::string slashLen = "/" + std::to_string(len);
   const std::vector<std::vector<std::string>> steps = {
       {"-n", netns_, "link", "add", h.link, "type", "veth", "peer", "name", "eth0", "netns",
        h.netns},
       {"-n", netns_, "addr", "add", addressText(gateway) + slashLen, "dev", h.link,
        "noprefixroute"},
       {"-n", netns_, "link", "set", h.link, "up"},
       {"-n", netns_, "rule", "add", "iif", h.link, "lookup", std::to_string(vrf.value())},
       {"-n", h.netns, "addr", "add", addressText(address) + slashLen, "dev", "eth0"},
       {"-n", h.netns, "link", "set", "eth0", "up"},
       {"-n", h.netns, "link", "set", "lo", "up"},
       {"-n", h.netns, "route", "add", "default", "via", addressText(gateway)},
   };
   for (const auto& step : steps) {
      if (runIp(step, &said) != 0) {
         runIp({"-n", netns_, "rule", "del", "iif", h.link});
         ownNetnsDel(h.netns);
         return "host '" + name + "': ip " + step[2] + " " + step[3] + ": " + oneLine(said);
      }
   }
   h.linkIndex = linkIndexIn(netns_, h.link);
   adj = kHostAdjBase + n;
   hostAdjLink_[adj] = h.linkIndex;
   linkHostAdj_[h.linkIndex] = adj;
   hosts_[name] = h;
   return "";
}

std::string LinuxDataplane::send(const std::string& host, Pexo::IpAddr to, bool& delivered) {
   delivered = false;
   auto from = hosts_.find(host);
   if (from == hosts_.end()) {
      return "no host '" + host + "'";
   }
   const Host* dest = nullptr;
   for (const auto& [name, h] : hosts_) {
      if (h.address == to) {
         dest = &h;
      }
   }
   if (!dest) {
      return "no host has " + addressText(to);
   }
   std::string why;
   int rx = socketIn(dest->netns, SOCK_DGRAM, why);
   int tx = rx < 0 ? -1 : socketIn(from->second.netns, SOCK_DGRAM, why);
   sockaddr_in sa{};
   sa.sin_family = AF_INET;
   sa.sin_port = htons(7357);
   sa.sin_addr.s_addr = htonl(to.value());
   if (rx >= 0 && tx >= 0) {
      if (bind(rx, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
         why = std::string("cannot listen on the destination: ") + std::strerror(errno);
      } else if (sendto(tx, "kivsim", 6, 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 6) {
         why = std::string("cannot send: ") + std::strerror(errno);
      } else {
         // The kernel forwards it within microseconds once the neighbours
         // are known; the first datagram of a pair waits for them.
         pollfd p{rx, POLLIN, 0};
         char buf[16];
         delivered = poll(&p, 1, 500) == 1 && recv(rx, buf, sizeof buf, MSG_DONTWAIT) == 6;
      }
   }
   for (int fd : {rx, tx}) {
      if (fd >= 0) {
         ::close(fd);
      }
   }
   return why;
}

std::string LinuxDataplane::rulesAre(const std::vector<Rule>& rules) {
   std::string text =
       "table inet kiv\n"
       "delete table inet kiv\n"
       "table inet kiv {\n"
       "  chain forward {\n"
       "    type filter hook forward priority 0; policy accept;\n";
   for (const auto& r : rules) {
      std::string name = r.name;
      for (char& c : name) {
         if (c == '"' || c == '\\') {
            c = '_';
         }
      }
      text += "    meta rtclassid " +
              (r.mask == 0xFFFFFFFF ? hex32(r.classPair)
                                    : "& " + hex32(r.mask) + " == " + hex32(r.classPair)) +
              " counter " + (r.permit ? "accept" : "drop") + " comment \"" + name + "\"\n";
   }
   text += "  }\n}\n";
   char path[] = "/tmp/kivsim-rules-XXXXXX";
   int fd = mkstemp(path);
   if (fd < 0) {
      return std::string("cannot write the rules: ") + std::strerror(errno);
   }
   const bool written = write(fd, text.data(), text.size()) == ssize_t(text.size());
   ::close(fd);
   std::string said;
   const int rc = written ? runIp({"netns", "exec", netns_, "nft", "-f", path}, &said) : -1;
   unlink(path);
   if (rc != 0) {
      return "nft refused the rules: " + oneLine(said);
   }
   ruleTable_ = true;
   return "";
}

std::map<std::string, uint64_t> LinuxDataplane::ruleCounts() {
   std::map<std::string, uint64_t> counts;
   if (!ruleTable_) {
      return counts;
   }
   std::string listing;
   if (runIp({"netns", "exec", netns_, "nft", "list", "table", "inet", "kiv"}, &listing) != 0) {
      return counts;
   }
   size_t pos = 0;
   while (pos < listing.size()) {
      size_t end = listing.find('\n', pos);
      if (end == std::string::npos) {
         end = listing.size();
      }
      const std::string line = listing.substr(pos, end - pos);
      pos = end + 1;
      const size_t packets = line.find("counter packets ");
      const size_t comment = line.find("comment \"");
      if (packets == std::string::npos || comment == std::string::npos) {
         continue;
      }
      const size_t nameStart = comment + 9;
      const size_t nameEnd = line.find('"', nameStart);
      counts[line.substr(nameStart, nameEnd - nameStart)] +=
          std::strtoull(line.c_str() + packets + 16, nullptr, 10);
   }
   return counts;
}

// ---- Adopt mode ----

namespace {

static_assert(sizeof(rtmsg) == 12);

uint32_t fnv1a32(const std::string& text) {
   uint32_t h = 2166136261u;
   for (unsigned char c : text) {
      h = (h ^ c) * 16777619u;
   }
   return h;
}

std::string typeName(uint8_t type) {
   switch (type) {
      case RTN_BLACKHOLE:
         return "blackhole";
      case RTN_UNREACHABLE:
         return "unreachable";
      case RTN_PROHIBIT:
         return "prohibit";
      case RTN_THROW:
         return "throw";
      case RTN_LOCAL:
         return "local";
      case RTN_BROADCAST:
         return "broadcast";
      case RTN_MULTICAST:
         return "multicast";
      case RTN_ANYCAST:
         return "anycast";
      case RTN_NAT:
         return "nat";
      default:
         return "type " + std::to_string(type);
   }
}

// The attributes a write of another program's route repeats (the rest are
// the kernel's: cache info, the table, which the write sets, and the realm).
bool repeated(uint16_t type) {
   return type == RTA_DST || type == RTA_GATEWAY || type == RTA_OIF || type == RTA_PRIORITY ||
          type == RTA_PREFSRC || type == RTA_METRICS || type == RTA_PREF;
}

int collectCallback(const nlmsghdr* nlh, void* data) {
   auto& out = *static_cast<std::vector<std::vector<char>>*>(data);
   const char* p = reinterpret_cast<const char*>(nlh);
   out.emplace_back(p, p + nlh->nlmsg_len);
   return MNL_CB_OK;
}

int linkNameCallback(const nlattr* attr, void* data) {
   if (mnl_attr_get_type(attr) == IFLA_IFNAME) {
      *static_cast<std::string*>(data) = mnl_attr_get_str(attr);
   }
   return MNL_CB_OK;
}

int linkCallback(const nlmsghdr* nlh, void* data) {
   mnl_attr_parse(nlh, sizeof(ifinfomsg), linkNameCallback, data);
   return MNL_CB_OK;
}

int repeatedCallback(const nlattr* attr, void* data) {
   if (repeated(mnl_attr_get_type(attr))) {
      auto& out = *static_cast<std::vector<char>*>(data);
      const char* p = reinterpret_cast<const char*>(attr);
      out.insert(out.end(), p, p + MNL_ALIGN(attr->nla_len));
   }
   return MNL_CB_OK;
}

}  // namespace

std::vector<std::vector<char>> LinuxDataplane::dumpRaw(int family) {
   std::vector<std::vector<char>> out;
   if (!requestRouteDump(family)) {
      return out;
   }
   std::vector<char> rx(1 << 16);
   for (;;) {
      ssize_t n = mnl_socket_recvfrom(nl_, rx.data(), rx.size());
      if (n < 0) {
         return out;
      }
      int ret = mnl_cb_run(rx.data(), size_t(n), seq_, portId_, collectCallback, &out);
      if (ret <= MNL_CB_STOP) {
         return out;
      }
   }
}

std::string LinuxDataplane::linkName(int index) {
   if (auto it = linkNames_.find(index); it != linkNames_.end()) {
      return it->second;
   }
   char buf[MNL_SOCKET_BUFFER_SIZE];
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
   nlh->nlmsg_type = RTM_GETLINK;
   nlh->nlmsg_flags = NLM_F_REQUEST;
   nlh->nlmsg_seq = ++seq_;
   auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
   ifm->ifi_index = index;
   std::string name;
   if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) >= 0) {
      char rx[MNL_SOCKET_BUFFER_SIZE];
      ssize_t n = mnl_socket_recvfrom(nl_, rx, sizeof rx);
      if (n > 0) {
         mnl_cb_run(rx, size_t(n), nlh->nlmsg_seq, portId_, linkCallback, &name);
      }
   }
   if (name.empty()) {
      name = "#" + std::to_string(index);
   }
   linkNames_[index] = name;
   return name;
}

std::string LinuxDataplane::adoptIs() {
   if (monitor_) {
      return "";
   }
   const std::string path = kNetnsDir + netns_;
   std::string why;
   std::thread opener([&] {
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
         why = "cannot enter " + path + ": " + std::strerror(errno);
      } else {
         monitor_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
         if (!monitor_ || mnl_socket_bind(monitor_, RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE,
                                          MNL_SOCKET_AUTOPID) < 0) {
            why = std::string("cannot open the route monitor: ") + std::strerror(errno);
         }
      }
      if (fd >= 0) {
         ::close(fd);
      }
   });
   opener.join();
   if (!why.empty()) {
      if (monitor_) {
         mnl_socket_close(monitor_);
         monitor_ = nullptr;
      }
      return why;
   }
   // Room for a routing daemon's burst between two reads; an overrun is
   // recovered by reading the tables again (resync).
   int size = 8 << 20;
   setsockopt(mnl_socket_get_fd(monitor_), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
   // Subscribed first, then the tables read: a change in between is seen
   // twice, which changes nothing.
   resync();
   return "";
}

void LinuxDataplane::resync() {
   std::map<HwKey, Foreign> before;
   before.swap(foreign_);
   for (int family : {AF_INET, AF_INET6}) {
      for (const auto& msg : dumpRaw(family)) {
         foreignSeen(reinterpret_cast<const nlmsghdr*>(msg.data()));
      }
   }
   for (const auto& [key, f] : before) {
      if (!foreign_.count(key)) {
         foreignQueue_.push_back({key, false, 0, ""});
      }
   }
}

void LinuxDataplane::foreignSeen(const nlmsghdr* nlh) {
   if ((nlh->nlmsg_type != RTM_NEWROUTE && nlh->nlmsg_type != RTM_DELROUTE) ||
       nlh->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
      return;
   }
   const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
   if ((rtm->rtm_family != AF_INET && rtm->rtm_family != AF_INET6) ||
       rtm->rtm_protocol == kProtoFib || rtm->rtm_protocol == kProtoSegment ||
       (rtm->rtm_flags & RTM_F_CLONED)) {
      return;
   }
   const nlattr* tb[RTA_MAX + 1] = {};
   mnl_attr_parse(nlh, sizeof(*rtm), attrCallback, tb);
   const uint32_t table = tb[RTA_TABLE] ? mnl_attr_get_u32(tb[RTA_TABLE]) : rtm->rtm_table;
   if (reservedTable(table)) {
      return;
   }
   const Pexo::IpGenPrefix prefix = routeDestination(rtm, tb);
   const HwKey key{VrfId(table), prefix};
   auto old = foreign_.find(key);
   if (nlh->nlmsg_type == RTM_DELROUTE) {
      if (old != foreign_.end()) {
         foreign_.erase(old);
         foreignQueue_.push_back({key, false, 0, ""});
      }
      return;
   }
   Foreign f;
   std::memcpy(f.header, rtm, sizeof f.header);
   mnl_attr_parse(nlh, sizeof(*rtm), repeatedCallback, &f.attrs);
   f.realm = tb[RTA_FLOW] ? mnl_attr_get_u32(tb[RTA_FLOW]) & 0xFFFF : 0;
   const int oif = tb[RTA_OIF] ? int(mnl_attr_get_u32(tb[RTA_OIF])) : 0;
   if (rtm->rtm_type != RTN_UNICAST) {
      f.skipped = "a " + typeName(rtm->rtm_type) + " route is not a forward route";
   } else if (tb[RTA_MULTIPATH]) {
      f.skipped = "a multipath route has no single adjacency";
   } else if (rtm->rtm_src_len != 0) {
      f.skipped = "a source-specific route";
   } else if (rtm->rtm_tos != 0) {
      f.skipped = "a route with a TOS";
   } else if (tb[RTA_GATEWAY]) {
      const auto* gw = static_cast<const uint8_t*>(mnl_attr_get_payload(tb[RTA_GATEWAY]));
      char text[INET6_ADDRSTRLEN] = {};
      inet_ntop(rtm->rtm_family, gw, text, sizeof text);
      uint32_t a = 0;
      if (rtm->rtm_family == AF_INET) {
         std::memcpy(&a, gw, 4);
         a = ntohl(a);
      }
      if (rtm->rtm_family == AF_INET && oif == linkIndex_ && a >= kNextHop4Base &&
          a - kNextHop4Base < kNextHop4Count) {
         f.adj = a - kNextHop4Base;
      } else {
         f.adj = kAdoptAdjBase + fnv1a32(std::string("via ") + text) % 0x100000;
      }
   } else if (oif) {
      f.adj = kAdoptAdjBase + fnv1a32("dev " + linkName(oif)) % 0x100000;
   } else {
      f.skipped = "a route without a next hop";
   }
   const bool changed =
       old == foreign_.end() || old->second.adj != f.adj || old->second.skipped != f.skipped;
   foreign_[key] = f;
   if (changed) {
      foreignQueue_.push_back({key, true, f.adj, f.skipped});
   }
   // The table placed this route with a realm, and the kernel now holds
   // another (its owner replaced it, most often without one): ours again.
   auto acked = acked_.find(key);
   if (acked != acked_.end() && f.skipped.empty() && key.prefix.isIpv4() &&
       acked->second.owner == HwOwner::fibRoute && acked->second.routeInfo.adjIndex() == f.adj &&
       acked->second.classId.value() != f.realm) {
      if (int err = adoptedWrite(key, acked->second.classId.value()); err != 0) {
         refused(key, "realm restored on an adopted route", err);
      } else {
         ++realmsRestored_;
      }
   }
}

int LinuxDataplane::adoptedWrite(const HwKey& key, uint32_t classId) {
   auto f = foreign_.find(key);
   if (f == foreign_.end()) {
      return -ENOENT;
   }
   char buf[MNL_SOCKET_BUFFER_SIZE];
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
   nlh->nlmsg_type = RTM_NEWROUTE;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE;
   nlh->nlmsg_seq = ++seq_;
   auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
   std::memcpy(rtm, f->second.header, sizeof f->second.header);
   rtm->rtm_flags &= RTNH_F_ONLINK;
   if (f->second.attrs.size() + 64 > sizeof buf - nlh->nlmsg_len) {
      return -EMSGSIZE;
   }
   std::memcpy(static_cast<char*>(mnl_nlmsg_get_payload_tail(nlh)), f->second.attrs.data(),
               f->second.attrs.size());
   nlh->nlmsg_len += uint32_t(f->second.attrs.size());
   mnl_attr_put_u32(nlh, RTA_TABLE, key.vrfId.value());
   if (classId != 0) {
      mnl_attr_put_u32(nlh, RTA_FLOW, classId);
   }
   const int err = transact(buf);
   if (err == 0) {
      f->second.realm = classId;
   }
   return err;
}

bool LinuxDataplane::foreignRouteNext(ForeignRoute& out) {
   while (foreignHead_ == foreignQueue_.size() && monitor_) {
      foreignQueue_.clear();
      foreignHead_ = 0;
      char buf[MNL_SOCKET_BUFFER_SIZE];
      ssize_t n = recv(mnl_socket_get_fd(monitor_), buf, sizeof buf, MSG_DONTWAIT);
      if (n < 0 && errno == ENOBUFS) {
         // Messages were lost: what the tables hold now is the truth.
         resync();
         continue;
      }
      if (n <= 0) {
         break;
      }
      int left = int(n);
      for (auto* nlh = reinterpret_cast<const nlmsghdr*>(buf); mnl_nlmsg_ok(nlh, left);
           nlh = mnl_nlmsg_next(nlh, &left)) {
         foreignSeen(nlh);
      }
   }
   if (foreignHead_ == foreignQueue_.size()) {
      return false;
   }
   out = foreignQueue_[foreignHead_++];
   return true;
}

}  // namespace sim
