#ifndef CAA_UI_API_CAA_ARGS_H
#define CAA_UI_API_CAA_ARGS_H

// Argument objects. Each thing that may stand on a command line is an object; the parser offers
// every token to the objects in turn. An object says whether a token is for it (find), takes the
// token and any value behind it (proc), and afterwards tells whether it was satisfied
// (showStatus) and what it holds (showArgValue). A usage group is a run of objects sharing an
// arg_id, closed by a caaTrash that takes whatever nobody else kept.
//
// proc never prints or throws: a refusal is only the result caa_FAILURE, and the status that
// showStatus shows afterwards.
#include <list>
#include <string>

#include "caa/lib/caa_types.h"

namespace CAA {

// As a constructor argument NOT_ENTERED means mandatory and NOT_ENTERED_NEEDED optional.
enum arg_Status {
  NOT_ENTERED = 0,
  NOT_ENTERED_NEEDED = 1,
  DEFAULT_ENTERED = 2,
  UNKNOWN_ENTERED = 3,
  ENTERED = 4,
};

class caaArg;
typedef std::list<caaArg*> arg_List;

class caaArg {
 public:
  static const std::string ARG_TRUE;   // "1"
  static const std::string ARG_FALSE;  // "0"

  caaArg(int id, const std::string& key_str) : arg_id(id), key(key_str) {}
  virtual ~caaArg() = default;

  virtual void resetArgValue() {}
  virtual void copyList(string_List&) {}
  virtual void enterArgValue(const std::string&) {}
  virtual bool find(const std::string& str) = 0;
  // aItr is the parser's cursor and argc the last valid index of argv; proc may move the
  // cursor forward to swallow a value.
  virtual caa_Status proc(int& aItr, const int& argc, char** argv) = 0;
  virtual arg_Status& showStatus() = 0;
  virtual void setArgList(string_List& output_list) = 0;
  virtual std::string& showArgTag() { return key; }
  virtual std::string& showArgValue() { return key; }

  int& showArgID() { return arg_id; }
  void setArgID(const int& id) { arg_id = id; }
  std::string& showArgKey() { return key; }

 protected:
  // A value that must follow the tag: FAILURE when nothing follows or the next token is a tag;
  // the cursor stays on that token so it is not offered again.
  static caa_Status procKeyAndValue(int& aItr, const int& argc, char** argv);
  // A value that may follow: CONTINUE, cursor unmoved, when nothing or a tag follows.
  static caa_Status procKeyOrValue(int& aItr, const int& argc, char** argv);
  // The text between leading and trailing blanks (0x20 only), or empty.
  static void removeWhiteSpace(const std::string& arg_str, std::string& in_str);
  // Sets start_pos to the first non-blank; the length up to the trailing blanks (below 1 if none).
  static int paramFilter(const std::string& param, int& start_pos);

  int arg_id;
  std::string key;
};

class caaTag : public virtual caaArg {
 public:
  caaTag(int id, const std::string& tag_str, const std::string& key_str);
  caaTag(int id, arg_Status arg_stat, const std::string& tag_str, const std::string& key_str);

  bool find(const std::string& str) override { return str == tag; }
  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override { return tag_stat; }
  void setArgList(string_List& output_list) override;
  std::string& showArgValue() override;

 protected:
  std::string tag;
  arg_Status tag_stat;
  std::string tag_value;  // ARG_TRUE or ARG_FALSE, as last shown
};

class caaValue : public virtual caaArg {
 public:
  caaValue(int id, const std::string& key_str);
  caaValue(int id, arg_Status arg_stat, const std::string& key_str);

  bool find(const std::string& str) override { return str.empty() || str[0] != '-'; }
  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override { return val_stat; }
  void setArgList(string_List& output_list) override;
  std::string& showArgValue() override { return arg_str; }
  void writeValue(const std::string& str) { arg_str = str; }

 protected:
  std::string arg_str;
  arg_Status val_stat;
};

class caaList : public virtual caaArg {
 public:
  caaList(int id, const std::string& key_str);
  caaList(int id, arg_Status arg_stat, const std::string& key_str);

  bool find(const std::string& str) override { return str.empty() || str[0] != '-'; }
  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override { return list_stat; }
  void enterArgValue(const std::string& str) override { arg_list.push_back(str); }
  void setArgList(string_List& output_list) override;
  void copyList(string_List& new_list) override { new_list = arg_list; }
  void resetArgValue() override { arg_list.clear(); }
  void writeList(std::string& str) { arg_list.push_back(str); }

 protected:
  string_List arg_list;
  arg_Status list_stat;
};

class caaTagValue : public caaTag, public caaValue {
 public:
  caaTagValue(int id, arg_Status arg_stat, const std::string& tag_str, const std::string& key_str);
  caaTagValue(int id, arg_Status tag_stat, arg_Status val_stat, const std::string& tag_str, const std::string& key_str);

  bool find(const std::string& str) override { return str == tag; }
  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override;
  void setArgList(string_List& output_list) override;
  std::string& showArgValue() override { return arg_str; }
};

class caaTagList : public caaTag, public caaList {
 public:
  caaTagList(int id, arg_Status arg_stat, const std::string& tag_str, const std::string& key_str);
  caaTagList(int id, arg_Status tag_stat, arg_Status list_stat, const std::string& tag_str, const std::string& key_str);

  bool find(const std::string& str) override { return str == tag; }
  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override;
  void setArgList(string_List& output_list) override;
  std::string& showArgValue() override { return caaTag::showArgValue(); }
};

class caaTrash : public caaArg {
 public:
  caaTrash(int id, const std::string& key_str);

  bool find(const std::string&) override { return true; }
  caa_Status proc(int& aItr, const int& argc, char** argv) override;
  arg_Status& showStatus() override { return arg_stat; }
  void setArgList(string_List& output_list) override;
  std::string& showArgValue() override { return arg_str; }

 private:
  std::string arg_str;
  arg_Status arg_stat;
};

}  // namespace CAA

#endif
