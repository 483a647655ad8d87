#ifndef CAA_UI_RES_CAA_CMDPROF_H
#define CAA_UI_RES_CAA_CMDPROF_H

// The profile command. It recognises what it is asked to do from eight usage groups of argument
// objects: every token is offered to every group, exactly one group must be satisfied, and its
// operation runs. A create or an update scans the line a second time with the options that the
// resource type's definition brings.
#include <memory>
#include <string>

#include "caa/ui/api/caa_cmdparse.h"
#include "caa/ui/api/caa_cmds.h"
#include "platform/vynapi/vynapi.h"

namespace CAA {

class CaaFile;
class ProfileLock;

// Refusals of the profile operations, beyond those of the command base.
const int CMD_RES_BAD_NAME = 190;     // a resource name that leads out of the working directory
const int CMD_VALUE_LINE_BREAK = 191;  // a value with a newline or a NUL
const int CMD_VALUE_TOO_LONG = 192;    // a value whose line the reader would cut
const int CMD_VALUE_CONTINUED = 193;   // a value that ends in a backslash
const int CMD_PROFILE_BUSY = 194;      // another process kept the profile's lock too long
const int CMD_PROFILE_NO_LOCK = 195;   // the profile's lock file cannot be made or is unsafe

class CmdProf : public Cmds {
 public:
  static const int PROF_CREATE = 1;
  static const int PROF_FILE_CREATE = 2;
  static const int PROF_DELETE = 3;
  static const int PROF_LIST = 4;
  static const int PROF_TEMPLATE = 5;
  static const int PROF_TYPE_TEMPLATE = 6;
  static const int PROF_UPDATE = 7;
  static const int PROF_VALIDATE = 8;
  static const int PROF_UPDATEDIRECT = 9;

  static const std::string COMMENT_CHAR;
  static const std::string RESOURCE_TYPE_APPLICATION;
  static const std::string tag_option;
  static const std::string tag_type;
  static const std::string tag_dir;
  static const std::string tag_device;
  static const std::string tag_create;
  static const std::string tag_delete;
  static const std::string tag_print;
  static const std::string tag_template;
  static const std::string tag_update;
  static const std::string tag_validate;
  static const std::string tag_register_update;
  static const char* const PROF_USAGE;

  explicit CmdProf(CaaLogger* caa_logger);
  ~CmdProf() override;

  void initArgs();
  caa_Status initPaths() { return constructPaths(); }
  // The whole work of a run: scan, judge, dispatch.
  caa_Status procArgs(CmdParse& cmdparse);
  // Judges the objects after a scan: exactly one complete group, and the modes and directories.
  caa_Status scanArgs(arg_List& local_list);
  // Keeps the chosen group only, renumbered as group 1.
  void removeExtraArgs();
  void clearArgList(arg_List& arg_l);
  void prepareProfile(const std::string& namestr, CaaFile& profile);
  caa_Status openProfile(int& pfd, CaaFile& caa_file);
  void showUsage() override;

  const std::string& profileDir() const { return dir_path; }
  const std::string& scriptDir() const { return scr_dir_path; }
  arg_List& args() { return arg_list; }

  // The operations of the usage groups.
  caa_Status createProfile(CmdParse& cmdparse);
  caa_Status inputProfile();
  caa_Status deleteProfile();
  caa_Status listProfile();
  caa_Status resourceTProfile();
  caa_Status typeTProfile();
  caa_Status updateProfile(CmdParse& cmdparse);
  caa_Status validateProfile();

