#ifndef CAA_LIB_CAA_TYPES_H
#define CAA_LIB_CAA_TYPES_H

// Types shared by the profile command and its layers.
#include <list>
#include <map>
#include <string>

namespace CAA {

// The result of every command-level operation. WARNING: the operation failed and has told the
// user why. FAILURE: the command line was not understood, or the platform failed; the usage
// text follows. Both end the process with status 1.
enum caa_Status {
  caa_SUCCESS = 0,
  caa_CONTINUE = 1,
  caa_WARNING = 2,
  caa_FAILURE = 3,
};

typedef std::list<std::string> string_List;
// A profile in memory: names to values in ascending byte order.
typedef std::map<std::string, std::string> string_Map;

}  // namespace CAA

#endif
