#ifndef CAA_UI_RES_CAA_PROFLIST_H
#define CAA_UI_RES_CAA_PROFLIST_H

// The files of a directory that end in one extension, one name at a time in byte order, with
// memory that does not grow with their number. A print of all profiles walks a directory that
// may hold hundreds of thousands; it keeps no list of them all. The directory is read in
// passes instead: each keeps, within a fixed budget, the smallest names beyond the last one
// given, so a directory whose names fit the budget is read once.
//
// A file made or removed during the walk may or may not be seen, as with any listing.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/osl/osl.h"

namespace CAA {

class ProfileList {
 public:
  // The bytes of names (each without the suffix, with a terminator) that one pass may hold.
  static const std::size_t PASS_BYTES = 1024 * 1024;

  // Names "<anything>.<ext>" in dir; pass_bytes below the longest possible name is raised to it.
  ProfileList(const std::string& dir, const std::string& ext, std::size_t pass_bytes = PASS_BYTES);

  // Reads the first pass: 0, or OSL_ERR_FAIL with *e filled when the directory cannot be read.
  int open(osrec* e);
  // 0 and the next name, OSL_FILELIST_END after the last one, or OSL_ERR_FAIL with *e filled.
  int next(osrec* e, std::string* name);
  // How many times the directory has been read, for looking at the cost of a walk.
  int passes() const { return passes_; }

 private:
  // Collects the smallest names above last_ (all, the first time) that fit the budget, sorted.
  int readPass(osrec* e);
  bool matches(const char* name, std::size_t len) const;
  // The byte order of two names held, each without the suffix.
  bool before(const char* a, const char* b) const;
  // Keeps the smaller part of the names held, so that `need` more bytes fit; the names at and
  // above the first one dropped are left to a later pass.
  void drop(std::size_t need);
  const char* at(std::uint32_t off) const { return names_.data() + off; }

  std::string dir_;
  std::string suffix_;
  std::size_t budget_;
  std::vector<char> names_;           // the names of this pass without the suffix, each ending in a NUL
  std::vector<std::uint32_t> order_;  // their offsets in names_, in byte order once sorted
  std::size_t next_ = 0;
  std::string last_;   // the last name given
  std::string bound_;  // the smallest name this pass left for a later one
  bool started_ = false;
  bool more_ = false;  // names above the ones held were left for another pass
  int passes_ = 0;
};

}  // namespace CAA

#endif
