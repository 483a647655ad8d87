#include "platform/trace/dtr.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "platform/envs/envs.h"

namespace {

std::mutex g_traceMutex;
std::string g_program = "vyn";  // guarded by g_traceMutex

std::string stamp() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  tm local;
  localtime_r(&tv.tv_sec, &local);
  char buf[64];
  std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(buf + n, sizeof buf - n, ".%03ld [%ld] ", static_cast<long>(tv.tv_usec / 1000),
                static_cast<long>(getpid()));
  return buf;
}

// One write(2) per line on an O_APPEND descriptor, so lines of several processes never interleave.
void appendLine(const std::string& file, const std::string& line) {
  if (file.empty()) return;
  int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string text = stamp() + line + "\n";
  ssize_t ignored = write(fd, text.data(), text.size());
  (void)ignored;
  close(fd);
}

std::string logDir() {
  std::string home = envs_get_zelkor_home();
  return home.empty() ? std::string() : home + "/log/";
}

}  // namespace

void dtrSetProgram(const std::string& program) {
  std::lock_guard<std::mutex> lock(g_traceMutex);
  g_program = program;
}

std::string dtrTraceFile() {
  std::string dir = logDir();
  if (dir.empty()) return std::string();
  std::lock_guard<std::mutex> lock(g_traceMutex);
  return dir + g_program + ".trc";
}

void dtrWrite(const std::string& line) { appendLine(dtrTraceFile(), line); }

void dtr_alertprintft(int level, const char* fmt, ...) {
  char text[2048];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  std::string dir = logDir();
  if (!dir.empty()) appendLine(dir + "alert.log", "level " + std::to_string(level) + ": " + text);
}
