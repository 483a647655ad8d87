#ifndef CAA_LIB_CAA_ZELCORECTX_H
#define CAA_LIB_CAA_ZELCORECTX_H

// The process-wide cache of language contexts that message lookups need. A context is costly
// to make, so one is kept per language (names that differ only in case share one; the empty
// name is the environment's language), at most ten, evicting one at random when full.
#include <map>
#include <mutex>
#include <string>

namespace CAA {

// One language context: the language id under which catalogs are looked for.
struct lang_ctx {
  std::string lang_ctx_lid;
  unsigned lang_ctx_err = 0;
};

class ZelCoreCtx {
 public:
  static constexpr std::size_t MAX_CONTEXTS = 10;

  static ZelCoreCtx* getInstance();
  static void cleanup();

  lang_ctx* getLangCtx(const char* lang);
  // The language id of a context, as catalogs are looked up by.
  const std::string& getLangId(const char* lang);
  std::size_t cachedCount() const;

 private:
  ZelCoreCtx() = default;
  ~ZelCoreCtx();

  static ZelCoreCtx* s_pInstance;
  static std::mutex s_mutex;
  std::map<std::string, lang_ctx*> s_cache;
};

}  // namespace CAA

#endif
