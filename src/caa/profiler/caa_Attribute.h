#ifndef CAA_PROFILER_CAA_ATTRIBUTE_H
#define CAA_PROFILER_CAA_ATTRIBUTE_H

// One row of a type definition: what an attribute of a resource type holds (its value type),
// how it is named on the command line (its switch), its default and whether a profile must set
// it. The attribute's own name is the key of the AttrMap that holds the row.
#include <map>
#include <string>

namespace CAA {

// Keywords of a type definition file.
extern const char* const pro_ATTR;      // "ATTRIBUTE"
extern const char* const pro_TYPE;      // "TYPE"
extern const char* const pro_SWITCH;    // "SWITCH"
extern const char* const pro_DEFAULT;   // "DEFAULT"
extern const char* const pro_REQUIRED;  // "REQUIRED"

class CaaAttribute {
 public:
  CaaAttribute() = default;
  // The name is not kept: it is the key under which the row is stored.
  CaaAttribute(const std::string& attribute, const std::string& type, const std::string& sw, const std::string& dft,
               const std::string& required);

  // Stores value in the field of keyword name: 0, or 1 (nothing changed) for another keyword.
  int setValue(const std::string& name, const std::string& value);
  // The field of keyword name; empty for another keyword.
  std::string getValue(const std::string& name) const;
  // Only the exact text "yes" makes an attribute required.
  bool isRequired() const { return attr_required == "yes"; }
  std::string getDefault() const { return attr_default; }
  std::string getAttrType() const { return attr_type; }
  // The four fields on standard output, one a line, for looking at a definition by hand.
  void describe() const;

 private:
  std::string attr_type;
  std::string attr_switch;
  std::string attr_default;
  std::string attr_required;
};

// The attributes of a type by name, in ascending byte order.
typedef std::map<std::string, CaaAttribute> AttrMap;

}  // namespace CAA

#endif
