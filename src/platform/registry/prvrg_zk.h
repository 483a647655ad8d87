#ifndef PLATFORM_REGISTRY_PRVRG_ZK_H
#define PLATFORM_REGISTRY_PRVRG_ZK_H

// The registry kept in a ZooKeeper ensemble, shared by the machines of a cluster; the key tree
// lies in znodes as prvrg_znode.h lays it out.
//
// Time-outs (zk_connection.h): a call that cannot reach the ensemble within 2 s answers
// PRVRG_ERR_LEVEL (24), as does one whose server hangs past two thirds of the 4 s session time-out;
// a handle works again once the ensemble is back.
//
// Concurrent writers. A value write is conditional on the znode's version: when another writer
// came between, the key is read again and the write tried again, so that a change of the key's
// security record is never overwritten and the later of two values stands. A subtree is moved or
// deleted in one multi-operation that fails as a whole when any of its znodes changed, and is then
// tried again; when that keeps failing the call gives PRVRG_ERR_CONFLICT.
#include <memory>
#include <string>

#include "platform/registry/prvrg_store.h"

bool isZkAddress(const std::string& where);

// Connects to the ensemble at `address` (zk://hosts/chroot). The chroot must exist unless `create`
// (DEFAULT only) makes it. A DEFAULT handle reads and writes, any other only reads.
std::unique_ptr<RegistryStore> openZkStore(const std::string& address, bool defaultLevel, bool create);

#endif
