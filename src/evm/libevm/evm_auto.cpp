// Automatic items and local identity.
#include "evm/libevm/evm_auto.h"

#include <arpa/inet.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_item.h"
#include "evm/libevm/evm_misc.h"
#include "platform/host/utlhost.h"

namespace {

char s_hostName[65];
char s_userName[13];
const char* (*s_userSource)() = nullptr;

// The lookups behind the two static buffers, into the caller's own: posts on several threads
// stamp their events through these, and never share a buffer.
void hostNameInto(char (&buf)[sizeof s_hostName]) {
  std::memset(buf, 0, sizeof buf);
  if (utlhost(buf, 64) < 0) buf[0] = '\0';
}

bool userNameInto(char (&buf)[sizeof s_userName]) {
  struct passwd pw;
  struct passwd* found = nullptr;
  char scratch[4096];
  if (getpwuid_r(geteuid(), &pw, scratch, sizeof scratch, &found) != 0 || found == nullptr) return false;
  std::size_t len = std::strlen(found->pw_name);
  // Room for 12 characters: a longer name is refused rather than cut.
  if (len == 0 || len >= sizeof buf) return false;
  std::memcpy(buf, found->pw_name, len + 1);
  return true;
}

// The user's name, or false when there is none.
bool lookUpUserName(std::string* name) {
  if (s_userSource != nullptr) {
    const char* given = s_userSource();
    if (given == nullptr) return false;
    *name = given;
    return true;
  }
  char buf[sizeof s_userName];
  if (!userNameInto(buf)) return false;
  *name = buf;
  return true;
}

// The cached name while the effective user is unchanged; otherwise a fresh lookup, remembered.
bool userNameFor(EvmIdentityCache_t* cache, std::string* name) {
  if (cache == nullptr) return lookUpUserName(name);
  uid_t now = geteuid();
  if (cache->known == EvmTRUE && cache->euid == now && cache->userName != nullptr) {
    *name = cache->userName;
    return true;
  }
  bool found = lookUpUserName(name);
  std::free(cache->userName);
  cache->userName = found ? _evmmiscStrdup(name->c_str()) : nullptr;
  cache->euid = now;
  cache->known = EvmTRUE;
  return found;
}

std::string localHostName() {
  char buf[sizeof s_hostName];
  hostNameInto(buf);
  return buf;
}

}  // namespace

void _evmIdentityCacheFree(EvmIdentityCache_t* cache) {
  if (cache == nullptr) return;
  std::free(cache->userName);
  cache->userName = nullptr;
  cache->known = EvmFALSE;
}

void _evmSetUserNameSource(const char* (*source)()) { s_userSource = source; }

const char* _evmGetHostName() {
  hostNameInto(s_hostName);
  return s_hostName;
}

char* _evmHostNameDup() { return _evmmiscStrdup(localHostName().c_str()); }

const char* _evmGetUserName() { return userNameInto(s_userName) ? s_userName : nullptr; }

EvmIpAddress_t _evmGetHostIpFrom(const char* path, const char* host, const char* localHost) {
  if (path == nullptr || host == nullptr) return 0;
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "r"), std::fclose);
  if (file == nullptr) return 0;
  FILE* f = file.get();
  std::string domain;
  if (localHost != nullptr && *localHost) {
    const char* dot = std::strchr(localHost, '.');
    if (dot != nullptr) {
      domain = dot + 1;
      domain = domain.substr(0, domain.find('#'));
    }
  }
  const std::size_t hostLen = std::strlen(host);
  EvmIpAddress_t result = 0;
  char line[131];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strchr(line, '\n') == nullptr && !std::feof(f)) {
      int c;
      while ((c = std::fgetc(f)) != EOF && c != '\n') {
      }
    }
    if (line[0] == '#') continue;
    char addr[131], name[131];
    if (std::sscanf(line, "%130s %130s", addr, name) != 2 || addr[0] == '#') continue;
    std::size_t nameLen = std::strlen(name);
    bool match;
    if (hostLen > nameLen) {
      match = false;
    } else if (hostLen == nameLen) {
      match = std::strcmp(host, name) == 0;
    } else if (localHost != nullptr && *localHost) {
      match = !domain.empty() && std::string(host) + "." + domain == name;
    } else {
      match = std::strncmp(name, host, hostLen) == 0 && name[hostLen] == '.';
    }
    if (!match) continue;
    unsigned a, b, c, d;
    if (std::sscanf(addr, "%u.%u.%u.%u", &a, &b, &c, &d) == 4)
      result = htonl(((a & 0xff) << 24) | ((b & 0xff) << 16) | ((c & 0xff) << 8) | (d & 0xff));
    break;
  }
  return result;
}

