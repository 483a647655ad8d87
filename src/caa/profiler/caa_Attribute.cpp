#include "caa/profiler/caa_Attribute.h"

#include <cstdio>

namespace CAA {

const char* const pro_ATTR = "ATTRIBUTE";
const char* const pro_TYPE = "TYPE";
const char* const pro_SWITCH = "SWITCH";
const char* const pro_DEFAULT = "DEFAULT";
const char* const pro_REQUIRED = "REQUIRED";

CaaAttribute::CaaAttribute(const std::string&, const std::string& type, const std::string& sw, const std::string& dft,
                           const std::string& required)
    : attr_type(type), attr_switch(sw), attr_default(dft), attr_required(required) {}

int CaaAttribute::setValue(const std::string& name, const std::string& value) {
  if (name == pro_TYPE) {
    attr_type = value;
  } else if (name == pro_SWITCH) {
    attr_switch = value;
  } else if (name == pro_DEFAULT) {
    attr_default = value;
  } else if (name == pro_REQUIRED) {
    attr_required = value;
  } else {
    return 1;
  }
  return 0;
}

std::string CaaAttribute::getValue(const std::string& name) const {
  if (name == pro_TYPE) return attr_type;
  if (name == pro_SWITCH) return attr_switch;
  if (name == pro_DEFAULT) return attr_default;
  if (name == pro_REQUIRED) return attr_required;
  return std::string();
}

void CaaAttribute::describe() const {
  std::printf("\tTYPE = %s\n", attr_type.c_str());
  std::printf("\tSWITCH = %s\n", attr_switch.c_str());
  std::printf("\tDEFAULT = %s\n", attr_default.c_str());
  std::printf("\tREQUIRED = %s\n", attr_required.c_str());
}

}  // namespace CAA
