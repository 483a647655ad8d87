#ifndef PLATFORM_REGISTRY_PRVRG_H
#define PLATFORM_REGISTRY_PRVRG_H

// The cluster registry client: a tree of keys with dot-separated full names ("SYSTEM.vyn.x"),
// each holding one typed value and one security record.
//
// The store is named by $VYN_REGISTRY: a path names an embedded SQLite database (unset:
// /var/lib/vyn/registry.db) for one machine, "zk://host:port[,host:port...]/chroot" a ZooKeeper
// ensemble shared by a cluster (prvrg_zk.h tells what differs there: time-outs, concurrent
// writers, PRVRG_ERR_CONFLICT). What follows holds for both unless it names the file.
// Levels: DEFAULT (3, or 0x30000 node-local) opens the store read-write; REBOOT (2, or 0x20000)
// and any other level open it read-only. A DEFAULT handle whose store cannot be written answers
// PRVRG_ERR_LEVEL (24) to a write, so that a caller can fall back to REBOOT for reads.
// Opening never creates a store (or an ensemble's chroot); only a handle opened with
// PRVRG_FLAG_CREATE does (vyn_vrg).
// Two processes may use one file at once: every call is one transaction, and a call that finds
// the store locked waits for it. A process waits at most 5 s for a store that stays locked: once a
// wait has run out, later calls give up at once (for a minute, or until the store answers again).
// A failure's text (prvrg_get_last_error, or the error buffer of prvrg_init_ext) ends with the
// store's own reason, e.g. "registry store /x/registry.db: database is locked".
#include <cstddef>
#include <cstdint>

typedef std::uint32_t prvrg_perm;
typedef std::uint32_t ub4;

struct prvrg_ctx;
struct prvrg_key;

enum prvrg_dtype {
  prvrg_dtype_NOVALUE = 0,
  prvrg_dtype_UB4 = 1,
  prvrg_dtype_UBIG_ZEL = 2,
  prvrg_dtype_ZELTEXT = 3,
  prvrg_dtype_MULTI_ZELTEXT = 4,
  prvrg_dtype_BYTESTREAM = 5,
};

struct prvrg_security {
  prvrg_perm user_perm;
  prvrg_perm group_perm;
  prvrg_perm other_perm;
  char user_name[64];
  char group_name[64];
};

enum {
  PRVRG_SUCC = 0,
  PRVRG_ERR_FAIL = 1,         // a plain failure; prvrg_get_last_error tells more
  PRVRG_ERR_INVALID_HANDLE = 3,
  PRVRG_ERR_NO_KEY = 4,
  PRVRG_ERR_NO_MORE = 16,     // no further subkey
  PRVRG_ERR_BUFFER = 17,      // the caller's buffer is too small; the length tells what is needed
  PRVRG_ERR_LEVEL = 24,       // the call cannot be served at the DEFAULT level
  PRVRG_ERR_CONFLICT = 25,    // other writers kept changing the keys; nothing was done
};

enum {
  PRVRG_LEVEL_REBOOT = 2,
  PRVRG_LEVEL_DEFAULT = 3,
  PRVRG_LOCAL_REBOOT = 0x20000,
  PRVRG_LOCAL_DEFAULT = 0x30000,
};

enum { PRVRG_FLAG_CREATE = 1 };  // last argument of prvrg_init_ext: create the store if missing

// The path of the store: $VYN_REGISTRY, or the default.
const char* prvrg_store_path();

// 0 and a handle; otherwise a printable text in errbuf (its size in *errlen on entry, the text's
// length on return).
int prvrg_init_ext(prvrg_ctx** ctx, int level, char* errbuf, std::size_t* errlen, int flags);
int prvrg_terminate(prvrg_ctx* ctx);

// Keys. A full name is dot-separated from the root; no key is ever created by opening. The empty
// name opens the root itself, which holds no value, to enumerate the top-level keys.
// A key handle belongs to its context: prvrg_terminate closes the ones still open.
int prvrg_open_key(prvrg_ctx* ctx, prvrg_key** key, const char* fullname);
int prvrg_close_key(prvrg_ctx* ctx, prvrg_key* key);
// Creates `name` below `parent` (null: at the root). *created tells whether it was new. A dotted
// `name` creates the missing keys between, with the same security; an existing key is kept as is.
int prvrg_create_key(prvrg_ctx* ctx, prvrg_key* parent, const char* name, prvrg_key** key,
                     int* created, prvrg_security security);
int prvrg_create_n_set_key(prvrg_ctx* ctx, prvrg_key* parent, const char* name, prvrg_key** key,
                           int* created, int dtype, const void* value, std::size_t length,
                           prvrg_security security);
// Deletes the key and (with recursive 1) everything below it. The handle stays open (and answers
// PRVRG_ERR_NO_KEY) until it is closed.
int prvrg_delete_key(prvrg_ctx* ctx, prvrg_key* key, int recursive);
// Moves the key and its subtree to `name` below `new_parent` (null: the root). The target must not
// exist and its parent must. `key` follows the move; *moved, if asked for, is a new handle on it.
int prvrg_move_key(prvrg_ctx* ctx, prvrg_key* key, prvrg_key* new_parent, const char* name,
                   prvrg_key** moved, int flags);
// The next direct subkey's name (not the full name), in name order; PRVRG_ERR_NO_MORE at the
// end. The open key keeps the cursor. *remaining, if not null, counts the subkeys still to come.
// *length is the buffer's size on entry and the name's size with its terminator on return.
int prvrg_enum_subkey(prvrg_ctx* ctx, prvrg_key* key, char* name, std::size_t* length,
                      ub4* remaining);

// Values. A text value is returned with its terminator; *length is the buffer's size on entry and
// the value's size on return. A key that holds no value answers PRVRG_ERR_NO_KEY.
int prvrg_get_value(prvrg_ctx* ctx, prvrg_key* key, int* dtype, void* buffer, std::size_t* length);
int prvrg_set_value(prvrg_ctx* ctx, prvrg_key* key, int dtype, const void* value,
                    std::size_t length);
int prvrg_get_key_security(prvrg_ctx* ctx, prvrg_key* key, prvrg_security* security);
int prvrg_get_last_error(prvrg_ctx* ctx, int* code, char* text, std::size_t* length);

// The full name of an open key.
const char* prvrg_key_name(const prvrg_key* key);

#endif
