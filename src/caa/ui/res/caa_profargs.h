#ifndef CAA_UI_RES_CAA_PROFARGS_H
#define CAA_UI_RES_CAA_PROFARGS_H

// The option of a resource type's attribute: a tag that holds the attribute's default until a
// value comes with it. It shows ENTERED only when a value really came (or was entered without a
// token, as a sub-option of "-o" is); the tag alone leaves the default, DEFAULT_ENTERED.
#include "caa/ui/api/caa_args.h"

namespace CAA {

class caaProfTagValue : public caaTagValue {
 public:
  caaProfTagValue(int id, arg_Status arg_stat, const std::string& tag_str, const char* key, const char* value);

  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override;
  std::string& showArgValue() override { return arg_str; }
  // The tag, not the key: sub-options of "-o" are found by their name.
  std::string& showArgTag() override { return tag; }
  void enterArgValue(const std::string& str) override;
};

}  // namespace CAA

#endif
