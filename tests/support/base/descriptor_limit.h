#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "base/unique_fd.h"

// The number that the next descriptor gets, or the one after `count` more; -1 where there is none.
inline int GetNextDescriptor(int count = 0) {
  Base::UniqueFd const fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return count == 0 ? fd.Get() : GetNextDescriptor(count - 1);
}

// Lets this process have no descriptor from `number` on, for as long as it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int number) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &_before), 0);
    rlimit const limit{static_cast<rlim_t>(number), _before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  DescriptorLimit(DescriptorLimit const&) = delete;
  DescriptorLimit& operator=(DescriptorLimit const&) = delete;
  ~DescriptorLimit() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &_before), 0); }

 private:
  rlimit _before{};
};