  // The second stage of a create or an update: the options of a resource type, built from its
  // definition. initParams reads the definition, refuses one switch on two attributes, and
  // hands the switches to uploadArgList, which appends plain options to arg_list (closed by a
  // caaTrash) and the sub-options of "-o" to opt_list.
  caa_Status initParams(const std::string& type);
  // The second scan of a create or an update: the options of the type join the group just
  // built, the line is read again, "-o" is taken apart, and the group is judged, reporting
  // every token that nothing took.
  caa_Status scanTypeOptions(const std::string& type, CmdParse& cmdparse);
  caa_Status uploadArgList(string_Map& p_map);
  // Takes the "-o" text apart into the sub-options, then moves them into arg_list in front of
  // its closing object.
  caa_Status procOptArgs();
  // Within the value of sub-option tag, replaces oldChar by newChar, so that the commas of a
  // value survive the split of the "-o" text at commas.
  static void replaceChar(char* s, const char* tag, const char oldChar, const char newChar);
  // Appends the profile rname of the working directory to s_rtn_data, line by line.
  caa_Status getProfileContent(const char* rname, std::string& s_rtn_data);
  // The profile a create is to write: refused if it exists, unless "-f", which renews its backup.
  caa_Status prepareNewProfile(const std::string& namestr, CaaFile& profile);
  // Every operation asks this first, before it touches a file: a resource name must name a file
  // of the working directory, so it holds no "/". Message 190 otherwise.
  caa_Status checkResourceName(const std::string& name);
  // Refuses, with a message each, the values that would not read back from the profile as they
  // stand (a line break, a line too long, a closing backslash).
  caa_Status checkValues(const string_Map& values);
  // Makes ready to change the profile `name`: removes what killed runs left in the working
  // directory, then takes the profile's lock, to be held until the change is complete and told.
  // Null, after message 194 or 195, when the lock cannot be had.
  std::unique_ptr<ProfileLock> lockProfile(const std::string& name);
  // The end of a create or an update: refuses values that would not read back, validates the map
  // (mending it if fixup), and writes it to `profile`, replacing a file only with overwrite. A
  // broken rule is reported by the rules, and then by message 180 if report_invalid; a failed
  // write by the exception's text on standard output, or by 162 for a file that appeared.
  // *tried, if given, tells whether the map was good enough for the write to be tried.
  caa_Status saveProfile(string_Map& paramMap, const CaaFile& profile, bool fixup, bool report_invalid,
                         bool overwrite, bool* tried = nullptr);
  // Tells the cluster what happened to a resource's profile: the event `name` with the string
  // variable "_name". A daemon that cannot be reached is reported, and changes no result.
  void postProfileEvent(const char* name, const std::string& resource);
  // Runs the script template to make the action script <scr_dir_path>/<fname>.<ext> for bname.
  caa_Status createActionScript(std::string& ascript_fname, std::string& ascript_ext, std::string& resname,
                                std::string& bname);
  // Takes away an action script of this run; nothing to do for an empty name or a missing file.
  caa_Status removeActionScript(std::string& ascript_fname, std::string& ascript_ext);
  arg_List& options() { return opt_list; }

  // The direct update: instead of rewriting the profile, hands the attributes that the command
  // line gives (the options of an application) to the resource-registration client, which
  // changes the registered resource. No usage group leads here; it is an operation of its own.
  caa_Status processDirectProfileUpdate(CmdParse& cmdParse);
  void initDirectProfileUpdateUsage();
  void initDirectProfileUpdateParsingArgs();
  // Copies the value of the first object with that key; false when there is none.
  static bool getArgValue(const arg_List& list, const std::string& key, std::string& value);
  caa_Status performDirectProfileUpdate(const std::string& resourceName, const string_Map& attribs);
  // Prints the client's code, then tells the user in words: 249 as itself, a failure to reach the
  // resource manager as 184, a bad request as 201, anything else as 200.
  void logApiError(VYNAPI_STAT errorCode);

 private:
  void initUsage1();
  void initUsage2();
  void initUsage3();
  void initUsage4();
  void initUsage5();
  void initUsage6();
  void initUsage7();
  void initUsage8();

  bool scan_level_two;
  std::string dir_path;
  std::string scr_dir_path;
  string_List resource_list;
  arg_List opt_list;
  // What a direct update hands over.
  string_Map paramMap;
  std::string resourceName;
};

// Tells the user what the resource-registration client reports: the text on standard output,
// ending in a newline.
void caaCmdProfMsg2Callback(void* pArg, const zeltext* pId, const zeltext* pMsg, vynapi_msgtype msgtype);

// Writes a profile, or a template, from a map already checked, and tells the user why it could
// not: a file that may not be replaced (it exists, or appeared meanwhile) as 162, any other fault
// as the model's own text on standard output.
caa_Status writeProfileFile(string_Map& paramMap, const std::string& name, bool overwrite, bool isTemplate,
                            CaaLogger* logger);

}  // namespace CAA

#endif
