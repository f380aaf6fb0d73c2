// SPDX-License-Identifier: Apache-2.0
//
// The texts of requests, letter by letter.
#include "gateway/requests.h"

#include <gtest/gtest.h>

#include "gateway/discovery.h"
#include "gateway/error.h"
#include "gateway/settings.h"

namespace qel_gateway {
namespace {

constexpr const char* kMac = "0a1b2c3d4e5f";

TEST(Requests, Reads) {
  EXPECT_EQ(get_text(kMac, "ports_info"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"get","subcmd":"ports_info","data":{}})");
  EXPECT_EQ(clock_text(kMac),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"sys_time","data":{}})");
  EXPECT_EQ(upload_text(kMac, 7),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"config_upload","data":{"index":7}})");
  EXPECT_EQ(probe_text("020000000001", 12),
            R"({"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":12}})");
}

TEST(Requests, ModuleQueriesInBothForms) {
  EXPECT_EQ(query_text(kMac, "poe", "x", nullptr, false),
            R"({"mac":"0a1b2c3d4e5f","cmd":"get","subcmd":"qelipc","data":{"mdl":"poe","cmd":"x",)"
            R"("cfg_flag":0}})");
  EXPECT_EQ(query_text(kMac, "mono", "y", OrderedJson{{"descr", "a"}}, true),
            R"({"mac":"0a1b2c3d4e5f","cmd":"get","subcmd":"qelipc","data":{"mdl":"mono","cmd":"y",)"
            R"("cfg_flag":1,"data":{"descr":"a"}}})");
}

TEST(Requests, PortSettingsNameThePortByKey) {
  EXPECT_EQ(port_enable_text(kMac, "ge1", false),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"port_enable","data":{"ge1":0}})");
  EXPECT_EQ(port_speed_text(kMac, "ge3", "2.5G"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"port_speed","data":{"ge3":"2.5G"}})");
  EXPECT_EQ(port_restart_text(kMac, "ge2", 5),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"port_restart","data":{"ge2":5}})");
  PortSettings settings;
  settings.speed = "100M-F";
  settings.switches = {{"poe", false}, {"eee", true}};
  EXPECT_EQ(
      ports_config_text(kMac, OrderedJson{{"ge5", port_settings_json(settings)}}),
      R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"ports_conf","data":{"ge5":{"speed":"100M-F",)"
      R"("eee":1,"poe":0}}})");
}

TEST(Requests, SystemSettings) {
  EXPECT_EQ(
      address_text(kMac, "192.168.1.20", 24),
      R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"sys_ip","data":{"sys_ip":"192.168.1.20",)"
      R"("sys_mask":24,"dhcp":0}})");
  EXPECT_EQ(set_clock_text(kMac, 1700000000),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"sys_time","data":)"
            R"({"timestamp":"1700000000"}})");
  EXPECT_EQ(name_text(kMac, "Büro"),
            "{\"mac\":\"0a1b2c3d4e5f\",\"cmd\":\"set\",\"subcmd\":\"name\",\"data\":"
            "{\"name\":\"B\\u00fcro\"}}");
  EXPECT_EQ(
      active_text(kMac, 300),
      R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"sys_active","data":{"sys_active":300}})");
  EXPECT_EQ(reboot_text(kMac),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"sys_reboot","data":{}})");
  EXPECT_EQ(reset_text(kMac),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"config_reset","data":{}})");
  EXPECT_EQ(fetch_firmware_text(kMac, "http://h/f"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"hfs_upgrade","data":)"
            R"({"upgrade_serverinfo":"http://h/f"}})");
}

TEST(Requests, ChunksTellTheCrcAsASignedNumber) {
  ChunkHeader header;
  header.index = 1;
  header.next = true;
  header.file = "a.tar.gz";
  header.total_length = 2049;
  header.crc = 0xFFFFFFFF;
  header.length = 1024;
  EXPECT_EQ(chunk_text(kMac, "config_download", header),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download","data":{"index":1,)"
            R"("next":1,"file":"a.tar.gz","total_length":2049,"crc":-1,"length":1024}})");
}

TEST(Requests, NamesThatASwitchCouldNotReportAreRefused) {
  for (const char* wrong : {"", "a\"b", "a\\b", "a\nb", "\x1b[0m", "a\xff"}) {
    EXPECT_THROW(check_name(wrong), Error) << wrong;
  }
  EXPECT_THROW(check_name(std::string(64, 'a')), Error);
  EXPECT_NO_THROW(check_name(std::string(63, 'a')));
  EXPECT_NO_THROW(check_name("Büro 3, 2. OG"));
}

TEST(Requests, LocationsThatASwitchRefusesAreNotSent) {
  EXPECT_NO_THROW(check_location("http://192.168.1.2:8080/a/b_c~1.trx"));
  EXPECT_NO_THROW(check_location("ftp://u:p@host/x%20y+z=1,2"));
  for (const char* wrong : {"", "-O/etc/x", "~/x", "http://h/a b", "http://h/$(id)", "http://h/;x",
                            "http://h/a?b&c", "http://h/\n"}) {
    EXPECT_THROW(check_location(wrong), Error) << wrong;
  }
  EXPECT_NO_THROW(check_location(std::string(232, 'a')));
  EXPECT_THROW(check_location(std::string(233, 'a')), Error);
}

}  // namespace
}  // namespace qel_gateway