EvmIpAddress_t _evmGetHostIp(const char* host) {
  std::string local = localHostName();
  return _evmGetHostIpFrom("/etc/hosts", host, local.c_str());
}

EvmStatus_t _EvmItemSetAutoWithCache(EvmEvent_t event, EvmItemMask_t mask, EvmIdentityCache_t* cache,
                                     EvmBoolean_t overTcp) {
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  const std::int64_t pid = getpid();
  const std::int64_t ppid = getppid();
  std::string userName;
  const char* user = userNameFor(cache, &userName) ? userName.c_str() : nullptr;
  if (mask & ~EVM_AUTO_ITEM_MASK) return EvmERROR_INVALID_ARGUMENT;
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  auto selected = [mask](EvmItemId_t id) { return (mask & (EvmItemMask_t{1} << id)) != 0; };
  EvmStatus_t st;
  if (mask == 0) {
    if (user != nullptr)
      st = EvmItemSetVa(event, EvmITEM_TIMESTAMP, now, EvmITEM_PPID, ppid, EvmITEM_PID, pid, EvmITEM_USER_NAME, user, 0);
    else
      st = EvmItemSetVa(event, EvmITEM_TIMESTAMP, now, EvmITEM_PPID, ppid, EvmITEM_PID, pid, 0);
    if (st != EvmERROR_NONE || overTcp != EvmTRUE) return st;
    std::string host = localHostName();
    st = EvmItemSetVa(event, EvmITEM_HOST_NAME, host.c_str(), 0);
    if (st != EvmERROR_NONE) return st;
    return EvmItemSetVa(event, EvmITEM_HOST_IP, static_cast<int>(_evmGetHostIp(host.c_str())), 0);
  }
  if (selected(EvmITEM_TIMESTAMP) && (st = EvmItemSetVa(event, EvmITEM_TIMESTAMP, now, 0)) != EvmERROR_NONE) return st;
  if (selected(EvmITEM_USER_NAME) && user != nullptr &&
      (st = EvmItemSetVa(event, EvmITEM_USER_NAME, user, 0)) != EvmERROR_NONE)
    return st;
  if (selected(EvmITEM_PID) && (st = EvmItemSetVa(event, EvmITEM_PID, pid, 0)) != EvmERROR_NONE) return st;
  if (selected(EvmITEM_PPID) && (st = EvmItemSetVa(event, EvmITEM_PPID, ppid, 0)) != EvmERROR_NONE) return st;
  std::string host;
  if (selected(EvmITEM_HOST_NAME) || selected(EvmITEM_HOST_IP)) host = localHostName();
  if (selected(EvmITEM_HOST_NAME) && (st = EvmItemSetVa(event, EvmITEM_HOST_NAME, host.c_str(), 0)) != EvmERROR_NONE)
    return st;
  if (selected(EvmITEM_HOST_IP) &&
      (st = EvmItemSetVa(event, EvmITEM_HOST_IP, static_cast<int>(_evmGetHostIp(host.c_str())), 0)) != EvmERROR_NONE)
    return st;
  if (selected(EvmITEM_CLUSTER_EVENT) && (st = EvmItemSetVa(event, EvmITEM_CLUSTER_EVENT, EvmFALSE, 0)) != EvmERROR_NONE)
    return st;
  if (selected(EvmITEM_CLUSTER_IP) && (st = EvmItemSetVa(event, EvmITEM_CLUSTER_IP, 0, 0)) != EvmERROR_NONE) return st;
  if (selected(EvmITEM_MEMBER_ID) && (st = EvmItemSetVa(event, EvmITEM_MEMBER_ID, 0, 0)) != EvmERROR_NONE) return st;
  return EvmERROR_NONE;  // the cluster name bit is accepted and sets nothing
}

EvmStatus_t _EvmItemSetAuto(EvmEvent_t event, EvmItemMask_t mask) {
  return _EvmItemSetAutoWithCache(event, mask, nullptr, EvmFALSE);
}
