#include "caa/ui/res/caa_proflist.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace CAA {

namespace {

// A directory entry's name with its terminator takes at most this many bytes.
const std::size_t NAME_ROOM = 256;

int fail(osrec* e, const char* op, int err, const std::string& dir) {
  if (e != nullptr) {
    e->category_osrec = OSL_CAT_IO;
    std::snprintf(e->opname_osrec, sizeof e->opname_osrec, "%s", op);
    std::snprintf(e->location_osrec, sizeof e->location_osrec, "%s", "proflist");
    std::snprintf(e->otherinfo_osrec, sizeof e->otherinfo_osrec, "%s", dir.c_str());
    e->depinfo_osrec = err;
  }
  return OSL_ERR_FAIL;
}

// The sign of (x + suffix) against suffix alone, for a non-empty x.
int againstSuffix(const char* x, const std::string& suffix) {
  std::size_t len = std::strlen(x);
  for (std::size_t i = 0; i < suffix.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(i < len ? x[i] : suffix[i - len]);
    unsigned char d = static_cast<unsigned char>(suffix[i]);
    if (c != d) return c < d ? -1 : 1;
  }
  return 1;  // suffix is a proper beginning of x + suffix
}

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};

}  // namespace

ProfileList::ProfileList(const std::string& dir, const std::string& ext, std::size_t pass_bytes)
    : dir_(dir),
      suffix_(ext.empty() ? std::string() : "." + ext),
      // Room for two of the longest names at least, so that a pass always keeps one.
      budget_(std::max(pass_bytes, 2 * NAME_ROOM)) {}

bool ProfileList::before(const char* a, const char* b) const {
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  if (*a != '\0' && *b != '\0') return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b);
  if (*a == '\0' && *b == '\0') return false;
  // One name is a beginning of the other: what follows it is the suffix.
  return *a == '\0' ? againstSuffix(b, suffix_) > 0 : againstSuffix(a, suffix_) < 0;
}

bool ProfileList::matches(const char* name, std::size_t len) const {
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
  return len >= suffix_.size() && std::memcmp(name + len - suffix_.size(), suffix_.data(), suffix_.size()) == 0;
}

void ProfileList::drop(std::size_t need) {
  auto byName = [this](std::uint32_t a, std::uint32_t b) { return before(at(a), at(b)); };
  std::sort(order_.begin(), order_.end(), byName);
  std::size_t keep = order_.size() / 2;
  auto keptBytes = [this](std::size_t k) {
    std::size_t sum = 0;
    for (std::size_t i = 0; i < k; ++i) sum += std::strlen(at(order_[i])) + 1;
    return sum;
  };
  while (keep > 1 && keptBytes(keep) + need > budget_) keep /= 2;
  if (keep == 0) keep = 1;
  bound_.assign(at(order_[keep]));
  bound_ += suffix_;
  more_ = true;
  // The kept names move down in the order they lie in, each to the end of the one before.
  order_.resize(keep);
  std::sort(order_.begin(), order_.end());
  std::uint32_t to = 0;
  for (std::uint32_t& off : order_) {
    std::size_t len = std::strlen(at(off)) + 1;
    std::memmove(names_.data() + to, names_.data() + off, len);
    off = to;
    to += static_cast<std::uint32_t>(len);
  }
  names_.resize(to);
}

int ProfileList::readPass(osrec* e) {
  ++passes_;
  names_.clear();
  order_.clear();
  next_ = 0;
  more_ = false;
  bound_.clear();
  // Reserved, not touched: the pages are used only as far as the names go.
  names_.reserve(budget_);
  // Distinct stems with their terminators: one of one byte, the rest of two bytes and more.
  order_.reserve(budget_ / 2 + 1);
  std::unique_ptr<DIR, DirCloser> d(opendir(dir_.c_str()));
  if (!d) return fail(e, "opendir", errno, dir_);
  errno = 0;
  while (dirent* ent = readdir(d.get())) {
    const char* name = ent->d_name;
    std::size_t len = std::strlen(name);
    if (!matches(name, len) || (started_ && std::strcmp(name, last_.c_str()) <= 0) ||
        (more_ && std::strcmp(name, bound_.c_str()) >= 0)) {
      errno = 0;
      continue;
    }
    // Held without the suffix that every one of them has.
    std::size_t stem = len - suffix_.size();
    if (names_.size() + stem + 1 > budget_) {
      drop(stem + 1);
      if (std::strcmp(name, bound_.c_str()) >= 0) {
        errno = 0;
        continue;
      }
    }
    order_.push_back(static_cast<std::uint32_t>(names_.size()));
    names_.insert(names_.end(), name, name + stem);
    names_.push_back('\0');
    errno = 0;
  }
  if (errno != 0) return fail(e, "readdir", errno, dir_);
  std::sort(order_.begin(), order_.end(), [this](std::uint32_t a, std::uint32_t b) { return before(at(a), at(b)); });
  return OSL_SUCC;
}

int ProfileList::open(osrec* e) { return readPass(e); }

int ProfileList::next(osrec* e, std::string* name) {
  while (next_ >= order_.size()) {
    if (!more_) return OSL_FILELIST_END;
    int rc = readPass(e);
    if (rc != OSL_SUCC) return rc;
  }
  name->assign(at(order_[next_++]));
  *name += suffix_;
  last_ = *name;
  started_ = true;
  return OSL_SUCC;
}

}  // namespace CAA
