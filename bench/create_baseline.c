/* The floor under "vyn_profile -create NAME -f": a small program that does only what such a
 * create must do on disk. It reads the profile that stands, writes it beside itself as the backup,
 * writes the new text beside the profile, syncing each file before it is renamed into place, and
 * syncs their directory once.
 * Usage: create_baseline DIR NAME TEXTFILE (TEXTFILE holds the new profile's text). */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char buf[1 << 16];

static int readAll(const char* path, size_t* len) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) return -1;
  ssize_t n;
  *len = 0;
  while ((n = read(fd, buf + *len, sizeof buf - *len)) > 0) *len += (size_t)n;
  close(fd);
  return n < 0 ? -1 : 0;
}

static int replace(const char* dir, const char* name, const char* ext, const char* data, size_t len) {
  char tmp[4096], path[4096];
  snprintf(tmp, sizeof tmp, "%s/.%s.%s.tmp.%d", dir, name, ext, (int)getpid());
  snprintf(path, sizeof path, "%s/%s.%s", dir, name, ext);
  int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) return -1;
  int rc = write(fd, data, len) == (ssize_t)len && fsync(fd) == 0 ? 0 : -1;
  if (close(fd) != 0) rc = -1;
  if (rc == 0) rc = rename(tmp, path);
  if (rc != 0) unlink(tmp);
  return rc;
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: create_baseline DIR NAME TEXTFILE\n");
    return 2;
  }
  const char* dir = argv[1];
  const char* name = argv[2];
  char path[4096];
  size_t len = 0;
  snprintf(path, sizeof path, "%s/%s.cap", dir, name);
  if (readAll(path, &len) != 0 || replace(dir, name, "bak", buf, len) != 0) return 1;
  if (readAll(argv[3], &len) != 0 || replace(dir, name, "cap", buf, len) != 0) return 1;
  int dfd = open(dir, O_RDONLY | O_DIRECTORY);
  if (dfd < 0 || fsync(dfd) != 0) return 1;
  close(dfd);
  return 0;
}
