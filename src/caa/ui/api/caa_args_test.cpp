#include "caa/ui/api/caa_args.h"

#include <gtest/gtest.h>

#include <vector>

#include "caa/ui/api/caa_cmds.h"
#include "caa/ui/res/caa_profargs.h"

namespace CAA {
namespace {

// Offers argv[aItr] to an object as the parser does; argc is the last valid index.
class ArgsTest : public ::testing::Test {
 protected:
  caa_Status offer(caaArg& arg, std::vector<std::string> tokens, int at = 1) {
    tokens.insert(tokens.begin(), "vyn_profile");
    storage_ = tokens;
    argv_.clear();
    for (std::string& t : storage_) argv_.push_back(&t[0]);
    argv_.push_back(nullptr);
    cursor_ = at;
    int last = static_cast<int>(storage_.size()) - 1;
    return arg.proc(cursor_, last, argv_.data());
  }
  std::vector<std::string> storage_;
  std::vector<char*> argv_;
  int cursor_ = 0;
};

TEST_F(ArgsTest, MandatoryTagValueWithoutValueIsRefusedAndShowsTheMissingValue) {
  caaTagValue t(1, NOT_ENTERED, "-t", caa_TYPE);
  EXPECT_EQ(offer(t, {"-t"}), caa_FAILURE);
  EXPECT_EQ(t.showStatus(), NOT_ENTERED);

  caaTagValue t2(1, NOT_ENTERED, "-t", caa_TYPE);
  EXPECT_EQ(offer(t2, {"-t", "-x"}), caa_FAILURE);
  EXPECT_EQ(cursor_, 2) << "the tag that followed was swallowed, not offered again";

  caaTagValue t3(1, NOT_ENTERED, "-t", caa_TYPE);
  EXPECT_EQ(offer(t3, {"-t", "   "}), caa_FAILURE) << "blanks only are no value";
  EXPECT_EQ(t3.showStatus(), NOT_ENTERED);

  caaTagValue t4(1, NOT_ENTERED, "-t", caa_TYPE);
  EXPECT_EQ(offer(t4, {"-t", " application  "}), caa_SUCCESS);
  EXPECT_EQ(t4.showStatus(), ENTERED);
  EXPECT_EQ(t4.showArgValue(), "application");
  EXPECT_EQ(offer(t4, {"-t", "other"}), caa_FAILURE) << "the tag may stand only once";
}

TEST_F(ArgsTest, OptionalTagValueTakesAnEmptyOrMissingValue) {
  caaTagValue dir(1, NOT_ENTERED_NEEDED, "-dir", caa_DIR);
  EXPECT_EQ(offer(dir, {"-dir"}), caa_SUCCESS);
  EXPECT_EQ(dir.showStatus(), ENTERED);
  EXPECT_EQ(dir.showArgValue(), "");

  caaTagValue blanks(1, NOT_ENTERED_NEEDED, "-dir", caa_DIR);
  EXPECT_EQ(offer(blanks, {"-dir", "  "}), caa_SUCCESS);
  EXPECT_EQ(blanks.showStatus(), ENTERED);
  EXPECT_EQ(blanks.showArgValue(), "");

  caaTagValue tab(1, NOT_ENTERED_NEEDED, "-dir", caa_DIR);
  EXPECT_EQ(offer(tab, {"-dir", " a\tb "}), caa_SUCCESS);
  EXPECT_EQ(tab.showArgValue(), "a\tb") << "only blanks are trimmed";

  caaTagValue binary(1, NOT_ENTERED_NEEDED, NOT_ENTERED, caa_binary_tag, caa_BINARY);
  EXPECT_EQ(binary.showStatus(), NOT_ENTERED_NEEDED) << "-B may be left out";
  EXPECT_EQ(offer(binary, {"-B"}), caa_FAILURE) << "but wants a value when given";
  EXPECT_EQ(binary.showStatus(), NOT_ENTERED);
}

TEST_F(ArgsTest, ValueTakesOneNonEmptyWordAndListTakesAll) {
  caaValue name(1, NOT_ENTERED, caa_NAME);
  EXPECT_FALSE(name.find("-x"));
  EXPECT_TRUE(name.find("r"));
  EXPECT_EQ(offer(name, {"  "}), caa_FAILURE);
  EXPECT_EQ(offer(name, {" r "}), caa_SUCCESS);
  EXPECT_EQ(name.showArgValue(), "r");
  EXPECT_EQ(offer(name, {"s"}), caa_FAILURE) << "a second bare word falls through";

  caaValue optional(1, NOT_ENTERED_NEEDED, caa_NAME);
  EXPECT_EQ(offer(optional, {"  "}), caa_SUCCESS);
  EXPECT_EQ(optional.showStatus(), ENTERED);

  caaList list(1, NOT_ENTERED_NEEDED, caa_RESOURCE);
  EXPECT_EQ(offer(list, {"a"}), caa_SUCCESS);
  EXPECT_EQ(offer(list, {""}), caa_SUCCESS);
  EXPECT_EQ(offer(list, {" b"}), caa_SUCCESS);
  string_List got;
  list.copyList(got);
  EXPECT_EQ(got, (string_List{"a", "", "b"}));
  string_List out;
  list.setArgList(out);
  EXPECT_EQ(out, (string_List{std::string("RESOURCE=a\x01\x01") + "b"}));
}

TEST_F(ArgsTest, TagListEndsAtTheNextTag) {
  caaTagList tl(1, NOT_ENTERED, "-l", "LIST");
  EXPECT_EQ(offer(tl, {"-l", "a", "b", "-x", "c"}), caa_SUCCESS);
  string_List got;
  tl.copyList(got);
  EXPECT_EQ(got, (string_List{"a", "b"}));
  EXPECT_EQ(cursor_, 3);

  caaTagList empty(1, NOT_ENTERED, "-l", "LIST");
  EXPECT_EQ(offer(empty, {"-l", "-x"}), caa_FAILURE);
  EXPECT_EQ(empty.showStatus(), NOT_ENTERED);
}

TEST_F(ArgsTest, ProfileOptionKeepsItsDefaultUntilAValueComes) {
  caaProfTagValue opt(1, NOT_ENTERED_NEEDED, "-d", "DESCRIPTION", "none given");
  EXPECT_EQ(opt.showStatus(), NOT_ENTERED_NEEDED);
  EXPECT_EQ(opt.showArgTag(), "-d");
  EXPECT_EQ(offer(opt, {"-d"}), caa_SUCCESS);
  EXPECT_EQ(opt.showStatus(), DEFAULT_ENTERED) << "the tag alone keeps the default";
  EXPECT_EQ(opt.showArgValue(), "none given");
  EXPECT_EQ(offer(opt, {"-d", "x"}), caa_FAILURE) << "only once";

  caaProfTagValue given(1, NOT_ENTERED_NEEDED, "-d", "DESCRIPTION", "none given");
  EXPECT_EQ(offer(given, {"-d", " my app "}), caa_SUCCESS);
  EXPECT_EQ(given.showStatus(), ENTERED);
  EXPECT_EQ(given.showArgValue(), "my app");

  caaProfTagValue sub(1, NOT_ENTERED_NEEDED, "as", "AUTO_START", "0");
  sub.enterArgValue("1");
  EXPECT_EQ(sub.showStatus(), ENTERED);
  EXPECT_EQ(sub.showArgValue(), "1");
}

TEST_F(ArgsTest, TrashTakesEverythingAndKeepsTheLast) {
  caaTrash trash(1, caa_TRASH);
  EXPECT_EQ(trash.showStatus(), NOT_ENTERED_NEEDED);
  EXPECT_TRUE(trash.find("-anything"));
  EXPECT_EQ(offer(trash, {"-x"}), caa_SUCCESS);
  EXPECT_EQ(offer(trash, {"y"}), caa_SUCCESS);
  EXPECT_EQ(trash.showStatus(), UNKNOWN_ENTERED);
  EXPECT_EQ(trash.showArgValue(), "y");
  string_List out;
  trash.setArgList(out);
  EXPECT_EQ(out, (string_List{"TRASHy"}));
}

TEST_F(ArgsTest, SetArgListWritesTagsAlwaysAndValuesWhenEntered) {
  caaTagValue dir(1, NOT_ENTERED_NEEDED, "-dir", caa_DIR);
  string_List out;
  dir.setArgList(out);
  EXPECT_EQ(out, (string_List{"DIR_TAG=0"}));
  offer(dir, {"-dir", "/x"});
  out.clear();
  dir.setArgList(out);
  EXPECT_EQ(out, (string_List{"DIR_TAG=1", "DIR=/x"}));
}

}  // namespace
}  // namespace CAA
