// SPDX-License-Identifier: Apache-2.0
//
// The settings calls of the agent: two stores, numbers, and what the log says of a store that
// fails.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>

#include "platform/sys.h"
#include "tests/unit/linux/support.h"

namespace {

class SettingsTest : public RootTest {
 protected:
  std::string persistent_ = at("/var/conf/nvram.conf");
  std::string temporary_ = at("/var/run/morva/nvram.tmp.conf");
};

TEST_F(SettingsTest, UnsetKeys) {
  EXPECT_STREQ("", nvram_safe_get("product_sn"));
  EXPECT_STREQ("", nvram_safe_get(nullptr));
  EXPECT_STREQ("", nvram_safe_get("../../etc"));
  EXPECT_EQ(0, nvram_get_int("have_poe"));
  EXPECT_EQ(-7, nvram_get_int_default("have_poe", -7));
}

TEST_F(SettingsTest, TemporaryValuesStandInFront) {
  write_file(persistent_, "qel_enable=1\nproduct_sn=SN1\n");
  EXPECT_EQ(1, nvram_get_int("qel_enable"));
  EXPECT_EQ(0, nvram_set_int_temp("qel_enable", 0));
  EXPECT_EQ(0, nvram_get_int("qel_enable"));
  EXPECT_EQ("qel_enable=0\n", read_file(temporary_));
  EXPECT_EQ("qel_enable=1\nproduct_sn=SN1\n", read_file(persistent_));
  EXPECT_STREQ("SN1", nvram_safe_get("product_sn"));
}

TEST_F(SettingsTest, SetIsInTheFileWhenItReturns) {
  EXPECT_EQ(0, nvram_set_int("qel_sys_active", 3));
  EXPECT_EQ("qel_sys_active=3\n", read_file(persistent_));
  EXPECT_EQ(0, nvram_set_int("qel_sys_active", -2147483647 - 1));
  EXPECT_EQ("qel_sys_active=-2147483648\n", read_file(persistent_));
  EXPECT_EQ(-2147483647 - 1, nvram_get_int("qel_sys_active"));
}

TEST_F(SettingsTest, OnlyDecimalNumbersAreNumbers) {
  write_file(persistent_,
             "plain=12\nnegative=-5\nzeros=007\ntail=12x\nempty=\nblank= 1\nplus=+1\nminus=-\n"
             "big=2147483648\nhuge=99999999999999999999999999\nhex=0x10\n");
  EXPECT_EQ(12, nvram_get_int_default("plain", 99));
  EXPECT_EQ(-5, nvram_get_int_default("negative", 99));
  EXPECT_EQ(7, nvram_get_int_default("zeros", 99));
  for (const char* key : {"tail", "empty", "blank", "plus", "minus", "big", "huge", "hex"}) {
    EXPECT_EQ(99, nvram_get_int_default(key, 99)) << key;
    EXPECT_EQ(0, nvram_get_int(key)) << key;
  }
}

TEST_F(SettingsTest, FailureAndRecoveryAreLoggedOnceEach) {
  std::filesystem::rename(at("/var/conf"), at("/var/away"));
  LogCapture log;
  EXPECT_EQ(-1, nvram_set_int("a", 1));
  EXPECT_EQ(-1, nvram_set_int("a", 2));
  std::filesystem::rename(at("/var/away"), at("/var/conf"));
  EXPECT_EQ(0, nvram_set_int("a", 3));
  EXPECT_EQ(0, nvram_set_int("a", 4));
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ("test[" + pid +
                "]: error: settings cannot be stored in /var/conf/nvram.conf: "
                "No such file or directory\n"
                "test[" +
                pid + "]: notice: settings can be stored in /var/conf/nvram.conf again\n",
            log.text());
}

TEST_F(SettingsTest, BadKeyIsRefused) {
  LogCapture log;
  EXPECT_EQ(-1, nvram_set_int("a b", 1));
  EXPECT_EQ(-1, nvram_set_int(nullptr, 1));
  EXPECT_FALSE(file_exists(persistent_));
}

// The agent sets no signal dispositions for this itself: attaching to the platform must do it.
TEST_F(SettingsTest, FileSizeLimitDoesNotEndTheDaemon) {
  write_file(persistent_, "a=1\n");
  EXPECT_EQ(0, run_in_child([] {
              morva_init();
              const rlimit limit = {2, 2};
              setrlimit(RLIMIT_FSIZE, &limit);
              return nvram_set_int("a", 2) == -1 && nvram_get_int("a") == 1 ? 0 : 1;
            }));
}

}  // namespace
