#include "evm/libevm/clsgenv.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/envs/envs.h"
#include "platform/registry/prvrg.h"
#include "platform/thread/nxthr.h"
#include "platform/tfm/tfm.h"

namespace {

const std::size_t kEnvLen = 512;

// One cached setting. Entries are appended and never changed or freed, so a value handed out
// stays valid for the life of the process.
struct clsenv {
  char clsenv_key[kEnvLen];
  char clsenv_val[kEnvLen];
  clsenv* clsenv_nxt;
};

// The registry connection of the lookup, one per process.
struct clsgenvctx {
  pthread_mutex_t ctx_mx;
  pthread_cond_t ctx_condv;
  prvrg_ctx* vrgctx;
  std::uint32_t st_ms;
  std::uint32_t vrg_mode;
  std::uint32_t in_use;
};

clsenv clsenvdummy;
bool first = true;
pthread_mutex_t clsEnvMutex = PTHREAD_MUTEX_INITIALIZER;
clsgenvctx* genvvrgctx = nullptr;

const char vrgenvprefix[8] = "SYSTEM.";
const char kHomeName[] = "ZEL_VYN_HOME";

std::uint32_t nowMs() { return static_cast<std::uint32_t>(osrgatime64()); }

clsenv* clsenvlookup(const char* name) {
  for (clsenv* e = clsenvdummy.clsenv_nxt; e != nullptr; e = e->clsenv_nxt)
    if (std::strcmp(e->clsenv_key, name) == 0) return e;
  return nullptr;
}

void clsenvadd(clsenv* entry) {
  clsenv* tail = &clsenvdummy;
  while (tail->clsenv_nxt != nullptr) tail = tail->clsenv_nxt;
  tail->clsenv_nxt = entry;
}

void clsgenv_grabctx(clsgenvctx* ctx) {
  pthread_mutex_lock(&ctx->ctx_mx);
  while (ctx->in_use != 0) pthread_cond_wait(&ctx->ctx_condv, &ctx->ctx_mx);
  ctx->in_use = 1;
  pthread_mutex_unlock(&ctx->ctx_mx);
}

void clsgenv_releasectx(clsgenvctx* ctx) {
  pthread_mutex_lock(&ctx->ctx_mx);
  ctx->in_use = 0;
  pthread_cond_signal(&ctx->ctx_condv);
  pthread_mutex_unlock(&ctx->ctx_mx);
}

int openLevel(prvrg_ctx** handle, int level, char* err, std::size_t errsize) {
  std::size_t len = errsize;
  err[0] = '\0';
  return prvrg_init_ext(handle, level, err, &len, 0);
}

// Called with the context held. Falls from DEFAULT to REBOOT, or climbs back once the
// REBOOT level has been in use for more than CLSGENV_CLIMB_MS.
std::uint32_t clsgenv_switch_vrg_mode(clsgenvctx* ctx) {
  char err[1024];
  prvrg_ctx* fresh = nullptr;
  if (ctx->vrg_mode == CLSGENV_LEVEL_REBOOT) {
    if (clsgenvClimbDue(nowMs(), ctx->st_ms)) {
      if (openLevel(&fresh, CLSGENV_LEVEL_DEFAULT, err, sizeof err) == 0) {
        ctx->st_ms = 0;
        ctx->vrg_mode = CLSGENV_LEVEL_DEFAULT;
        prvrg_terminate(ctx->vrgctx);
        ctx->vrgctx = fresh;
      } else {
        ctx->st_ms = nowMs();
      }
    }
  } else {
    int rc = openLevel(&fresh, CLSGENV_LEVEL_REBOOT, err, sizeof err);
    if (rc != 0) {
      char text[2048];
      sfmprintf(text, sizeof text, "clsgenv_switch_vrg_mode: prvrg_init failed rc = %d err=%s aborting", rc, err);
      std::printf("%s", text);
      std::fflush(stdout);
      std::exit(1);
    }
    prvrg_terminate(ctx->vrgctx);
    ctx->vrgctx = fresh;
    ctx->vrg_mode = CLSGENV_LEVEL_REBOOT;
    ctx->st_ms = nowMs();
  }
  return ctx->vrg_mode;
}

int clsgenv_initctx() {
  clsgenvctx* ctx = static_cast<clsgenvctx*>(std::calloc(1, sizeof(clsgenvctx)));
  if (ctx == nullptr) return 1;
  pthread_mutex_init(&ctx->ctx_mx, nullptr);
  pthread_cond_init(&ctx->ctx_condv, nullptr);
  clsgenv_grabctx(ctx);
  ctx->vrgctx = nullptr;
  char err[1024];
  int level = CLSGENV_LEVEL_DEFAULT;
  if (openLevel(&ctx->vrgctx, level, err, sizeof err) != 0) {
    level = CLSGENV_LEVEL_REBOOT;
    if (openLevel(&ctx->vrgctx, level, err, sizeof err) != 0) {
      // The registry's text is one line; end it so the shell prompt does not follow it.
      std::size_t n = std::strlen(err);
      std::printf(n > 0 && err[n - 1] != '\n' ? "%s\n" : "%s", err);
      // A context that never opened is not kept: a later lookup tries afresh and never
      // blocks on, or uses, a handle that does not exist.
      clsgenv_releasectx(ctx);
      pthread_cond_destroy(&ctx->ctx_condv);
      pthread_mutex_destroy(&ctx->ctx_mx);
      std::free(ctx);
      return 1;
    }
  }
  ctx->vrg_mode = static_cast<std::uint32_t>(level);
  ctx->st_ms = level == CLSGENV_LEVEL_REBOOT ? nowMs() : 0;
  genvvrgctx = ctx;
  clsgenv_releasectx(ctx);
  return 0;
}

int clsgenv_vrg_open_key(clsgenvctx* ctx, prvrg_key** hkey, const char* key) {
  clsgenv_grabctx(ctx);
  std::uint32_t level = ctx->vrg_mode;
  if (level == CLSGENV_LEVEL_REBOOT) level = clsgenv_switch_vrg_mode(ctx);
  int rc = prvrg_open_key(ctx->vrgctx, hkey, key);
  if (rc == PRVRG_ERR_LEVEL && level == CLSGENV_LEVEL_DEFAULT) {
    clsgenv_switch_vrg_mode(ctx);
    rc = prvrg_open_key(ctx->vrgctx, hkey, key);
  }
  if (rc != 0) std::printf("clsgenv_vrg_open_key:prvrg_open_key failed key =%s rc=%d\n", key, rc);
  clsgenv_releasectx(ctx);
  return rc;
}

int clsgenv_vrg_get_value(clsgenvctx* ctx, prvrg_key* hkey, int* dtype, char* buf, std::size_t* size,
                          const char* key) {
  clsgenv_grabctx(ctx);
  std::uint32_t level = ctx->vrg_mode;
  std::size_t asked = *size;
  int rc = prvrg_get_value(ctx->vrgctx, hkey, dtype, buf, size);
  if (rc == PRVRG_ERR_LEVEL && level == CLSGENV_LEVEL_DEFAULT) {
    clsgenv_switch_vrg_mode(ctx);
    *size = asked;
    rc = prvrg_get_value(ctx->vrgctx, hkey, dtype, buf, size);
  }
  if (rc != 0) std::printf("clgenv_vrg_get_value:prvrg_get_value failed key=%s\t rc=%d\n", key, rc);
  clsgenv_releasectx(ctx);
  return rc;
}

int clsgenv_vrg_close_key(clsgenvctx* ctx, prvrg_key* hkey) {
  clsgenv_grabctx(ctx);
  std::uint32_t level = ctx->vrg_mode;
  int rc = prvrg_close_key(ctx->vrgctx, hkey);
  if (rc == PRVRG_ERR_LEVEL && level == CLSGENV_LEVEL_DEFAULT) {
    clsgenv_switch_vrg_mode(ctx);
    rc = prvrg_close_key(ctx->vrgctx, hkey);
  }
  clsgenv_releasectx(ctx);
  return rc;
}

// Reads one key's text value; the common walk of the home fallback and of clsgetconnstr.
int readKey(const char* key, char* buf, std::size_t size) {
  if (genvvrgctx == nullptr && clsgenv_initctx() != 0) return 1;
  prvrg_key* hkey = nullptr;
  int rc = clsgenv_vrg_open_key(genvvrgctx, &hkey, key);
  if (rc != 0) return rc;
  int dtype = 0;
  std::size_t len = size;
  rc = clsgenv_vrg_get_value(genvvrgctx, hkey, &dtype, buf, &len, key);
  clsgenv_vrg_close_key(genvvrgctx, hkey);
  if (rc == 0) buf[size - 1] = '\0';
  return rc;
}

}  // namespace

