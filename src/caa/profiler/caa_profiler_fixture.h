#ifndef CAA_PROFILER_CAA_PROFILER_FIXTURE_H
#define CAA_PROFILER_CAA_PROFILER_FIXTURE_H

// A scratch directory for the profiler's tests, made the template directory, with helpers to
// write files into it. Removed with its content afterwards.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "caa/lib/caa_Path.h"

class ProfilerDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_profiler_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    CAA::Path::template_path = dir + "/";
    CAA::Path::profile_path = dir + "/";
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

  std::string write(const std::string& name, const std::string& text) {
    std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  // The definition files the rules of the types refer to, in a small form.
  void writeTypes() {
    write("generic.tdf",
          "ATTRIBUTE: NAME\nTYPE: name_string\nSWITCH: none\nREQUIRED: yes\n"
          "ATTRIBUTE: TYPE\nSWITCH: -t\nREQUIRED: yes\n"
          "ATTRIBUTE: DESCRIPTION\nSWITCH: -d\n");
    write("application.tdf",
          "ATTRIBUTE: ACTION_SCRIPT\nTYPE: file\nSWITCH: -a\nREQUIRED: yes\n"
          "ATTRIBUTE: PLACEMENT\nSWITCH: -p\nDEFAULT: balanced\n"
          "ATTRIBUTE: HOSTING_MEMBERS\nTYPE: name_list\nSWITCH: -h\n"
          "ATTRIBUTE: AUTO_START\nSWITCH: -o as\nDEFAULT: restore\n"
          "ATTRIBUTE: CHECK_INTERVAL\nTYPE: positive_integer\nSWITCH: -o ci\nDEFAULT: 60\n"
          "ATTRIBUTE: UPTIME_THRESHOLD\nSWITCH: -o ut\nDEFAULT: 0\n"
          "ATTRIBUTE: REBALANCE\nSWITCH: -o bt\n"
          "ATTRIBUTE: PRIORITY\nTYPE: integer\nSWITCH: -o pr\n");
    write("network.tdf", "ATTRIBUTE: SUBNET\nSWITCH: -s\n");
    write("tape.tdf", "ATTRIBUTE: DEVICE_NAME\nSWITCH: -n\n");
  }

  std::string dir;
};

#endif
