#include "platform/trace/dtr.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "platform/envs/envs.h"

namespace {

// Components are never freed: callers keep their descriptors for the life of the process.
struct ComponentTable {
  std::mutex mx;
  std::vector<dtrcomp*> comps;
};

ComponentTable& components() {
  static ComponentTable* table = new ComponentTable;
  return *table;
}

// One trace file per process, opened at the first line and kept open. Everything here is
// guarded by mx; a line is written whole by one write(2) under it.
struct TraceFile {
  std::mutex mx;
  std::string program = "vyn";
  std::string path;  // of the open file; empty while none is open
  int fd = -1;
  std::string failedPath;  // a file that could not be opened; not tried again
  bool warned = false;
  std::uint64_t maxBytes = 8u << 20;
  unsigned keep = 4;
  // The file's size as last learnt: its size at opening plus what this process wrote, set right
  // again from the file every few lines, so that other writers of the same file count too.
  std::uint64_t size = 0;
  unsigned linesSinceStat = 0;
};

TraceFile& traceFile() {
  static TraceFile* tf = new TraceFile;
  return *tf;
}

std::string logDir() {
  std::string home = envs_get_zelkor_home();
  return home.empty() ? std::string() : home + "/log/";
}

// The process and thread ids in the stamp are cached; a forked child starts over.
std::atomic<long> g_pid{0};
thread_local long t_tid = 0;

void forgetIds() {
  g_pid.store(0, std::memory_order_relaxed);
  t_tid = 0;
}

char* putNumber(char* p, unsigned long n, int minDigits) {
  char digits[24];
  int len = 0;
  do {
    digits[len++] = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n != 0 || len < minDigits);
  while (len > 0) *p++ = digits[--len];
  return p;
}

// "2026-11-23 04:52:13.123 [pid:tid] "; the calendar part is made once per second per thread.
// buf holds at least 80 bytes.
std::size_t stamp(char* buf) {
  static std::once_flag s_atfork;
  std::call_once(s_atfork, [] { pthread_atfork(nullptr, nullptr, forgetIds); });
  thread_local time_t t_sec = -1;
  thread_local char t_date[24];
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  if (ts.tv_sec != t_sec) {
    tm local;
    localtime_r(&ts.tv_sec, &local);
    std::strftime(t_date, sizeof t_date, "%Y-%m-%d %H:%M:%S", &local);
    t_sec = ts.tv_sec;
  }
  long pid = g_pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = static_cast<long>(getpid());
    g_pid.store(pid, std::memory_order_relaxed);
  }
  if (t_tid == 0) t_tid = syscall(SYS_gettid);
  std::size_t dateLen = std::strlen(t_date);
  std::memcpy(buf, t_date, dateLen);
  char* p = buf + dateLen;
  *p++ = '.';
  p = putNumber(p, static_cast<unsigned long>(ts.tv_nsec / 1000000L), 3);
  *p++ = ' ';
  *p++ = '[';
  p = putNumber(p, static_cast<unsigned long>(pid), 1);
  *p++ = ':';
  p = putNumber(p, static_cast<unsigned long>(t_tid), 1);
  *p++ = ']';
  *p++ = ' ';
  return static_cast<std::size_t>(p - buf);
}

void closeLocked(TraceFile& tf) {
  if (tf.fd >= 0) close(tf.fd);
  tf.fd = -1;
  tf.path.clear();
}

bool openLocked(TraceFile& tf, const std::string& path) {
  // A link planted in a shared log directory is not followed.
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) {
    // An ordinary user running against a shared home may not write its log directory: the trace
    // is the administrator's, and its absence then is no news. Anything else (a planted link, a
    // log directory that is not one) is said once.
    const bool notOurs = errno == EACCES || errno == EPERM || errno == EROFS;
    if (!tf.warned && !notOurs) {
      tf.warned = true;
      std::string note = tf.program + ": cannot write the trace file " + path + ": " + std::strerror(errno) +
                         "; its lines are lost\n";
      ssize_t ignored = write(STDERR_FILENO, note.data(), note.size());
      (void)ignored;
    }
    tf.failedPath = path;
    return false;
  }
  tf.fd = fd;
  tf.path = path;
  struct stat st;
  tf.size = fstat(fd, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
  tf.linesSinceStat = 0;
  return true;
}

