#include "evm/libevm/cluinfo.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "evm/libevm/clsgenv.h"
#include "platform/trace/dtr.h"

int evmclu_tracing = 1;

namespace {

// The process's context. Written under cluctx_mutex, read by any request without it.
std::atomic<clscluctx*> cevmcluctx{nullptr};
gmxsctx* gclsctx = nullptr;  // the service context made here; guarded by cluctx_mutex
pthread_mutex_t cluctx_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t cluctxtrc_mutex = PTHREAD_MUTEX_INITIALIZER;
std::string* evmclu_trcpath = nullptr;  // guarded by cluctxtrc_mutex; made once, kept

const gmxtrccb evmclstrc_cb = {evmclstrc};

// Holds a pthread mutex for a scope.
class Hold {
 public:
  explicit Hold(pthread_mutex_t* m) : m_(m) { pthread_mutex_lock(m_); }
  ~Hold() { pthread_mutex_unlock(m_); }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  pthread_mutex_t* m_;
};

void* clsclu__malloc(std::size_t size) {
  void* p = std::malloc(size);
  if (p == nullptr) evmclstrc(&evmclu_tracing, "clsclu__malloc: malloc failed, sz %d", static_cast<int>(size));
  return p;
}

}  // namespace

void* clsclu_malloc(void* /*mmctx*/, std::size_t size) {
  void* p = clsclu__malloc(size);
  if (p != nullptr) std::memset(p, 0, size);
  return p;
}

void clsclu_mfree(void* /*mmctx*/, void* ptr) { std::free(ptr); }

void evmclstrc(int* flag, const char* fmt, ...) {
  if (flag == nullptr || *flag == 0) return;
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  static dtrcomp* comp = [] {
    dtrcomp* c = dtrgetcompid("CLUCLS");
    return c != nullptr ? c : dtrcompreg("membership client", "CLUCLS", 512, 1, 1, nullptr, 0);
  }();
  dtrprintft(comp != nullptr ? comp : dtrgetcompid("CLUCLS"), 1, "%s", line);
}

int clu_ctxinit(gmxsctx* gmxctx, const gmxtrccb* trace) {
  Hold hold(&cluctx_mutex);
  if (cevmcluctx.load() != nullptr) return 0;
  if (gmxctx == nullptr) {
    if (gclsctx == nullptr) {
      int rc = gmxsinit(&gclsctx, trace != nullptr ? trace : &evmclstrc_cb, &evmclu_tracing);
      if (rc != GMX_SUCC) {
        gclsctx = nullptr;
        return rc;
      }
    }
    gmxctx = gclsctx;
  }
  clsclucb cb = {nullptr, clsclu_malloc, clsclu_mfree};
  clscluctx* ctx = nullptr;
  if (clsclu_init(&ctx, gmxctx, &cb) != clscluretSUCC) {
    clsclu_term(ctx);
    return 1;
  }
  cevmcluctx.store(ctx);
  return 0;
}

int clu_is_ready() { return cevmcluctx.load() != nullptr ? 1 : 0; }

int clu_is_member() {
  clscluctx* ctx = cevmcluctx.load();
  if (ctx == nullptr) return 0;
  int me = -1;
  if (clsclu_info(ctx, CLU_INFO_MY_ID, &me) != clscluretSUCC || me < 0) return 0;
  std::string state(ctx->mxclsz_clscluctx, '\0');
  if (clsclu_info(ctx, CLU_INFO_MEMBSTATE, static_cast<int>(state.size()), &state[0]) != clscluretSUCC) return 0;
  return static_cast<std::size_t>(me) < state.size() && state[static_cast<std::size_t>(me)] == 1 ? 1 : 0;
}

int clu_info(int op, ...) {
  clscluctx* ctx = cevmcluctx.load();
  if (ctx == nullptr) return 1;
  int rc = 1;
  va_list ap;
  va_start(ap, op);
  switch (op) {
    case CLU_INFO_MEMBSTATE: {
      int size = va_arg(ap, int);
      char* buf = va_arg(ap, char*);
      rc = clsclu_info(ctx, op, size, buf);
      break;
    }
    case CLU_INFO_LIMITS:
      rc = clsclu_info(ctx, op, va_arg(ap, clu_limits*));
      break;
    case CLU_INFO_INTERCONNECT: {
      // The interconnect has no name of its own: it is the node's.
      const char* name = va_arg(ap, const char*);
      char* buf = va_arg(ap, char*);
      int len = va_arg(ap, int);
      if (name != nullptr && buf != nullptr && len > 0) {
        std::strncpy(buf, name, static_cast<std::size_t>(len));
        rc = 0;
      }
      break;
    }
    case CLU_INFO_MEMBERID_BY_NAME: {
      const char* name = va_arg(ap, const char*);
      int* id = va_arg(ap, int*);
      rc = clsclu_info(ctx, op, name, id);
      break;
    }
    case CLU_INFO_MY_ID:
      rc = clsclu_info(ctx, op, va_arg(ap, int*));
      break;
    default:
      break;
  }
  va_end(ap);
  return rc == 0 ? 0 : 1;
}

int clu_get_info(clu_gen_info** info) {
  clscluctx* ctx = cevmcluctx.load();
  if (ctx == nullptr) return 1;
  return clsclu_get_info(ctx, info);
}

int clu_free_info(clu_gen_info** info) {
  clscluctx* ctx = cevmcluctx.load();
  if (ctx == nullptr) return 1;
  return clsclu_free_info(ctx, info);
}

clscluctx* clugetctx() { return cevmcluctx.load(); }

gmxsctx* clu_getgmxsctx() {
  Hold hold(&cluctx_mutex);
  return gclsctx;
}

int evmcls_iprintf(const char* text, int length) {
  if (text == nullptr || length <= 0) return 0;
  std::string path;
  {
    Hold hold(&cluctxtrc_mutex);
    if (evmclu_trcpath == nullptr) {
      const char* home = clsgenv("ZEL_VYN_HOME");
      if (home == nullptr || *home == '\0') {
        std::fputs("evmcls_iprintf: ZEL_VYN_HOME is not set\n", stderr);
        std::abort();
      }
      char node[GMX_MAX_NAMEL] = "";
      if (ndq_getnodenm(node, sizeof node) != 0) return 0;
      evmclu_trcpath = new std::string(std::string(home) + "/log/evm_clss_" + gmxNormalName(node) + ".trc");
    }
    path = *evmclu_trcpath;
  }
  // Appended to, never followed through a link another user may have put in its place.
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return 0;
  std::size_t done = 0;
  std::size_t want = static_cast<std::size_t>(length);
  while (done < want) {
    ssize_t n = write(fd, text + done, want - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  close(fd);
  return static_cast<int>(done);
}
