#ifndef CAA_PROFILER_CAA_TEMPLATE_H
#define CAA_PROFILER_CAA_TEMPLATE_H

// The reader of type definition files. A resource type is described by <type>.tdf in the
// template directory: rows of "KEYWORD: text" lines, each row begun by an ATTRIBUTE line. The
// attributes of a type are those of generic.tdf and those of its own file, the own file's row
// replacing a generic row of the same name as a whole.
#include <string>

#include "caa/profiler/caa_Attribute.h"
#include "cppgen/clsException.h"

namespace CAA {

class X_TEMP : public cls::Exception {
 public:
  explicit X_TEMP(const std::string& message) : cls::Exception(message) {}
  std::string className() const override { return "X_TEMP"; }
};

class X_TEMP_Notfound : public X_TEMP {
 public:
  explicit X_TEMP_Notfound(const std::string& message) : X_TEMP(message) {}
  std::string className() const override { return "X_TEMP_Notfound"; }
};

class X_TEMP_SyntaxError : public X_TEMP {
 public:
  explicit X_TEMP_SyntaxError(const std::string& message) : X_TEMP(message) {}
  std::string className() const override { return "X_TEMP_SyntaxError"; }
};

class CaaTemplate {
 public:
  // A keyword or its text holds at most this many characters.
  static const std::size_t FIELD_MAXLEN = 1023;

  // Reads generic, then template_name, into amap: 0, or 1 when either is missing or faulty (a
  // syntax error is shown on standard output). What was read before a failure stays.
  static int readTDF(const std::string& template_name, AttrMap& amap);
  // Reads <template_path><template_name>.tdf into amap: 0, or throws X_TEMP_Notfound or
  // X_TEMP_SyntaxError.
  static int readFile(const std::string& template_name, AttrMap& amap);
};

}  // namespace CAA

#endif
