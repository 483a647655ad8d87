// The operations on stored profiles that leave their content alone: delete, print and
// validate. Print copies the files as they stand, comments and all; it does not parse them.
#include <cstdio>
#include <cstdlib>
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

caa_Status CmdProf::getProfileContent(const char* rname, std::string& s_rtn_data) {
  char profile_file[Path::buf_len];
  if (ptu_getFile(profile_file, sizeof profile_file, dir_path.c_str(), rname, Path::PROFILE_EXT) == PTU_ERR_NOROOM) {
    caa_logger->log(LOG_STDERR, "FIL failure while generating the name of the profile file");
    return caa_WARNING;
  }
  CaaFile profile(profile_file);
  int pfd = -1;
  if (openProfile(pfd, profile) != caa_SUCCESS) return caa_WARNING;
  std::string orig_str;
  int nread = profile.readFile(pfd, orig_str);
  if (nread < 0) {
    profile.closeFile(pfd);
    return caa_WARNING;
  }
  // Line by line as the file has them; a last line without its newline gets one.
  std::size_t j = 0;
  for (std::size_t i = 0; i < orig_str.size(); ++i) {
    if (orig_str[i] != '\n') continue;
    s_rtn_data.append(orig_str, j, i - j);
    s_rtn_data += '\n';
    j = i + 1;
  }
  if (j < orig_str.size()) {
    s_rtn_data.append(orig_str, j, std::string::npos);
    s_rtn_data += '\n';
  }
  profile.closeFile(pfd);
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
      if (getProfileContent(fname, s_rtn_data) == caa_WARNING) {
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
