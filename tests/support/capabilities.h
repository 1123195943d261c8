// SPDX-License-Identifier: Apache-2.0
// Capabilities that a test gives up for a while.
#ifndef TESTS_CAPABILITIES_H
#define TESTS_CAPABILITIES_H

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

// What it takes to load a program into the kernel is given up as long as this lives.
class without_programs {
  public:
    without_programs() {
        EXPECT_EQ(::syscall(SYS_capget, &header_, before_), 0);
        __user_cap_data_struct less[2] = {before_[0], before_[1]};
        for (const unsigned capability : {CAP_SYS_ADMIN, CAP_PERFMON, CAP_BPF})
            less[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
        EXPECT_EQ(::syscall(SYS_capset, &header_, less), 0);
    }
    without_programs(const without_programs &) = delete;
    without_programs &operator=(const without_programs &) = delete;
    ~without_programs() { EXPECT_EQ(::syscall(SYS_capset, &header_, before_), 0); }

  private:
    __user_cap_header_struct header_{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct before_[2] = {};
};

#endif
