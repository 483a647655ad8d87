#include "caa/ui/res/caa_profargs.h"

namespace CAA {

caaProfTagValue::caaProfTagValue(int id, arg_Status arg_stat, const std::string& tag_str, const char* key,
                                 const char* value)
    : caaArg(id, key != nullptr ? key : ""), caaTagValue(id, arg_stat, tag_str, key != nullptr ? key : "") {
  arg_str = value != nullptr ? value : "";
  val_stat = DEFAULT_ENTERED;
}

caa_Status caaProfTagValue::proc(int& aItr, const int& argc, char** argv) {
  if (tag_stat == ENTERED) return caa_FAILURE;
  tag_stat = ENTERED;
  switch (val_stat) {
    case DEFAULT_ENTERED:
      if (procKeyOrValue(aItr, argc, argv) == caa_SUCCESS) {
        removeWhiteSpace(argv[aItr], arg_str);
        val_stat = ENTERED;
      }
      return caa_SUCCESS;
    default:
      return caa_FAILURE;
  }
}

arg_Status& caaProfTagValue::showStatus() {
  if (tag_stat == ENTERED && val_stat == DEFAULT_ENTERED) return val_stat;
  return tag_stat;
}

void caaProfTagValue::enterArgValue(const std::string& str) {
  arg_str = str;
  val_stat = ENTERED;
  tag_stat = ENTERED;
}

}  // namespace CAA
