#include "platform/envs/envs.h"

#include <cstdlib>
#include <mutex>

namespace {
std::mutex g_homeMutex;
std::string g_home;  // guarded by g_homeMutex
}  // namespace

int envs_init(envs_ctx* ctx, prvrg_ctx* vrg) {
  if (ctx == nullptr) return 1;
  ctx->vrg = vrg;
  ctx->open = true;
  return 0;
}

int envs_set_zelkor_home(envs_ctx* ctx, const char* home) {
  if (ctx == nullptr || !ctx->open || home == nullptr || home[0] != '/') return 1;
  std::lock_guard<std::mutex> lock(g_homeMutex);
  g_home = home;
  return 0;
}

int envs_close(envs_ctx* ctx) {
  if (ctx == nullptr) return 1;
  ctx->open = false;
  ctx->vrg = nullptr;
  return 0;
}

std::string envs_get_zelkor_home() {
  {
    std::lock_guard<std::mutex> lock(g_homeMutex);
    if (!g_home.empty()) return g_home;
  }
  const char* env = std::getenv("ZEL_VYN_HOME");
  return env != nullptr ? std::string(env) : std::string();
}