bool clsgenvClimbDue(std::uint32_t now, std::uint32_t since) {
  return static_cast<std::uint32_t>(now - since) > CLSGENV_CLIMB_MS;
}

int clsgenvvrg(const char* str, char* buf) {
  if (str == nullptr || std::strcmp(str, kHomeName) != 0) return -1;
  char prefix[sizeof vrgenvprefix];
  std::memcpy(prefix, vrgenvprefix, sizeof prefix);
  char key[kEnvLen] = {0};
  std::snprintf(key, sizeof key, "%s%s", prefix, str);
  return readKey(key, buf, kEnvLen);
}

int clsgetconnstr(const char* key, char* buf) {
  if (key == nullptr || buf == nullptr) return 1;
  // The registry context is made at the first use, which may be a lookup of another thread.
  pthread_mutex_lock(&clsEnvMutex);
  int rc = readKey(key, buf, 256);
  pthread_mutex_unlock(&clsEnvMutex);
  return rc == 0 ? 0 : 1;
}

const char* clsgenv(const char* str) {
  pthread_mutex_lock(&clsEnvMutex);
  if (first) {
    std::memset(&clsenvdummy, 0, sizeof clsenvdummy);
    first = false;
  }
  const char* answer = nullptr;
  if (str != nullptr && std::strlen(str) < kEnvLen) {
    if (clsenv* hit = clsenvlookup(str)) {
      answer = hit->clsenv_val;
    } else {
      char value[kEnvLen];
      value[0] = '\0';
      const char* env = std::getenv(str);
      bool found = false;
      if (env != nullptr && env[0] != '\0') {
        std::snprintf(value, sizeof value, "%s", env);
        found = true;
      } else {
        // Set but empty counts as unset; only the home has a registry fallback.
        found = clsgenvvrg(str, value) == 0;
      }
      if (found) {
        clsenv* entry = static_cast<clsenv*>(std::calloc(1, sizeof(clsenv)));
        if (entry != nullptr) {
          std::snprintf(entry->clsenv_key, sizeof entry->clsenv_key, "%s", str);
          std::memcpy(entry->clsenv_val, value, sizeof value);
          entry->clsenv_nxt = nullptr;
          clsenvadd(entry);
          answer = entry->clsenv_val;
        }
      }
    }
  }
  pthread_mutex_unlock(&clsEnvMutex);
  return answer;
}

