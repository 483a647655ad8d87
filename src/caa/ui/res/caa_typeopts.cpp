// The options of a resource type. The first scan of a command line knows only the fixed tags;
// what else a create or an update may say is data of the type's definition file, turned here
// into argument objects, and the "-o" text is taken apart into the type's sub-options.
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <vector>

#include "caa/logger/caa_logger.h"
#include "caa/profiler/caa_template.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "caa/ui/res/caa_profargs.h"

namespace CAA {

namespace {

// A writable copy of a text for Cmds::parse, which cuts in place.
std::vector<char> cstr(const std::string& text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  return buf;
}

const int OPT_MAX_SPLITS = 20;

}  // namespace

caa_Status CmdProf::scanTypeOptions(const std::string& type, CmdParse& cmdparse) {
  caa_Status ret = initParams(type);
  if (ret == caa_SUCCESS) {
    cmdparse.initArgs(arg_list);
    ret = procOptArgs();
  }
  if (ret == caa_SUCCESS) {
    scan_level_two = true;
    ret = scanArgs(arg_list);
  }
  return ret;
}

caa_Status CmdProf::initParams(const std::string& type) {
  tdf_attrs.clear();
  tdf_read = false;
  if (CaaTemplate::readTDF(type, tdf_attrs) == 1) {
    caa_logger->log(LOG_STDERR, 175, type.c_str());
    return caa_WARNING;
  }
  tdf_type = type;
  tdf_read = true;
  const AttrMap& amap = tdf_attrs;
  // Each switch with the attributes that carry it; more than one is a clash, since the command
  // line could not tell which attribute a value is for.
  std::map<std::string, std::string> smap;
  for (const auto& attr : amap) {
    std::string sw = attr.second.getValue(pro_SWITCH);
    auto it = smap.find(sw);
    if (it == smap.end())
      smap[sw] = attr.first;
    else
      it->second += " " + attr.first;
  }
  bool clash = false;
  for (const auto& entry : smap) {
    if (entry.second.find(' ') == std::string::npos) continue;
    if (!clash) caa_logger->log(LOG_STDERR, 186, type.c_str());
    clash = true;
    caa_logger->log(LOG_STDERR, 187, entry.first.c_str(), entry.second.c_str());
  }
  if (clash) return caa_WARNING;

  string_Map param_map;
  for (const auto& attr : amap) param_map[attr.second.getValue(pro_SWITCH)] = attr.first + "=" + attr.second.getValue(pro_DEFAULT);
  return uploadArgList(param_map);
}

caa_Status CmdProf::uploadArgList(string_Map& p_map) {
  caa_Status ret = caa_SUCCESS;
  for (const auto& entry : p_map) {
    std::vector<char> value = cstr(entry.second);
    const char* nv[8] = {};
    if (Cmds::parse(value.data(), nv, 5, '=') != 2) {
      caa_logger->log(LOG_STDERR, 161, nv[0]);
      ret = caa_WARNING;
      continue;
    }
    std::vector<char> sw = cstr(entry.first);
    const char* words[8] = {};
    int count = Cmds::parse(sw.data(), words, 5, ' ');
    if (count == 1) {
      if (entry.first != caa_NONE) arg_list.push_back(new caaProfTagValue(1, NOT_ENTERED_NEEDED, entry.first, nv[0], nv[1]));
      // "-B" exists only for a type that has an action script: it names the program from which
      // the script is made.
      if (nv[0] == caa_ACTION_SCRIPT)
        arg_list.push_back(new caaTagValue(1, NOT_ENTERED_NEEDED, NOT_ENTERED, caa_binary_tag, caa_BINARY));
    } else if (count == 2) {
      opt_list.push_back(new caaProfTagValue(1, NOT_ENTERED_NEEDED, words[1], nv[0], nv[1]));
    } else {
      caa_logger->log(LOG_STDERR, 161, nv[0]);
      ret = caa_WARNING;
    }
  }
  if (ret == caa_SUCCESS) arg_list.push_back(new caaTrash(1, caa_TRASH));
  return ret;
}

void CmdProf::replaceChar(char* s, const char* tag, const char oldChar, const char newChar) {
  if (s == nullptr || tag == nullptr || std::strlen(tag) < 2) return;
  std::size_t len = std::strlen(s);
  std::size_t start = 0;
  for (std::size_t i = 2; i < len; ++i) {
    if (s[i] == '=' && s[i - 2] == tag[0] && s[i - 1] == tag[1] && i + 1 < len && s[i + 1] != ',') {
      start = i + 1;
      break;
    }
  }
  if (start == 0) return;
  // The value ends at the comma before the next "name=", or at the end of the text.
  std::size_t end = len;
  const char* next = std::strchr(s + start, '=');
  if (next != nullptr) {
    std::size_t k = static_cast<std::size_t>(next - s) - 1;
    while (k > start && s[k] != ',') --k;
    if (k == start) return;
    end = k;
  }
  for (std::size_t i = start; i < end; ++i)
    if (s[i] == oldChar) s[i] = newChar;
}

caa_Status CmdProf::procOptArgs() {
  caa_Status ret = caa_SUCCESS;
  std::string text;
  for (caaArg* arg : arg_list) {
    if (arg->showArgKey() == caa_PROF_OPTIONAL) {
      text = arg->showArgValue();
      break;
    }
  }
  if (!text.empty()) {
    std::vector<char> copy = cstr(text);
    bool trailing_comma = text.back() == ',';
    replaceChar(copy.data(), "bt", ',', 0x01);
    const char* fields[OPT_MAX_SPLITS + 2] = {};
    int nfields = Cmds::parse(copy.data(), fields, OPT_MAX_SPLITS, ',');
    for (int i = 0; i < nfields; ++i) {
      std::string field = fields[i];
      std::vector<char> fcopy = cstr(field);
      const char* parts[4] = {};
      int nparts = Cmds::parse(fcopy.data(), parts, 2, '=');
      std::string name = parts[0];
      caaArg* found = nullptr;
      if (nparts == 2) {
        for (caaArg* opt : opt_list) {
          if (opt->showArgTag() == name) {
            found = opt;
            break;
          }
        }
        if (found != nullptr) {
          std::string value = parts[1];
          if (name == "bt")
            for (char& c : value)
              if (c == 0x01) c = ',';
          // The quotes go as blanks, which the reading of the profile trims away.
          if (!value.empty() && value.front() == '"' && value.back() == '"') {
            value.front() = ' ';
            value.back() = ' ';
          }
          found->enterArgValue(value);
        }
      }
      auto badField = [&]() {
        char where[MSG_BUF_LEN];
        std::snprintf(where, sizeof where, "#%d, '%s'", i + 1, field.c_str());
        caa_logger->log(LOG_STDERR, 150, text.c_str());
        caa_logger->log(LOG_STDERR, 152, where);
      };
      if (i == nfields - 1 && trailing_comma) {
        caa_logger->log(LOG_STDERR, 150, text.c_str());
        caa_logger->log(LOG_STDERR, 151);
        ret = caa_WARNING;
        break;
      }
      if (nparts != 2) {
        badField();
        caa_logger->log(LOG_STDERR, 153);
        ret = caa_WARNING;
        break;
      }
      if (found == nullptr) {
        badField();
        if (name.empty())
          caa_logger->log(LOG_STDERR, 153);
        else
          caa_logger->log(LOG_STDERR, 160, name.c_str());
        ret = caa_WARNING;
        break;
      }
    }
  }
  auto before_last = arg_list.empty() ? arg_list.end() : std::prev(arg_list.end());
  arg_list.splice(before_last, opt_list);
  return ret;
}

}  // namespace CAA
