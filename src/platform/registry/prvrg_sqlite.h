#ifndef PLATFORM_REGISTRY_PRVRG_SQLITE_H
#define PLATFORM_REGISTRY_PRVRG_SQLITE_H

// The registry kept in an embedded SQLite file, for one machine: one row per key, named by its
// full dotted name, holding the key's typed value and security record.
#include <memory>
#include <string>

#include "platform/registry/prvrg_store.h"

// Opens the store at `path`: read-write for a DEFAULT handle (whose writes answer PRVRG_ERR_LEVEL
// when the file cannot be written), read-only otherwise. Only `create` (DEFAULT only) makes a
// missing store, with the directories above it.
std::unique_ptr<RegistryStore> openSqliteStore(const std::string& path, bool defaultLevel, bool create);

#endif