// The file to write to, opened if need be; false when lines are to be dropped.
bool ensureOpenLocked(TraceFile& tf) {
  if (tf.fd >= 0) return true;  // until dtrSetProgram or dtrreset
  std::string dir = logDir();
  if (dir.empty()) {
    closeLocked(tf);
    return false;
  }
  std::string path = dir + tf.program + ".trc";
  if (path == tf.failedPath) return false;
  return openLocked(tf, path);
}

// The open file has passed its limit. Another process may have rotated it already (the name
// then leads to a different file), so the check and the renames happen under an exclusive lock
// on the file itself, which every writer of the same file shares.
void rotateLocked(TraceFile& tf) {
  std::string path = tf.path;
  flock(tf.fd, LOCK_EX);
  struct stat mine, named;
  bool same = fstat(tf.fd, &mine) == 0 && stat(path.c_str(), &named) == 0 && mine.st_ino == named.st_ino &&
              mine.st_dev == named.st_dev;
  if (same && static_cast<std::uint64_t>(mine.st_size) >= tf.maxBytes) {
    // The oldest kept file is replaced by the next younger one; nothing else is removed.
    for (unsigned i = tf.keep; i > 1; --i)
      rename((path + "." + std::to_string(i - 1)).c_str(), (path + "." + std::to_string(i)).c_str());
    rename(path.c_str(), (path + ".1").c_str());
  }
  flock(tf.fd, LOCK_UN);
  closeLocked(tf);
  openLocked(tf, path);
}

