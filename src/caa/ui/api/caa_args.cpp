#include "caa/ui/api/caa_args.h"

#include <cstring>

#include "platform/ptu/ptu.h"

namespace CAA {

const std::string caaArg::ARG_TRUE = "1";
const std::string caaArg::ARG_FALSE = "0";

namespace {
// What stdin may hold for a list tag that reads there.
const std::size_t kStdinLen = 1024;
}  // namespace

caa_Status caaArg::procKeyAndValue(int& aItr, const int& argc, char** argv) {
  if (aItr >= argc) return caa_FAILURE;
  ++aItr;
  return argv[aItr][0] == '-' ? caa_FAILURE : caa_SUCCESS;
}

caa_Status caaArg::procKeyOrValue(int& aItr, const int& argc, char** argv) {
  if (aItr >= argc) return caa_CONTINUE;
  if (argv[aItr + 1][0] == '-') return caa_CONTINUE;
  ++aItr;
  return caa_SUCCESS;
}

int caaArg::paramFilter(const std::string& param, int& start_pos) {
  std::string::size_type first = param.find_first_not_of(' ');
  if (first == std::string::npos) {
    start_pos = static_cast<int>(param.size());
    return 0;
  }
  std::string::size_type last = param.find_last_not_of(' ');
  start_pos = static_cast<int>(first);
  return static_cast<int>(last - first + 1);
}

void caaArg::removeWhiteSpace(const std::string& arg_str, std::string& in_str) {
  int start = 0;
  int len = paramFilter(arg_str, start);
  in_str = len < 1 ? std::string() : arg_str.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(len));
}

caaTag::caaTag(int id, const std::string& tag_str, const std::string& key_str)
    : caaArg(id, key_str), tag(tag_str), tag_stat(NOT_ENTERED) {}

caaTag::caaTag(int id, arg_Status arg_stat, const std::string& tag_str, const std::string& key_str)
    : caaArg(id, key_str), tag(tag_str), tag_stat(arg_stat) {}

caa_Status caaTag::proc(int&, const int&, char**) {
  tag_stat = ENTERED;
  return caa_SUCCESS;
}

void caaTag::setArgList(string_List& output_list) {
  output_list.push_back(key + "_TAG" + "=" + (tag_stat == ENTERED ? ARG_TRUE : ARG_FALSE));
}

std::string& caaTag::showArgValue() {
  tag_value = tag_stat == ENTERED ? ARG_TRUE : ARG_FALSE;
  return tag_value;
}

caaValue::caaValue(int id, const std::string& key_str) : caaArg(id, key_str), val_stat(NOT_ENTERED) {}

caaValue::caaValue(int id, arg_Status arg_stat, const std::string& key_str) : caaArg(id, key_str), val_stat(arg_stat) {}

caa_Status caaValue::proc(int& aItr, const int&, char** argv) {
  std::string text;
  removeWhiteSpace(argv[aItr], text);
  if (val_stat == ENTERED) return caa_FAILURE;
  if (val_stat == NOT_ENTERED && text.empty()) return caa_FAILURE;
  arg_str = text;
  val_stat = ENTERED;
  return caa_SUCCESS;
}

void caaValue::setArgList(string_List& output_list) {
  if (val_stat == ENTERED) output_list.push_back(key + "=" + arg_str);
}

caaList::caaList(int id, const std::string& key_str) : caaArg(id, key_str), list_stat(NOT_ENTERED) {}

caaList::caaList(int id, arg_Status arg_stat, const std::string& key_str) : caaArg(id, key_str), list_stat(arg_stat) {}

caa_Status caaList::proc(int& aItr, const int&, char** argv) {
  std::string text;
  removeWhiteSpace(argv[aItr], text);
  arg_list.push_back(text);
  list_stat = ENTERED;
  return caa_SUCCESS;
}

void caaList::setArgList(string_List& output_list) {
  if (list_stat != ENTERED) return;
  std::string joined;
  for (const std::string& v : arg_list) joined += v + '\x01';
  if (!joined.empty()) joined.pop_back();
  output_list.push_back(key + "=" + joined);
}

caaTagValue::caaTagValue(int id, arg_Status arg_stat, const std::string& tag_str, const std::string& key_str)
    : caaArg(id, key_str), caaTag(id, arg_stat, tag_str, key_str), caaValue(id, arg_stat, key_str) {}

