#pragma once

#include <chrono>
#include <memory>
#include <string>

// Builds a tar archive (pax format), compressed by gzip, in memory.
//
// Each member is a regular file of root with mode 0600. The names of the user and of the machine
// do not appear in a header.
//
// Errors: each function throws Support::Error "archive-not-written" with the library's text.
// Threads: any, one at a time.
class Archive {
 public:
  // `time` is the time of change of every member, in whole seconds.
  explicit Archive(std::chrono::system_clock::time_point time);
  Archive(Archive const&) = delete;
  Archive& operator=(Archive const&) = delete;
  ~Archive();

  // `path` is relative, such as "report/README".
  void Add(std::string const& path, std::string const& bytes);

  // Ends the archive and returns its bytes. No other call may follow.
  std::string Finish();

 private:
  struct Writer;

  std::chrono::system_clock::time_point const _time;
  std::unique_ptr<Writer> _writer;
};
