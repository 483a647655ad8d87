#ifndef CAA_PROFILER_CAA_PROFILE_H
#define CAA_PROFILER_CAA_PROFILE_H

// A resource profile on disk: a text file of NAME=value lines. Profile reads such a file into a
// string_Map, completes a map from the definition of its type, writes it back (NAME and TYPE
// first, the rest in byte order), and decides whether a profile may be kept. It knows no
// attribute but NAME and TYPE; everything else comes from the type definition.
//
// A profile is replaced, never rewritten in place: the new text goes to a file beside it, which
// is synced and renamed over the old one, so a crash or a full disk leaves the old profile or the
// new one, never a part of either.
#include <cstdio>
#include <string>

#include "caa/lib/caa_types.h"
#include "caa/profiler/caa_Attribute.h"
#include "cppgen/clsException.h"

namespace CAA {

// A value holds at most VYN_PROFILE_VALUE_MAXLEN - 1 characters, a name at most
// VYN_PROFILE_NAME_MAXLEN - 1.
const int VYN_PROFILE_VALUE_MAXLEN = 10240;
const int VYN_PROFILE_NAME_MAXLEN = 1024;
// The reader takes a physical line in pieces of at most this many characters, and a longer line
// falls apart into two. The writer continues no line, so a NAME=value line it writes must fit.
const int VYN_PROFILE_LINE_MAXLEN = VYN_PROFILE_VALUE_MAXLEN - 2;
// The longest resource name.
const int CAA_RESOURCE_MAXNAMELEN = 127;

class X_PROF : public cls::Exception {
 public:
  explicit X_PROF(const std::string& message) : cls::Exception(message) {}
  std::string className() const override { return "X_PROF"; }
};

class X_PROF_InvalidFile : public X_PROF {
 public:
  explicit X_PROF_InvalidFile(const std::string& message) : X_PROF(message) {}
  std::string className() const override { return "X_PROF_InvalidFile"; }
};

class X_PROF_SyntaxError : public X_PROF {
 public:
  explicit X_PROF_SyntaxError(const std::string& message) : X_PROF(message) {}
  std::string className() const override { return "X_PROF_SyntaxError"; }
};

// The file that a create without overwrite was to make exists already.
class X_PROF_Exists : public X_PROF_InvalidFile {
 public:
  explicit X_PROF_Exists(const std::string& message) : X_PROF_InvalidFile(message) {}
  std::string className() const override { return "X_PROF_Exists"; }
};

// Why an entry could not be written so that the reader gives it back as it was.
enum EntryFault {
  ENTRY_OK,
  ENTRY_LINE_BREAK,  // the value holds a newline or a NUL: the rest would read as a line of its own
  ENTRY_TOO_LONG,    // the line would not fit VYN_PROFILE_LINE_MAXLEN
  ENTRY_CONTINUED,   // the value ends in a backslash, which joins the next line to it
  ENTRY_BAD_NAME,    // the name is empty, holds a "=" or a line break, or reads back otherwise
};

class Profile {
 public:
  virtual ~Profile() = default;

  // Reads file into contents; entries the file does not name stay. Throws X_PROF_InvalidFile
  // when the file cannot be opened, X_PROF_SyntaxError for a line that is no NAME=value.
  static void loadProfile(const std::string& file, string_Map& contents);
  // Gives every attribute of the type that contents lacks, or holds empty, its default. amap: the
  // type's definition when the caller has read it already; null to read it here.
  static void mergeProfile(const std::string& type, string_Map& contents, const AttrMap* amap = nullptr);
  // Checks NAME and TYPE, completes the map from the type and writes it. An empty destFile is
  // <profile_path><NAME>.cap. temp: a template, which has a type but no name. Without overwrite
  // a file that exists, or appears meanwhile, is left alone and X_PROF_Exists is thrown.
  // amap: the definition of the map's TYPE, read already, or null.
  static void createProfile(string_Map& contents, const std::string& destFile, bool overwrite, bool temp,
                            const AttrMap* amap = nullptr);
  // Replaces file with the map: NAME, TYPE, then the rest in byte order. A replaced file keeps
  // its owner, group and mode. An entry that would not read back as it is (entryFault) is
  // refused before anything is written.
  static void writeProfile(const std::string& file, string_Map contents, bool overwrite = true);
  // Whether name=value, written as one line, reads back as the same entry.
  static EntryFault entryFault(const std::string& name, const std::string& value);
  // The longest value that the line of `name` can carry.
  static std::size_t valueRoom(const std::string& name);
  // The text of writeProfile.
  static std::string formatProfile(const string_Map& contents);

  // Appends the next logical line (continuations joined) to s. The number of physical lines
  // used, or 0 at the end of the file.
  static int readLine(FILE* fp, std::string& s);
  // Drops one trailing newline, then the leading and trailing spaces and tabs.
  static void trim(char* input);
  static void trim(std::string& input);
  static void upper(char* s);
  // True when every character is a digit (also for the empty text).
  static bool numeric(const char* text);

  // The checks of a stored profile: its name must match its file, TARGET and STATUS are
  // reserved, and then the checks of the map. Lets the exceptions of loadProfile through.
  static bool validateProfile(const std::string& file);
  // The checks of the name, of the type's definition and of the fixed rules of the types.
  // fixup: a faulty REBALANCE is rewritten in contents when that mends it. A forbidden
  // character in the name ends the process with status 1. amap: the definition of the map's
  // TYPE, read already, or null to read it here.
  static bool validateProfile(string_Map& contents, bool fixup, const AttrMap* amap = nullptr);
  // The checks against a definition: required attributes, value types, and no attribute
  // outside the definition but those named USR_*.
  static bool validateProfile(string_Map& contents, const AttrMap& amap);
  // True when every character is printable and none is "!".
  static bool validateResName(const char* name);
  // Dotted form of four numbers 0..255; cuts its argument while it looks.
  static bool testSubnet(char* subnet);
};

}  // namespace CAA

#endif
