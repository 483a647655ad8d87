#ifndef EVM_LIBEVM_EVM_AUTO_H
#define EVM_LIBEVM_EVM_AUTO_H

// Automatic items: before an event leaves, it is stamped with when and by whom it was posted,
// and over TCP with the posting host. The local identity helpers (host name, user name, a
// host's address from the hosts file) live here too.
#include <sys/types.h>

#include "evm/libevm/evm_types.h"

// Items a mask may select: cluster event, pid, ppid, member id, timestamp, host ip, cluster ip,
// host name, cluster name, user name.
constexpr EvmItemMask_t EVM_AUTO_ITEM_MASK = 0x1e0ed0;

// What a connection remembers of its user between posts, so that an unchanged user costs no
// lookup. The connection owns it; zero-filled means nothing is known yet.
struct EvmIdentityCache_s {
  EvmBoolean_t known;  // euid holds the id of the last lookup
  uid_t euid;
  char* userName;  // owned; null when the last lookup found none
};
typedef EvmIdentityCache_s EvmIdentityCache_t;
void _evmIdentityCacheFree(EvmIdentityCache_t* cache);

// Mask 0 is the default set: timestamp, ppid, pid and a known user name in one update, and over
// TCP the host name and address too. Any other mask sets each selected item by itself.
// `cache` may be null; `overTcp` tells whether the connection's transport is TCP.
EvmStatus_t _EvmItemSetAutoWithCache(EvmEvent_t event, EvmItemMask_t mask, EvmIdentityCache_t* cache,
                                     EvmBoolean_t overTcp);
EvmStatus_t _EvmItemSetAuto(EvmEvent_t event, EvmItemMask_t mask);

// The local host name in a static buffer; empty when unknown, never null. Not for several
// threads at once; the library's own stamping doesn't use it.
const char* _evmGetHostName();
// The local host name as a new string (empty when unknown); safe on any thread.
char* _evmHostNameDup();
// The user's name (at most 12 characters) in a static buffer, or null.
const char* _evmGetUserName();
// A host's address in network order from /etc/hosts, or 0.
EvmIpAddress_t _evmGetHostIp(const char* host);
// The same over another hosts file and a given local host name.
EvmIpAddress_t _evmGetHostIpFrom(const char* path, const char* host, const char* localHost);

// Replaces the user name lookup (null restores the real one); lets a caller see when it runs.
void _evmSetUserNameSource(const char* (*source)());

#endif
