#ifndef PLATFORM_GMX_GMX_ZK_H
#define PLATFORM_GMX_GMX_ZK_H

// Group membership kept in the ZooKeeper ensemble that holds the registry (when $VYN_REGISTRY is a
// zk:// address). A member is an ephemeral znode, the registry key
//   SYSTEM.gmx.group.<group>.<n> = "<pid> <host name>"
// made by the member's own session: it lives as long as that session, so a member whose process
// dies drops out once its session expires, with no heartbeat written anywhere. The session
// time-out is $VYN_GMX_SESSION_MS, default GMX_ZK_SESSION_MS (the ensemble may narrow it to its
// own bounds).
//
// A member's beat only checks that its znode still stands: after the session expired (the
// ensemble was out of reach for longer than the time-out) the znode is made again in a new session,
// and a znode of the same node still held by another session (the session of a daemon that died a
// moment ago) is taken over once that session has expired.
//
// Readers keep each group's member list and a watch on it: the list is read again only after the
// watch has fired, so asking an unchanged group costs no call to the ensemble.
#include <memory>
#include <string>

#include "platform/gmx/gmx_backend.h"

enum { GMX_ZK_SESSION_MS = 6000 };

namespace gmx {

// Whether membership lives on an ensemble: the registry is one.
bool zkMembership();
// The backend on the ensemble of $VYN_REGISTRY; nullptr and *why on a bad address. It connects on
// first use, so that a daemon started while the ensemble is out of reach joins when it is back.
std::unique_ptr<Backend> makeZkBackend(std::string* why);

}  // namespace gmx

#endif
