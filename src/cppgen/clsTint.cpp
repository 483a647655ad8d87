#include "cppgen/clsTint.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "cppgen/clsAssert.h"
#include "cppgen/clsLog.h"

namespace cls {

namespace {

const char kTintDisable[] = "ZEL_CLS_TINT_DISABLE";

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("CLSFRAME");
  return *s_dbug;
}

void say(const std::string& text) {
  std::ostringstream os;
  os << text;
  dbug().log(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
}

}  // namespace

const char* const Tint::TINT_FRAME = "{%u:%u:%u}";
std::mutex* Tint::s_tintMux = nullptr;
pthread_key_t Tint::s_tintKey;
std::atomic<bool> Tint::s_initialized{false};
ub4 Tint::s_nodeId = 0;
ub4 Tint::s_procId = 0;
ub4 Tint::s_tintSeed = 1;

void Tint::initializeTinting(ub4 nodeId, ub4 procId) {
  CLS_ASSERT(s_tintMux == NULL && !s_initialized);
  const char* off = std::getenv(kTintDisable);
  if (off != nullptr && off[0] != '\0') {
    say(std::string(" Tints disabled by Env variable ") + kTintDisable);
    return;
  }
  s_tintMux = new std::mutex;
  if (pthread_key_create(&s_tintKey, &Tint::sltskydHandler) != 0) {
    say(" Tints initialization failed because of thread local storage initialization");
    delete s_tintMux;
    s_tintMux = nullptr;
    return;
  }
  s_nodeId = nodeId;
  s_procId = procId;
  s_initialized = true;
  say(" Tints initialized with nodeId: " + std::to_string(nodeId) + " procId: " + std::to_string(procId));
}

void Tint::sltskydHandler(void* slot) { delete static_cast<ub8*>(slot); }

ub8* Tint::threadSlot() {
  ub8* slot = static_cast<ub8*>(pthread_getspecific(s_tintKey));
  if (slot == nullptr) {
    slot = new ub8(TINT_INVALID);
    pthread_setspecific(s_tintKey, slot);
  }
  return slot;
}

void Tint::generateTint() {
  CLS_ASSERT(!s_initialized || s_tintMux != NULL);
  if (!s_initialized) {
    m_value = TINT_INVALID;
    return;
  }
  ub4 seed;
  {
    std::lock_guard<std::mutex> lock(*s_tintMux);
    seed = ++s_tintSeed;
  }
  m_value = static_cast<ub8>(s_nodeId) * 0xFFFFFFFFULL + static_cast<ub8>(s_procId % 65535) * 65535ULL + seed % 65535;
}

void Tint::getThreadTint() { m_value = s_initialized ? *threadSlot() : TINT_INVALID; }

void Tint::setThreadTint() {
  if (s_initialized) *threadSlot() = m_value;
}

void Tint::stringify(std::string& str) const {
  char buf[TINT_FRAME_SIZE];
  int len = std::snprintf(buf, sizeof buf, TINT_FRAME, static_cast<unsigned>(m_value / 0xFFFFFFFFULL),
                          static_cast<unsigned>((m_value / 65535) % 65535), static_cast<unsigned>(m_value % 65535));
  CLS_ASSERT(len < TINT_FRAME_SIZE);
  str = buf;
}

std::string Tint::toString() const {
  std::string s;
  stringify(s);
  return s;
}

void Tint::destringify(const std::string& str) {
  unsigned a = 0, b = 0, c = 0;
  if (std::sscanf(str.c_str(), TINT_FRAME, &a, &b, &c) == 3)
    m_value = static_cast<ub8>(a) * 0xFFFFFFFFULL + static_cast<ub8>(b) * 65535ULL + c;
  else
    m_value = TINT_INVALID;
}

}  // namespace cls
