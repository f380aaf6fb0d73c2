// SPDX-License-Identifier: Apache-2.0
//
// What touches the machine, in a child process with namespaces of its own: the management address,
// and the programs morvad, morvactl, conf and morva_upgrade as they are run.
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "platform/linux/fd.h"
#include "platform/linux/morvad/host_linux.h"
#include "platform/linux/process_lock.h"
#include "support.h"

namespace morvad {
namespace {

constexpr int kSkipped = 77;

/// Runs `body` in a child that has its own network, with loopback and a "vlanif1". Its result is
/// the exit status; kSkipped when the kernel gives us no namespaces.
template <typename Body>
int in_own_network(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      _exit(kSkipped);
    }
    if (system("ip link set lo up && ip link add vlanif1 type veth peer name gw0 && "
               "ip link set vlanif1 up && ip link set gw0 up") != 0) {
      _exit(kSkipped);
    }
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#define CHECK_OR_EXIT(condition, code) \
  if (!(condition)) {                  \
    return code;                       \
  }

TEST(HostLinux, ChangesTheAddressOfAnInterface) {
  const int status = in_own_network([] {
    event_base* base = event_base_new();
    {
      HostLinux host(base);
      Address now;
      CHECK_OR_EXIT(!host.address_get("vlanif1", now), 2);
      CHECK_OR_EXIT(host.address_set("vlanif1", {"10.1.2.3", 16}) == 0, 3);
      CHECK_OR_EXIT(host.address_get("vlanif1", now) && now.ip == "10.1.2.3", 4);
      CHECK_OR_EXIT(now.prefix == 16, 5);
      for (const int prefix : {0, 1, 31, 32}) {
        CHECK_OR_EXIT(host.address_set("vlanif1", {"192.168.7.1", prefix}) == 0, 6);
        CHECK_OR_EXIT(host.address_get("vlanif1", now) && now.prefix == prefix, 7);
        CHECK_OR_EXIT(now.ip == "192.168.7.1", 8);
      }
      CHECK_OR_EXIT(host.address_set("vlanif2", {"10.1.2.3", 16}) == -ENODEV, 9);
      CHECK_OR_EXIT(host.address_set("vlanif1", {"x", 16}) == -EINVAL, 10);
    }
    event_base_free(base);
    return 0;
  });
  if (status == kSkipped) {
    GTEST_SKIP() << "no network namespaces here";
  }
  EXPECT_EQ(status, 0);
}

/// Collects ended children until there is news, as the SIGCHLD event does.
template <typename Done>
bool reap_until(HostLinux& host, Done done) {
  for (int i = 0; i < 5000 && !done(); i++) {
    host.reap();
    usleep(1000);
  }
  return done();
}

TEST(HostLinux, RunsAProgramAndTellsItsEnd) {
  event_base* base = event_base_new();
  {
    HostLinux host(base);
    int status = -99;
    ASSERT_TRUE(host.run("/bin/sleep", "0", [&](int ended) { status = ended; }));
    EXPECT_TRUE(reap_until(host, [&] { return status != -99; }));
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(host.run("/bin/ls", "/nowhere/at/all", [&](int ended) { status = ended; }));
    EXPECT_TRUE(reap_until(host, [&] { return status != 0; }));
    EXPECT_FALSE(host.run("/nowhere/at/all", "x", [](int) {}));
  }
  event_base_free(base);
}

/// A restart ends whoever holds a client number below the root: one of the test's own.
using HostRestartTest = RootTest;

TEST_F(HostRestartTest, ARestartEndsTheAttachedProcesses) {
  const pid_t child = fork();
  if (child == 0) {
    for (;;) {
      pause();
    }
  }
  event_base* base = event_base_new();
  {
    HostLinux host(base);
    host.attach(child);
    host.attach(getpid());  // not ourselves
    host.attach(0);
    host.attach(1);
    EXPECT_EQ(host.finish(), 0);  // nothing was asked for
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    host.restart(false);
    event_base_dispatch(base);
    EXPECT_EQ(host.finish(), kExitRestart);
  }
  event_base_free(base);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST_F(HostRestartTest, ARestartEndsAProcessThatIsStopped) {
  const pid_t child = fork();
  if (child == 0) {
    for (;;) {
      pause();
    }
  }
  int status = 0;
  kill(child, SIGSTOP);
  ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
  event_base* base = event_base_new();
  {
    HostLinux host(base);
    host.attach(child);
    host.restart(false);
    event_base_dispatch(base);
    EXPECT_EQ(host.finish(), kExitRestart);
  }
  event_base_free(base);
  EXPECT_EQ(waitpid(child, &status, WNOHANG), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST_F(HostRestartTest, ARestartEndsWhoHoldsAClientNumberAndNeverAttached) {
  const std::string file = at("/var/run/morva/client-61.lock");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    const int lock = process_lock_open(file.c_str());
    const bool taken = process_lock_try(lock) == 0;
    process_lock_keep(lock);
    [[maybe_unused]] const ssize_t told = write(ready[1], taken ? "y" : "n", 1);
    for (;;) {
      pause();
    }
  }
  char answer = 0;
  ASSERT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  event_base* base = event_base_new();
  {
    HostLinux host(base);
    host.restart(false);
    event_base_dispatch(base);
    EXPECT_EQ(host.finish(), kExitRestart);
  }
  event_base_free(base);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  close(ready[0]);
  close(ready[1]);
}

TEST_F(HostRestartTest, AProgramThatHangsEndsWithMorvad) {
  event_base* base = event_base_new();
  bool told = false;
  {
    HostLinux host(base);
    ASSERT_TRUE(host.run("/bin/sleep", "1000", [&](int) { told = true; }));
    EXPECT_EQ(host.finish(), 0);
  }
  event_base_free(base);
  EXPECT_FALSE(told);  // nothing of the switch is left that could hear it
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// --- programs ---------------------------------------------------------------------------------

class ProgramTest : public RootTest {
 protected:
  /// Runs a shell command; its output is in `output`, its exit status the result.
  int shell(const std::string& command) {
    const std::string file = at("/output");
    const int status = system(("{ " + command + "; } >" + file + " 2>&1").c_str());
    output = read_file(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string program(const std::string& name) {
    return std::string(MORVA_LINUX_FOLDER) + "/programs/" + name;
  }

  std::string output;
};

TEST_F(ProgramTest, ConfFlashStoresWhatIsThere) {
  write_file(at("/var/conf/nvram.conf"), "a=1\n");
  write_file(at("/var/conf/with blank.conf"), "b\n");
  write_file(at("/var/conf/other.txt"), "c\n");
  std::filesystem::create_symlink("/etc/passwd", at("/var/conf/link.conf"));
  EXPECT_EQ(shell(program("conf") + " flash"), 0) << output;
  EXPECT_EQ(shell(program("conf") + " list"), 0);
  EXPECT_EQ(output, "nvram.conf\nwith blank.conf\n");
  EXPECT_EQ(read_file(at("/var/lib/morva/flash/nvram.conf")), "a=1\n");
  // The next one replaces all of it.
  write_file(at("/var/conf/nvram.conf"), "a=2\n");
  std::filesystem::remove(at("/var/conf/with blank.conf"));
  EXPECT_EQ(shell(program("conf") + " flash"), 0) << output;
  EXPECT_EQ(shell(program("conf") + " list"), 0);
  EXPECT_EQ(output, "nvram.conf\n");
  EXPECT_EQ(read_file(at("/var/lib/morva/flash/nvram.conf")), "a=2\n");
}

TEST_F(ProgramTest, ConfFlashKeepsTheOldCopiesWhenItCannotMakeNewOnes) {
  write_file(at("/var/conf/nvram.conf"), "a=1\n");
  EXPECT_EQ(shell(program("conf") + " flash"), 0) << output;
  std::filesystem::remove(at("/var/conf/nvram.conf"));
  EXPECT_EQ(shell(program("conf") + " flash"), 1);
  EXPECT_EQ(read_file(at("/var/lib/morva/flash/nvram.conf")), "a=1\n");
}

TEST_F(ProgramTest, ConfFlashRecoversFromARunThatWasKilled) {
  const std::string store = at("/var/lib/morva/flash");
  std::filesystem::create_directories(store + ".old");
  std::filesystem::create_directories(store + ".new");
  write_file(store + ".old/nvram.conf", "a=1\n");
  write_file(store + ".new/torn.conf", "?");
  EXPECT_EQ(shell(program("conf") + " flash"), 1);  // nothing to store, but the old ones are back
  EXPECT_EQ(read_file(store + "/nvram.conf"), "a=1\n");
  EXPECT_FALSE(std::filesystem::exists(store + ".new"));
}

TEST_F(ProgramTest, ConfWantsToKnowWhat) {
  EXPECT_EQ(shell(program("conf")), 2);
  EXPECT_EQ(output, "usage: conf flash | list\n");
  EXPECT_EQ(shell(program("conf") + " flash again"), 2);
}

TEST_F(ProgramTest, UpgradeKeepsTheImage) {
  write_file(at("/linux.trx"), std::string("image\0bytes\n", 12));
  EXPECT_EQ(shell(program("morva_upgrade") + " " + at("/linux.trx")), 0) << output;
  EXPECT_EQ(read_file(at("/var/lib/morva/firmware/linux.trx")), std::string("image\0bytes\n", 12));
  EXPECT_EQ(read_file(at("/var/lib/morva/firmware/linux.trx.info")),
            "size=12\nsha256=83175c862823bd13554d46b3a46168f9ec30d0a451c864ae1f73e9ab6240607f\n");
  EXPECT_NE(read_file(at("/var/lib/morva/firmware/upgrades.log")).find(" upgraded: size=12 "),
            std::string::npos);
}

TEST_F(ProgramTest, UpgradeRefusesWhatIsNoImageAndKeepsTheOldOne) {
  write_file(at("/good"), "1");
  write_file(at("/empty"), "");
  EXPECT_EQ(shell(program("morva_upgrade") + " " + at("/good")), 0) << output;
  EXPECT_EQ(shell(program("morva_upgrade") + " " + at("/empty")), 1);
  EXPECT_EQ(output, "morva_upgrade: " + at("/empty") + " is empty\n");
  EXPECT_EQ(shell(program("morva_upgrade") + " " + at("/nowhere")), 1);
  EXPECT_EQ(output, "morva_upgrade: " + at("/nowhere") + " is not a file\n");
  EXPECT_EQ(shell(program("morva_upgrade")), 2);
  EXPECT_EQ(read_file(at("/var/lib/morva/firmware/linux.trx")), "1");
}

std::string bin(const std::string& name) {
  return std::string(MORVA_BIN_FOLDER) + "/" + name;
}

TEST_F(ProgramTest, MorvadNamesWhatIsWrongWithABoard) {
  write_file(at("/b.json"), R"({"name":"x","mac":"0a:00:00:00:00:01","nvram":{},"ports":[{"name":)"
                            R"("ge1","number":1,"class":"giga","medium":"glass"}]})");
  EXPECT_EQ(shell(bin("morvad") + " --board " + at("/b.json")), 1);
  EXPECT_EQ(output,
            "morvad: " + at("/b.json") + ": ports[0].medium: expected \"copper\" or \"fibre\"\n");
}

TEST_F(ProgramTest, MorvadSaysWhatIsWrongWithTheCommandLine) {
  EXPECT_EQ(shell(bin("morvad")), 2);
  EXPECT_EQ(output, "morvad: --board is required\n\"morvad --help\" says more\n");
  EXPECT_EQ(shell(bin("morvad") + " --board x --wings"), 2);
  EXPECT_EQ(output,
            "morvad: The following argument was not expected: --wings\n"
            "\"morvad --help\" says more\n");
  EXPECT_EQ(shell(bin("morvad") + " --help"), 0);
  EXPECT_EQ(shell(bin("morvad") + " --help >/dev/full"), 1);
  EXPECT_EQ(output, "morvad: not all of the output could be written: No space left on device\n");
}

TEST_F(ProgramTest, MorvactlSaysWhenNobodyIsThere) {
  EXPECT_EQ(shell(bin("morvactl") + " show"), 1);
  EXPECT_EQ(output, "morvactl: morvad does not answer at " + at("/var/run/morva/morvad.sock") +
                        " (No such file or directory); is it running, and may you reach it?\n");
  EXPECT_EQ(shell(bin("morvactl") + " event '{}'"), 1);
}

TEST_F(ProgramTest, MorvactlSaysWhatIsWrongWithTheCommandLine) {
  const struct {
    const char* line;
    const char* said;
  } rows[] = {
      {"",
       "morvactl needs a command: link speed counters poe poe-budget l2 block loop trunk mirror fw "
       "show oem event board restart\n\"morvactl --help\" says more\n"},
      {" bogus",
       "morvactl: The following argument was not expected: bogus\n\"morvactl --help\" says more\n"},
      {" l2",
       "morvactl l2 needs a command: add del clear fill list\n\"morvactl l2 --help\" says more\n"},
      {" fw bogus",
       "morvactl: The following argument was not expected: bogus\n"
       "\"morvactl fw --help\" says more\n"},
      {" speed ge3 abc",
       "morvactl: MBITS: abc is no whole number\n\"morvactl speed --help\" says more\n"},
      {" l2 add ge1 02:00:00:00:00:01 --vid 5x",
       "morvactl: --vid: 5x is no whole number\n\"morvactl l2 add --help\" says more\n"},
      {" link ge3", "morvactl: STATE is required\n\"morvactl link --help\" says more\n"},
      {" link ge3 sideways",
       "morvactl: STATE: sideways not in {up,down}\n\"morvactl link --help\" says more\n"},
      {" event '{'",
       "morvactl: JSON: the event is not JSON (--raw sends it all the same)\n"
       "\"morvactl event --help\" says more\n"},
      {" counters ge3",
       "morvactl: KEY=N or --run is required\n\"morvactl counters --help\" says more\n"},
      {" counters ge3 tx_sum=1",
       "morvactl: tx_sum=1: expected KEY=NUMBER with one of tx_bytes rx_bytes tx_rate rx_rate "
       "fcs_errors pause_frames\n\"morvactl counters --help\" says more\n"},
      {" poe ge3 watts=1",
       "morvactl: watts=1: expected KEY=NUMBER with one of power limit enable priority\n"
       "\"morvactl poe --help\" says more\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(shell(bin("morvactl") + row.line), 2) << row.line;
    EXPECT_EQ(output, row.said);
  }
}

TEST_F(ProgramTest, MorvactlHelpNamesAllThereIs) {
  EXPECT_EQ(shell(bin("morvactl") + " l2 --help"), 0);
  EXPECT_EQ(shell(bin("morvactl") + " --help >/dev/full"), 1);
  EXPECT_EQ(output, "morvactl: not all of the output could be written: No space left on device\n");
  for (const char* name : {"link", "speed", "counters", "poe", "poe-budget", "l2", "l2 add", "oem",
                           "l2 fill", "event", "show", "fw set", "loop", "block", "restart"}) {
    EXPECT_EQ(shell(bin("morvactl") + " " + name + " --help"), 0);
    EXPECT_NE(output.find(std::string("Example: morvactl ") + name), std::string::npos) << name;
  }
}

/// The rest of a session with both programs; runs in the child, where 30000 is free.
int session(ProgramTest*, const std::string& root, const std::string& folder) {
  const auto run = [&](const std::string& command) {
    const int status =
        system((bin("morvactl") + " " + command + " >" + root + "/out 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  const pid_t daemon = fork();
  if (daemon == 0) {
    const std::string program = bin("morvad");
    const std::string board = folder + "/boards/ge28.json";
    execl(program.c_str(), "morvad", "--board", board.c_str(), nullptr);
    _exit(127);
  }
  int tries = 0;
  while (run("show") != 0 && tries++ < 500) {
    usleep(10000);
  }
  CHECK_OR_EXIT(run("link ge3 down") == 0, 2);
  CHECK_OR_EXIT(run("link ge99 down") == 1, 3);
  CHECK_OR_EXIT(read_file(root + "/out") == "morvactl: no port is named \"ge99\"\n", 4);
  CHECK_OR_EXIT(run("speed ge2 100 half") == 0 && run("oem 1 1") == 0, 5);
  CHECK_OR_EXIT(run("fw set 3 50") == 0 && run("fw show --json") == 0, 6);
  CHECK_OR_EXIT(read_file(root + "/out") == "{\"detail\":50,\"state\":3}\n", 7);
  CHECK_OR_EXIT(run("fw set -2 5") == 0 && run("fw show") == 0, 19);
  CHECK_OR_EXIT(read_file(root + "/out") == "failed (-2, detail 5)\n", 20);
  CHECK_OR_EXIT(run("fw set 3 50") == 0 && run("fw show") == 0, 21);
  CHECK_OR_EXIT(read_file(root + "/out") == "writing (detail 50)\n", 22);
  CHECK_OR_EXIT(run("speed ge3 77") == 1, 23);
  CHECK_OR_EXIT(read_file(root + "/out") ==
                    "morvactl: speed: expected one of 10, 100, 1000, 2500, 5000, 10000, 25000, "
                    "40000, 100000 (Mbit/s)\n",
                24);
  CHECK_OR_EXIT(run("show 2>" + root + "/why >/dev/full; test $? = 1") == 0, 25);
  CHECK_OR_EXIT(read_file(root + "/why") ==
                    "morvactl: not all of the output could be written: No space left on device\n",
                26);
  CHECK_OR_EXIT(run("counters ge3 --run") == 0, 27);
  CHECK_OR_EXIT(run("l2 fill 20000") == 0 && run("l2 list") == 0, 8);
  const std::string list = read_file(root + "/out");
  CHECK_OR_EXIT(std::count(list.begin(), list.end(), '\n') == 20000, 9);
  CHECK_OR_EXIT(run("show --json") == 0, 10);
  const nlohmann::json state = nlohmann::json::parse(read_file(root + "/out"));
  CHECK_OR_EXIT(state["address"] == "192.168.1.10/24" && state["ports"][2]["link"] == 0, 11);
  CHECK_OR_EXIT(run("show") == 0, 12);
  CHECK_OR_EXIT(read_file(root + "/out").find("\nge3   enabled  down ") != std::string::npos, 13);
  const std::string other = bin("morvad") + " --board " + folder + "/boards/ge28.json 2>/dev/null";
  CHECK_OR_EXIT(WEXITSTATUS(system(other.c_str())) == 1, 14);
  write_file(root + "/var/run/morva/nvram.tmp.conf", "qel_enable=0\n");
  CHECK_OR_EXIT(run("restart") == 0, 15);
  int status = 0;
  waitpid(daemon, &status, 0);
  CHECK_OR_EXIT(WIFEXITED(status) && WEXITSTATUS(status) == kExitRestart, 16);
  CHECK_OR_EXIT(read_file(root + "/var/run/morva/nvram.tmp.conf").empty(), 17);
  CHECK_OR_EXIT(read_file(root + "/var/conf/nvram.conf").find("oem.1=1\n") != std::string::npos,
                18);
  return 0;
}

TEST_F(ProgramTest, ASessionWithBothPrograms) {
  const std::string root = at("");
  const int status =
      in_own_network([&] { return session(this, root, std::string(MORVA_LINUX_FOLDER)); });
  if (status == kSkipped) {
    GTEST_SKIP() << "no network namespaces here";
  }
  EXPECT_EQ(status, 0);
}

TEST_F(ProgramTest, MorvadEndsCleanlyOnASignal) {
  const int status = in_own_network([] {
    const pid_t daemon = fork();
    if (daemon == 0) {
      const std::string program = bin("morvad");
      execl(program.c_str(), "morvad", "--board", board_path("ge10").c_str(), nullptr);
      _exit(127);
    }
    int tries = 0;
    while (system((bin("morvactl") + " show >/dev/null 2>&1").c_str()) != 0 && tries++ < 500) {
      usleep(10000);
    }
    kill(daemon, SIGTERM);
    int ended = 0;
    waitpid(daemon, &ended, 0);
    return WIFEXITED(ended) ? WEXITSTATUS(ended) : 99;
  });
  if (status == kSkipped) {
    GTEST_SKIP() << "no network namespaces here";
  }
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(std::filesystem::exists(at("/var/run/morva/mono.sock")));
}

TEST_F(ProgramTest, MorvadRunsWithoutStandardStreams) {
  const int status = in_own_network([] {
    const pid_t daemon = fork();
    if (daemon == 0) {
      const std::string program = bin("morvad");
      const std::string board = board_path("ge10");
      for (const int stream : {0, 1, 2}) {
        close(stream);
      }
      execl(program.c_str(), "morvad", "--board", board.c_str(), nullptr);
      _exit(127);
    }
    int tries = 0;
    while (system((bin("morvactl") + " show >/dev/null 2>&1").c_str()) != 0 && tries++ < 500) {
      usleep(10000);
    }
    int at_nothing = 0;
    for (const char* stream : {"0", "1", "2"}) {
      std::error_code error;
      const std::string place = "/proc/" + std::to_string(daemon) + "/fd/" + stream;
      at_nothing += std::filesystem::read_symlink(place, error) == "/dev/null" ? 1 : 0;
    }
    kill(daemon, SIGTERM);
    int ended = 0;
    waitpid(daemon, &ended, 0);
    CHECK_OR_EXIT(at_nothing == 3, 98);
    return WIFEXITED(ended) ? WEXITSTATUS(ended) : 99;
  });
  if (status == kSkipped) {
    GTEST_SKIP() << "no network namespaces here";
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace morvad
