// The operations on stored profiles that leave their content alone: delete, print and
// validate. Print copies the files as they stand, comments and all; it does not parse them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_Path.h"
#include "caa/logger/caa_event.h"
#include "caa/logger/caa_logger.h"
#include "caa/profiler/caa_profile.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "caa/ui/res/caa_proflist.h"
#include "caa/ui/res/caa_proflock.h"
#include "platform/osl/osl.h"
#include "platform/osl/osl_fd.h"
#include "platform/ptu/ptu.h"

namespace CAA {

namespace {


// The size at which the text of a print of all profiles is written out.
const std::size_t STREAM_CHUNK = 64 * 1024;

void listFailure(const osrec& ose) {
  std::printf("CmdProf::listProfile \n  %s", osrecFormat(ose).c_str());
  std::fflush(stdout);
}

}  // namespace

caa_Status CmdProf::deleteProfile() {
  std::string res_str = argValue(caa_RESOURCE);
  if (checkResourceName(res_str) != caa_SUCCESS) return caa_WARNING;
  // Held until the event has left, so that the cluster hears of the changes in their order.
  std::unique_ptr<ProfileLock> lock = lockProfile(res_str);
  if (!lock) return caa_WARNING;
  CaaFile profile;
  prepareProfile(res_str, profile);
  if (!profile.exists()) {
    caa_logger->log(LOG_STDERR, 170, res_str.c_str());
    return caa_WARNING;
  }
  if (!profile.remove()) {
    caa_logger->log(LOG_STDERR, 169, res_str.c_str());
    return caa_WARNING;
  }
  // The file is gone before the event leaves, and a failed post does not change this result.
  // The action script and any backup stay: a delete touches the .cap file only.
  postProfileEvent(EVENT_PROFILE_DELETE, res_str);
  return caa_SUCCESS;
}

caa_Status CmdProf::getProfileContent(const char* rname, std::string& s_rtn_data, int dfd) {
  char profile_file[Path::buf_len];
  if (ptu_getFile(profile_file, sizeof profile_file, dir_path.c_str(), rname, Path::PROFILE_EXT) == PTU_ERR_NOROOM) {
    caa_logger->log(LOG_STDERR, "FIL failure while generating the name of the profile file");
    return caa_WARNING;
  }
  // A FIFO put where a profile belongs must not hold the command up. Within a walk of the
  // directory the file is opened relative to it, which spares a lookup of the whole path.
  const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
  OslFd fd(dfd >= 0 ? openat(dfd, (std::string(rname) + "." + Path::PROFILE_EXT).c_str(), flags)
                    : open(profile_file, flags));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0) return caa_WARNING;
  // The file is read up to the size it had, or its end, straight behind what s_rtn_data holds.
  std::size_t at = s_rtn_data.size();
  std::size_t size = static_cast<std::size_t>(st.st_size);
  s_rtn_data.resize(at + size);
  std::size_t got = 0;
  while (got < size) {
    ssize_t n = read(fd.get(), &s_rtn_data[at + got], size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      s_rtn_data.resize(at);
      return caa_WARNING;
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  // Its lines as they stand: the text ends at a zero byte, and a last line without its newline
  // gets one.
  const void* nul = std::memchr(s_rtn_data.data() + at, '\0', got);
  if (nul != nullptr) got = static_cast<std::size_t>(static_cast<const char*>(nul) - (s_rtn_data.data() + at));
  s_rtn_data.resize(at + got);
  if (got > 0 && s_rtn_data.back() != '\n') s_rtn_data += '\n';
  return caa_SUCCESS;
}

caa_Status CmdProf::listProfile() {
  caa_Status ret = caa_SUCCESS;
  std::string s_rtn_data;
  string_List names;
  for (caaArg* arg : arg_list)
    if (arg->showArgKey() == caa_RESOURCE) arg->copyList(names);
  // A name that leads out of the working directory refuses the whole print, before any read.
  for (const std::string& name : names)
    if (checkResourceName(name) != caa_SUCCESS) return caa_WARNING;
  caa_logger->set();
  caa_logger->append();

  if (!names.empty()) {
    // Good profiles first, then one message for each name that could not be read.
    std::string output_str, error_str;
    for (const std::string& name : names) {
      if (getProfileContent(name.c_str(), s_rtn_data) == caa_WARNING) {
        error_str += caa_logger->toString(181, name.c_str());
        error_str += '\n';
        ret = caa_WARNING;
      } else {
        output_str += s_rtn_data;
        output_str += '\n';
      }
      s_rtn_data.clear();
    }
    caa_logger->set(output_str);
    caa_logger->append(error_str);
    caa_logger->append();
  } else {
    // The text goes out as it grows, so that memory stays flat however many profiles there
    // are; only in quiet mode, where the whole text is one event, is it gathered first.
    const std::size_t flush_at = quiet_mode ? std::string::npos : STREAM_CHUNK;
    ProfileList list(dir_path, Path::PROFILE_EXT);
    osrec ose;
    // The profiles are opened relative to their directory (or by their whole path, should it not
    // open).
    OslFd dfd(open(dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (list.open(&ose) != 0) {
      listFailure(ose);
      return caa_FAILURE;
    }
    std::string filename;
    for (;;) {
      int rc = list.next(&ose, &filename);
      if (rc == OSL_FILELIST_END) break;
      if (rc != 0) {
        listFailure(ose);
        return caa_FAILURE;
      }
      char fname[Path::buf_len], path[Path::buf_len], ext[Path::buf_len], ver[Path::buf_len];
      osrec fe;
      if (Osfpfn(fname, path, ext, ver, filename.c_str(), &fe, 0) != 0) {
        std::fputs(osrecFormat(fe).c_str(), stdout);
        continue;
      }
      // A profile that vanished or cannot be read since the listing is skipped.
      if (getProfileContent(fname, s_rtn_data, dfd.get()) == caa_WARNING) {
        ret = caa_WARNING;
        continue;
      }
      caa_logger->append("FILE_NAME=");
      caa_logger->append(filename);
      caa_logger->append();
      caa_logger->append(s_rtn_data);
      caa_logger->append();
      s_rtn_data.clear();
      if (caa_logger->getText().size() >= flush_at) {
        display();
        caa_logger->set();
      }
    }
  }
  display();
  return ret;
}

caa_Status CmdProf::validateProfile() {
  std::string namestr = argValue(caa_NAME);
  if (checkResourceName(namestr) != caa_SUCCESS) return caa_WARNING;
  CaaFile profile;
  prepareProfile(namestr, profile);
  bool ret_code = false;
  try {
    ret_code = Profile::validateProfile(profile.getName());
  } catch (const X_PROF_InvalidFile&) {
    caa_logger->log(LOG_STDERR, 181, profile.getName().c_str());
  } catch (const X_PROF_SyntaxError& e) {
    std::printf("%s\n", e.what().c_str());
    std::fflush(stdout);
  }
  if (!ret_code) {
    caa_logger->log(LOG_STDERR, 180, profile.getName().c_str());
    return caa_WARNING;
  }
  return caa_SUCCESS;
}

}  // namespace CAA