caaTagValue::caaTagValue(int id, arg_Status t_stat, arg_Status v_stat, const std::string& tag_str,
                         const std::string& key_str)
    : caaArg(id, key_str), caaTag(id, t_stat, tag_str, key_str), caaValue(id, v_stat, key_str) {}

caa_Status caaTagValue::proc(int& aItr, const int& argc, char** argv) {
  if (tag_stat == ENTERED) return caa_FAILURE;
  tag_stat = ENTERED;
  switch (val_stat) {
    case NOT_ENTERED: {
      if (procKeyAndValue(aItr, argc, argv) == caa_FAILURE) return caa_FAILURE;
      std::string text;
      removeWhiteSpace(argv[aItr], text);
      if (text.empty()) return caa_FAILURE;
      arg_str = text;
      val_stat = ENTERED;
      return caa_SUCCESS;
    }
    case NOT_ENTERED_NEEDED:
      if (procKeyOrValue(aItr, argc, argv) == caa_SUCCESS) {
        removeWhiteSpace(argv[aItr], arg_str);
        val_stat = ENTERED;
      }
      return caa_SUCCESS;
    default:
      return caa_FAILURE;
  }
}

arg_Status& caaTagValue::showStatus() {
  if (tag_stat == ENTERED && val_stat == NOT_ENTERED) return val_stat;
  return tag_stat;
}

void caaTagValue::setArgList(string_List& output_list) {
  caaTag::setArgList(output_list);
  caaValue::setArgList(output_list);
}

caaTagList::caaTagList(int id, arg_Status arg_stat, const std::string& tag_str, const std::string& key_str)
    : caaArg(id, key_str), caaTag(id, arg_stat, tag_str, key_str), caaList(id, arg_stat, key_str) {}

caaTagList::caaTagList(int id, arg_Status t_stat, arg_Status l_stat, const std::string& tag_str,
                       const std::string& key_str)
    : caaArg(id, key_str), caaTag(id, t_stat, tag_str, key_str), caaList(id, l_stat, key_str) {}

caa_Status caaTagList::proc(int& aItr, const int& argc, char** argv) {
  tag_stat = ENTERED;
  if (tag == "-xi") {
    char buf[kStdinLen + 1];
    int n = ptu_readStdin(buf, kStdinLen);
    buf[n > 0 ? n : 0] = '\0';
    char* save = nullptr;
    for (char* piece = strtok_r(buf, "\x01", &save); piece != nullptr; piece = strtok_r(nullptr, "\x01", &save)) {
      std::string text;
      removeWhiteSpace(piece, text);
      arg_list.push_back(text);
    }
    list_stat = ENTERED;
    return caa_SUCCESS;
  }
  while (aItr <= argc) {
    caa_Status rc;
    if (list_stat == NOT_ENTERED) {
      rc = procKeyAndValue(aItr, argc, argv);
      if (rc == caa_SUCCESS) {
        std::string text;
        removeWhiteSpace(argv[aItr], text);
        if (text.empty()) {
          rc = caa_FAILURE;
        } else {
          arg_list.push_back(text);
          list_stat = ENTERED;
        }
      }
    } else {
      rc = procKeyOrValue(aItr, argc, argv);
      if (rc == caa_SUCCESS) {
        std::string text;
        removeWhiteSpace(argv[aItr], text);
        arg_list.push_back(text);
        list_stat = ENTERED;
      }
    }
    if (rc == caa_CONTINUE) return caa_SUCCESS;
    if (rc == caa_FAILURE) return caa_FAILURE;
  }
  return caa_SUCCESS;
}

arg_Status& caaTagList::showStatus() {
  if (tag_stat == ENTERED && list_stat == NOT_ENTERED) return list_stat;
  return tag_stat;
}

void caaTagList::setArgList(string_List& output_list) {
  caaTag::setArgList(output_list);
  caaList::setArgList(output_list);
}

caaTrash::caaTrash(int id, const std::string& key_str) : caaArg(id, key_str), arg_stat(NOT_ENTERED_NEEDED) {}

caa_Status caaTrash::proc(int& aItr, const int&, char** argv) {
  if (arg_stat == NOT_ENTERED_NEEDED) arg_stat = UNKNOWN_ENTERED;
  arg_str = argv[aItr];
  return caa_SUCCESS;
}

void caaTrash::setArgList(string_List& output_list) {
  if (arg_stat == UNKNOWN_ENTERED) output_list.push_back(key + arg_str);
}

}  // namespace CAA