void emit(const char* text, std::size_t len) {
  TraceFile& tf = traceFile();
  std::lock_guard<std::mutex> lock(tf.mx);
  if (!ensureOpenLocked(tf)) return;
  const char* p = text;
  std::size_t left = len;
  while (left > 0) {
    ssize_t n = write(tf.fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  tf.size += len;
  if (++tf.linesSinceStat >= 64) {
    struct stat st;
    if (fstat(tf.fd, &st) == 0) tf.size = static_cast<std::uint64_t>(st.st_size);
    tf.linesSinceStat = 0;
  }
  if (tf.size >= tf.maxBytes) rotateLocked(tf);
}

// Stamp, component, text and a newline in one buffer, then one write.
void writeLine(const dtrcomp* comp, bool withDesc, const char* fmt, va_list ap) {
  char small[2048];
  std::size_t head = stamp(small);
  if (comp != nullptr) {
    int n = withDesc ? std::snprintf(small + head, sizeof small - head, "%s(%s):", comp->name,
                                     comp->description.c_str())
                     : std::snprintf(small + head, sizeof small - head, "%s:", comp->name);
    if (n > 0) head = std::min(head + static_cast<std::size_t>(n), sizeof small - 1);
  }
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(small + head, sizeof small - head, fmt, copy);
  va_end(copy);
  if (n < 0) return;
  std::size_t total = head + static_cast<std::size_t>(n);
  if (total + 1 < sizeof small) {
    small[total] = '\n';
    emit(small, total + 1);
    return;
  }
  std::vector<char> big(total + 2);
  std::memcpy(big.data(), small, head);
  std::vsnprintf(big.data() + head, big.size() - head, fmt, ap);
  big[total] = '\n';
  emit(big.data(), total + 1);
}

dtrcomp s_allComponents;  // the token dtrallcomp gives; never registered

// The component of a name cut to the eight characters the service keeps; table.mx is held.
dtrcomp* findLocked(const ComponentTable& table, const char* shortName) {
  for (dtrcomp* c : table.comps)
    if (std::strcmp(c->name, shortName) == 0) return c;
  return nullptr;
}

}  // namespace

dtrcomp* dtrcompreg(const char* description, const char* name, std::size_t bufsize, ub4 tracelevel, ub4 loglevel,
                    dtrfcb fcb, int) {
  if (name == nullptr || name[0] == '\0') return nullptr;
  char shortName[9];
  std::snprintf(shortName, sizeof shortName, "%s", name);
  ComponentTable& table = components();
  std::lock_guard<std::mutex> lock(table.mx);
  if (findLocked(table, shortName) != nullptr) return nullptr;
  dtrcomp* c = new dtrcomp;
  std::memcpy(c->name, shortName, sizeof shortName);
  c->description = description != nullptr ? description : "";
  c->loglevel.store(loglevel, std::memory_order_relaxed);
  c->tracelevel = tracelevel;
  c->flags = DTR_COMP_ENABLED;
  c->fcb = fcb;
  c->bufsize = bufsize;
  table.comps.push_back(c);
  return c;
}

dtrcomp* dtrgetcompid(const char* name) {
  if (name == nullptr) return nullptr;
  char shortName[9];
  std::snprintf(shortName, sizeof shortName, "%s", name);
  ComponentTable& table = components();
  std::lock_guard<std::mutex> lock(table.mx);
  return findLocked(table, shortName);
}

void dtrset_loglvl(dtrcomp* comp, ub4 level) {
  if (comp != nullptr && comp != &s_allComponents) comp->loglevel.store(level, std::memory_order_relaxed);
}

ub4 dtrget_regcomp() {
  ComponentTable& table = components();
  std::lock_guard<std::mutex> lock(table.mx);
  return static_cast<ub4>(table.comps.size());
}

int dtrget_complist(dtrcompname* list, ub4* count) {
  if (list == nullptr || count == nullptr) return -1;
  ComponentTable& table = components();
  std::lock_guard<std::mutex> lock(table.mx);
  if (table.comps.size() > *count) return -1;
  for (std::size_t i = 0; i < table.comps.size(); ++i) std::memcpy(list[i], table.comps[i]->name, sizeof list[i]);
  *count = static_cast<ub4>(table.comps.size());
  return 0;
}

bool dtrpasses(const dtrcomp* comp, ub4 level) {
  if (level == 0) return true;
  if (comp == nullptr || (comp->flags & DTR_COMP_DISABLED) != 0) return false;
  ub4 own = comp->loglevel.load(std::memory_order_relaxed);
  if (own == 4) own = 5;
  return level <= own;
}

void dtrprintft(const dtrcomp* comp, ub4 level, const char* fmt, ...) {
  if (!dtrpasses(comp, level)) return;
  va_list ap;
  va_start(ap, fmt);
  writeLine(comp, false, fmt, ap);
  va_end(ap);
}

void dtrprintft_cdesc(const dtrcomp* comp, ub4 level, const char* fmt, ...) {
  if (!dtrpasses(comp, level)) return;
  va_list ap;
  va_start(ap, fmt);
  writeLine(comp, true, fmt, ap);
  va_end(ap);
}

void dtr_alertprintft(ub4 msgid, const char* fmt, ...) {
  char text[2048];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  std::string dir = logDir();
  if (dir.empty()) return;
  char head[96];
  std::size_t n = stamp(head);
  std::string line = std::string(head, n) + "alert " + std::to_string(msgid) + ": " + text + "\n";
  // Alerts are rare: the alert log is opened for each one.
  int fd = open((dir + "alert.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) return;
  ssize_t ignored = write(fd, line.data(), line.size());
  (void)ignored;
  close(fd);
}

void dtrfflush(int sync) {
  TraceFile& tf = traceFile();
  std::lock_guard<std::mutex> lock(tf.mx);
  if (sync != 0 && tf.fd >= 0) fdatasync(tf.fd);
}

dtrcomp* dtrallcomp() { return &s_allComponents; }

void dtrflush(dtrcomp*) { dtrfflush(0); }

int dtrget_logname(char* buf, std::size_t size) {
  std::string name = dtrTraceFile();
  if (name.empty() || buf == nullptr || name.size() + 1 > size) return -1;
  std::memcpy(buf, name.c_str(), name.size() + 1);
  return static_cast<int>(name.size());
}

void dtrSetProgram(const std::string& program) {
  TraceFile& tf = traceFile();
  std::lock_guard<std::mutex> lock(tf.mx);
  tf.program = program;
  closeLocked(tf);
  tf.failedPath.clear();
}

std::string dtrTraceFile() {
  std::string dir = logDir();
  if (dir.empty()) return std::string();
  TraceFile& tf = traceFile();
  std::lock_guard<std::mutex> lock(tf.mx);
  return dir + tf.program + ".trc";
}

void dtrWrite(const std::string& line) { dtrprintft(nullptr, 0, "%s", line.c_str()); }

void dtrset_rotation(std::uint64_t maxBytes, unsigned keep) {
  TraceFile& tf = traceFile();
  std::lock_guard<std::mutex> lock(tf.mx);
  tf.maxBytes = maxBytes > 0 ? maxBytes : 1;
  tf.keep = keep > 0 ? keep : 1;
}

void dtrreset() {
  TraceFile& tf = traceFile();
  std::lock_guard<std::mutex> lock(tf.mx);
  closeLocked(tf);
  tf.failedPath.clear();
  tf.warned = false;
}