int clssetzelkorhome(const char* zelhome) {
  envs_ctx ectx;
  pthread_mutex_lock(&clsEnvMutex);
  int rc = envs_init(&ectx, genvvrgctx != nullptr ? genvvrgctx->vrgctx : nullptr);
  if (rc == 0) {
    rc = envs_set_zelkor_home(&ectx, zelhome);
    envs_close(&ectx);
  }
  pthread_mutex_unlock(&clsEnvMutex);
  return rc == 0 ? 0 : 1;
}

int clsgenvinit() {
  pthread_mutex_lock(&clsEnvMutex);
  int rc = genvvrgctx != nullptr ? 0 : clsgenv_initctx();
  pthread_mutex_unlock(&clsEnvMutex);
  return rc;
}

void clsgenvterm() {
  pthread_mutex_lock(&clsEnvMutex);
  clsgenvctx* ctx = genvvrgctx;
  genvvrgctx = nullptr;
  pthread_mutex_unlock(&clsEnvMutex);
  if (ctx == nullptr) return;
  prvrg_terminate(ctx->vrgctx);
  ctx->vrgctx = nullptr;
  pthread_cond_destroy(&ctx->ctx_condv);
  pthread_mutex_destroy(&ctx->ctx_mx);
  std::free(ctx);
}
