// Steps of a test without the superuser's rights.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace test {

constexpr id_t kNobody = 65534;

/// Runs `steps` in a child that is not the superuser, whom no permission stops. The child's failed
/// expectations are printed by it and make the parent's fail.
inline void as_an_ordinary_user(const std::function<void()>& steps) {
  const pid_t child = fork();
  if (child == 0) {
    if (geteuid() == 0 &&
        (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0))
      _exit(2);
    steps();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the child crashed, status " << status;
  ASSERT_NE(WEXITSTATUS(status), 2) << "the child could not change its user";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace test
