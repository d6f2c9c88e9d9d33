#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// A directory that is there for one test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ktclientd-XXXXXX").string();
    path = mkdtemp(pattern.data());
  }
  TemporaryDirectory(TemporaryDirectory const&) = delete;
  TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
  ~TemporaryDirectory() { std::filesystem::remove_all(path); }

  std::filesystem::path path;
};

inline std::string ReadFile(std::filesystem::path const& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Those that contain `part`.
inline std::vector<std::string> ReadLines(std::filesystem::path const& path,
                                          std::string_view part = {}) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.find(part) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

// Runs `function` in a process of its own, for what can be done only once in one; returns its wait
// status. A function that returns ends the process with status 0.
template <typename Function>
int RunInChild(Function function) {
  fflush(nullptr);  // else the child writes what the parent's streams still hold
  pid_t const pid = fork();
  if (pid == 0) {
    function();
    exit(testing::Test::HasFailure() ? 1 : 0);  // with what a process does at its end
  }
  int status = -1;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  return status;
}
