#ifndef PLATFORM_REGISTRY_PRVRG_ZNODE_H
#define PLATFORM_REGISTRY_PRVRG_ZNODE_H

// How the registry's key tree lies in ZooKeeper. One key level is one znode: the key
// "SYSTEM.vyn.x" of a registry whose chroot is /vyn is the znode /vyn/SYSTEM/vyn/x, and the
// chroot itself is the root key. A key's value, its type and its security record are the znode's
// data, laid out below; a znode whose data does not have this layout is not a registry key.
//
// Names. A part of a key name may hold any byte but '.'; a znode's name may not hold '/', and
// ZooKeeper takes it as UTF-8 text. So every byte outside printable ASCII, and '/' and '%', is
// written as '%' and two upper-case hex digits: "a/b" is the znode "a%2Fb". A child whose name is
// not such an encoding was not made here and is passed over.
//
// Data, all integers big-endian:
//
//   offset  size  field
//        0     4  magic "VRGK"
//        4     1  layout version, 1
//        5     1  value type (prvrg_dtype)
//        6     2  reserved, 0
//        8     4  user_perm
//       12     4  group_perm
//       16     4  other_perm
//       20    64  user_name, NUL-padded (at most 63 bytes of name)
//       84    64  group_name, likewise
//      148     4  value length N
//      152     N  value (a text without its terminator)
//
// The data is exactly 152 + N bytes. ZooKeeper refuses a request above 1 MiB (its jute.maxbuffer),
// so a value may have at most kZnodeMaxValue bytes, leaving room for the path and the framing.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/registry/prvrg.h"

namespace znode {

const char kMagic[4] = {'V', 'R', 'G', 'K'};
const std::uint8_t kLayoutVersion = 1;

const std::size_t kMagicOffset = 0;
const std::size_t kVersionOffset = 4;
const std::size_t kTypeOffset = 5;
const std::size_t kUserPermOffset = 8;
const std::size_t kGroupPermOffset = 12;
const std::size_t kOtherPermOffset = 16;
const std::size_t kUserNameOffset = 20;
const std::size_t kGroupNameOffset = 84;
const std::size_t kNameSize = 64;
const std::size_t kValueLengthOffset = 148;
const std::size_t kHeaderSize = 152;

const std::size_t kMaxRequest = 1024 * 1024;
const std::size_t kZnodeMaxValue = kMaxRequest - 16 * 1024 - kHeaderSize;

struct Record {
  int dtype = prvrg_dtype_NOVALUE;
  prvrg_security security{};
  std::string value;
};

// The data of a znode that holds `r`.
std::string encode(const Record& r);
// The data of a key's znode (of which at least the header is given) with another value.
std::string withValue(const std::string& data, int dtype, const std::string& value);
// False when `data` is not a registry key's.
bool decode(const char* data, std::size_t length, Record* r);

// A part of a key name as a znode's name, and back (false: not one of ours).
std::string encodeName(const std::string& part);
bool decodeName(const std::string& znodeName, std::string* part);

// The path below the chroot of a full key name ("" for the root).
std::string pathOf(const std::string& chroot, const std::string& fullname);

}  // namespace znode

#endif
