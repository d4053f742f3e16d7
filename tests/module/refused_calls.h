// Makes system calls fail, so that a test sees what follows from a failure that no root can bring
// about by ordinary means.
#ifndef TOV_TEST_MODULE_REFUSED_CALLS_H
#define TOV_TEST_MODULE_REFUSED_CALLS_H

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <initializer_list>
#include <vector>

namespace tov_test {

// Lets the given system calls (SYS_...) of this process and of its children fail with an error
// number. For good, so call it in a forked child (in_child.h) only.
inline void refuse(std::initializer_list<long> calls, int error) {
  std::vector<sock_filter> program;
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
  for (const long call : calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(call), 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0), 0);
}

// While it lives, this process gets no further descriptor.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  NoMoreDescriptors(const NoMoreDescriptors &) = delete;
  NoMoreDescriptors &operator=(const NoMoreDescriptors &) = delete;
  ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

// Gives up what real-time scheduling needs; also in a forked child only.
inline void give_up_priorities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[2] = {};
  ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
  const rlimit no_priority{0, 0};
  ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &no_priority), 0);
}

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_REFUSED_CALLS_H
