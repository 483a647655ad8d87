// gmxNodeMember: this node's membership of its cluster's group, for the life of the object.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/gmx/gmx.h"
#include "platform/gmx/gmx_backend.h"
#include "platform/gmx/gmx_zk.h"
#include "platform/trace/dtr.h"

namespace {

void traceLine(int* /*flag*/, const char* fmt, ...) {
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  dtrWrite(line);
}

const gmxtrccb kTrace = {traceLine};

int periodFromEnvironment() {
  const char* env = std::getenv("VYN_GMX_HEARTBEAT_MS");
  if (env == nullptr || *env == '\0') return GMX_HEARTBEAT_MS;
  char* end = nullptr;
  long v = std::strtol(env, &end, 10);
  // Below 10 ms the store would do little else; above an hour nobody would notice a death.
  if (*end != '\0' || v < 10 || v > 3600 * 1000) {
    dtrWrite(std::string("gmx: VYN_GMX_HEARTBEAT_MS=") + env + " is not a period from 10 to 3600000 ms; 2000 is taken");
    return GMX_HEARTBEAT_MS;
  }
  return static_cast<int>(v);
}

}  // namespace

struct gmxNodeMember::Impl {
  int periodMs = GMX_HEARTBEAT_MS;
  std::string group;
  gmxnode node = GMX_NO_NODE;
  std::unique_ptr<gmx::Backend> backend;  // used by the beating thread only while it runs
  std::string failure;          // why the join at construction failed
  std::atomic<bool> joined{false};

  std::mutex mx;
  std::condition_variable cv;
  bool stop = false;  // guarded by mx
  std::thread beater;

  bool join(std::string* failure);
  void beat();
};

bool gmxNodeMember::Impl::join(std::string* failure) {
  gmxsctx* ctx = nullptr;
  int rc = gmxsinit(&ctx, &kTrace, nullptr);
  if (rc != GMX_SUCC) {
    *failure = "the membership service cannot start (rc " + std::to_string(rc) + ")";
    return false;
  }
  char name[1024];
  std::size_t len = sizeof name;
  std::string cluster;
  rc = gmxnsqclname(ctx, name, &len);
  if (rc == GMX_ERR_TOOLONG) {
    std::string big(len, '\0');
    rc = gmxnsqclname(ctx, &big[0], &len);
    cluster = big.c_str();
  } else {
    cluster = name;
  }
  if (rc == GMX_SUCC) rc = gmxnsqlnum(ctx, &node);
  gmxsterm(ctx);
  if (rc != GMX_SUCC) {
    *failure = "the cluster's configuration cannot be read (rc " + std::to_string(rc) + ")";
    return false;
  }
  char local[GMX_MAX_NAMEL] = "";
  if (node == GMX_NO_NODE) {
    ndq_getnodenm(local, sizeof local);
    *failure = "this node (" + gmxNormalName(local) + ") is not a configured node of the cluster " + cluster;
    return false;
  }
  group = cluster + "_NG";
  std::string why;
  backend = gmx::makeBackend(&why);
  if (backend == nullptr || backend->join(group, node, periodMs, &why) != GMX_SUCC) {
    *failure = "cannot join the group " + group + ": " + why;
    backend.reset();
    return false;
  }
  return true;
}

void gmxNodeMember::Impl::beat() {
  bool failing = false;
  std::unique_lock<std::mutex> lock(mx);
  for (;;) {
    if (cv.wait_for(lock, std::chrono::milliseconds(periodMs), [this] { return stop; })) return;
    lock.unlock();
    if (!joined) {
      // On an ensemble that was out of reach at the start: join as soon as it answers.
      std::string why;
      if (join(&why)) {
        joined = true;
        dtrWrite("gmx: node " + std::to_string(node) + " joined the group " + group + " late");
      }
      lock.lock();
      continue;
    }
    std::string why;
    int rc = backend->beat(group, node, &why);
    // One line when beating starts to fail and one when it works again, not one per period.
    if (rc != GMX_SUCC && !failing) dtrWrite("gmx: heartbeat for the group " + group + " failed: " + why);
    if (rc == GMX_SUCC && failing) dtrWrite("gmx: heartbeat for the group " + group + " works again");
    failing = rc != GMX_SUCC;
    lock.lock();
  }
}

gmxNodeMember::gmxNodeMember(int periodMs) : impl_(new Impl) {
  impl_->periodMs = periodMs > 0 ? periodMs : periodFromEnvironment();
  try {
    impl_->joined = impl_->join(&impl_->failure);
    if (impl_->joined) {
      impl_->beater = std::thread([this] { impl_->beat(); });
      dtrWrite("gmx: node " + std::to_string(impl_->node) + " joined the group " + impl_->group + ", heartbeat every " +
               std::to_string(impl_->periodMs) + " ms");
    }
  } catch (const std::exception& e) {
    impl_->failure = e.what();
    if (impl_->joined) {
      std::string why;
      impl_->backend->leave(impl_->group, impl_->node, &why);
    }
    impl_->joined = false;
  }
  if (!impl_->joined) {
    dtrWrite("gmx: not a member, this node counts as down: " + impl_->failure);
    // An ensemble may be back in a moment; a file store that failed stays failed.
    if (gmx::zkMembership()) impl_->beater = std::thread([this] { impl_->beat(); });
  }
}

gmxNodeMember::~gmxNodeMember() {
  if (impl_->beater.joinable()) {
    {
      std::lock_guard<std::mutex> lock(impl_->mx);
      impl_->stop = true;
    }
    impl_->cv.notify_all();
    impl_->beater.join();
  }
  if (!impl_->joined) return;
  std::string why;
  if (impl_->backend->leave(impl_->group, impl_->node, &why) != GMX_SUCC)
    dtrWrite("gmx: leaving the group " + impl_->group + " failed: " + why);
  else
    dtrWrite("gmx: node " + std::to_string(impl_->node) + " left the group " + impl_->group);
}

bool gmxNodeMember::joined() const { return impl_->joined; }

const std::string& gmxNodeMember::failure() const { return impl_->failure; }
