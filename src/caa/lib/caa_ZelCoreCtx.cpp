#include "caa/lib/caa_ZelCoreCtx.h"

#include <cctype>
#include <iterator>
#include <random>

#include "platform/nlh/nlh.h"

namespace CAA {

ZelCoreCtx* ZelCoreCtx::s_pInstance = nullptr;
std::mutex ZelCoreCtx::s_mutex;

ZelCoreCtx* ZelCoreCtx::getInstance() {
  std::lock_guard<std::mutex> lock(s_mutex);
  if (s_pInstance == nullptr) s_pInstance = new ZelCoreCtx;
  return s_pInstance;
}

void ZelCoreCtx::cleanup() {
  std::lock_guard<std::mutex> lock(s_mutex);
  delete s_pInstance;
  s_pInstance = nullptr;
}

ZelCoreCtx::~ZelCoreCtx() {
  for (auto& entry : s_cache) delete entry.second;
  s_cache.clear();
}

lang_ctx* ZelCoreCtx::getLangCtx(const char* lang) {
  std::string key = lang != nullptr ? lang : "";
  if (key.size() > 127) key.resize(127);
  for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

  std::lock_guard<std::mutex> lock(s_mutex);
  auto hit = s_cache.find(key);
  if (hit != s_cache.end()) return hit->second;

  lang_ctx* ctx = new lang_ctx;
  ctx->lang_ctx_lid = key.empty() ? nlh::langEnv() : nlh::laToId(lang);
  if (s_cache.size() >= MAX_CONTEXTS) {
    static std::minstd_rand rnd(std::random_device{}());
    auto victim = s_cache.begin();
    std::advance(victim, static_cast<long>(rnd() % MAX_CONTEXTS));
    delete victim->second;
    s_cache.erase(victim);
  }
  s_cache.emplace(key, ctx);
  return ctx;
}

const std::string& ZelCoreCtx::getLangId(const char* lang) { return getLangCtx(lang)->lang_ctx_lid; }

std::size_t ZelCoreCtx::cachedCount() const {
  std::lock_guard<std::mutex> lock(s_mutex);
  return s_cache.size();
}

}  // namespace CAA
