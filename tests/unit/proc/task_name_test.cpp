// What messages call a task.
#include "proc/task_name.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "include/tov_registry.h"

TEST(TovTaskName, WhatFollowsTheLastSlash) {
  const auto name = [](const char *process) {
    tov_pid_t record{};
    (void)snprintf(record.process, sizeof record.process, "%s", process);
    return std::string(tov_task_name_s(record).text);
  };
  EXPECT_EQ(name("/opt/foo"), "foo");
  EXPECT_EQ(name("/opt/foo -c /etc/x"), "x");
  EXPECT_EQ(name("foo -c"), "foo -c");
  EXPECT_EQ(name("/opt/foo \t "), "foo");
  EXPECT_EQ(name("/opt/"), "");
  EXPECT_EQ(name(""), "");
}
