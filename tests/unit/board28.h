// SPDX-License-Identifier: Apache-2.0
//
// A switch of 28 ports in a known state, and its reports byte for byte: 24 copper ports of 1 Gbit/s
// with power, 4 fibre ports of 10 Gbit/s. The texts are written out here; no builder made them.
#pragma once

#include <string>

#include "qel/qel_table.h"
#include "tests/fake/fake.h"

// Adds the ports and sets what their reports show. Call it before the agent starts.
inline void add_board28() {
  for (int i = 1; i <= 24; ++i) {
    fake::PortSpec port;
    port.pos_x = (i + 1) / 2;
    port.pos_y = i % 2 == 1 ? 1 : 2;
    port.link = i <= 12 ? 1 : 0;
    port.speed = i <= 10 ? 1000 : i == 11 ? 100 : i == 12 ? 10 : 0;
    port.duplex = i <= 11 ? 1 : 0;
    port.speed_conf = i == 8 ? 7 : 0;
    port.disabled = i == 5;
    const std::string name = "ge" + std::to_string(i);
    fake::add_port(name.c_str(), port);
    fake::set_nvram("lldp." + name + ".enable", "1");
    fake::set_nvram("poe." + name + ".enable", "1");
  }
  for (int i = 1; i <= 4; ++i) {
    fake::PortSpec port;
    port.speed_class = UIF_CLASS_TEN_GIGA;
    port.medium = UIF_MEDIUM_FIBRE;
    port.max_speed = 10000;
    port.pos_x = i <= 2 ? 14 : 15;
    port.pos_y = i % 2 == 1 ? 1 : 2;
    port.link = i == 1 ? 1 : 0;
    port.speed = i == 1 ? 10000 : 0;
    port.duplex = port.link;
    port.aux_index = i == 3 ? -1 : i;
    fake::add_port(("xe" + std::to_string(i)).c_str(), port);
  }
  for (const char* key : {"iso.ge1.enable", "eee.ge2.enable", "llpp.ge3.enable", "mstp.ge4.enable",
                          "iso.xe1.enable", "mstp.xe1.enable"}) {
    fake::set_nvram(key, "1");
  }
}

// What the modules "statistics" and "poe" answer on that switch.
inline std::string statistics28(const std::string& head = R"({"ret":0,"data":[)") {
  std::string text = head;
  for (int i = 1; i <= 28; ++i) {
    const std::string name = i <= 24 ? "ge" + std::to_string(i) : "xe" + std::to_string(i - 24);
    const auto number = [i](uint64_t base) {
      return std::to_string(base + static_cast<uint64_t>(i));
    };
    text += i == 1 ? "" : ",";
    text += R"({"name":")" + name + R"(","tx_sum":)" + number(9000000000000) + R"(,"rx_sum":)" +
            number(800000000000) + R"(,"tx_rate":)" + number(125000000000) + R"(,"rx_rate":)" +
            number(425000000000) + "}";
  }
  return text + "]}";
}
inline std::string poe28() {
  std::string text = R"({"data":[)";
  for (int i = 1; i <= 24; ++i) {
    text += i == 1 ? "" : ",";
    text += R"({"name":"ge)" + std::to_string(i) + R"(","enable":)" + (i == 7 ? "0" : "1") +
            R"(,"supply_priority":)" + std::to_string(i % 4) + "}";
  }
  return text + "]}";
}

// 617 bytes
inline constexpr char kInfo28[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":{)"
    R"("ge1":[0,1,"G",1],"ge2":[1,1,"G",1],"ge3":[2,1,"G",1],"ge4":[3,1,"G",1],)"
    R"("ge5":[4,1,"G",1],"ge6":[5,1,"G",1],"ge7":[6,1,"G",1],"ge8":[7,1,"G",1],)"
    R"("ge9":[8,1,"G",1],"ge10":[9,1,"G",1],"ge11":[10,1,"G",1],"ge12":[11,1,"G",1],)"
    R"("ge13":[12,1,"G",1],"ge14":[13,1,"G",1],"ge15":[14,1,"G",1],"ge16":[15,1,"G",1],)"
    R"("ge17":[16,1,"G",1],"ge18":[17,1,"G",1],"ge19":[18,1,"G",1],"ge20":[19,1,"G",1],)"
    R"("ge21":[20,1,"G",1],"ge22":[21,1,"G",1],"ge23":[22,1,"G",1],"ge24":[23,1,"G",1],)"
    R"("xe1":[24,2,"10GF",1],"xe2":[25,2,"10GF",1],"xe3":[26,2,"10GF",0],)"
    R"("xe4":[27,2,"10GF",1]}})";

// 428 bytes
inline constexpr char kPositions28[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_pos","data":{)"
    R"("ge1":[1,1],"ge2":[1,2],"ge3":[2,1],"ge4":[2,2],"ge5":[3,1],"ge6":[3,2],"ge7":[4,1],)"
    R"("ge8":[4,2],"ge9":[5,1],"ge10":[5,2],"ge11":[6,1],"ge12":[6,2],"ge13":[7,1],)"
    R"("ge14":[7,2],"ge15":[8,1],"ge16":[8,2],"ge17":[9,1],"ge18":[9,2],"ge19":[10,1],)"
    R"("ge20":[10,2],"ge21":[11,1],"ge22":[11,2],"ge23":[12,1],"ge24":[12,2],"xe1":[14,1],)"
    R"("xe2":[14,2],"xe3":[15,1],"xe4":[15,2]}})";

// 619 bytes
inline constexpr char kConf28First[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{)"
    R"("ge1":[1,"AN",1,0,0,0,1,1],"ge2":[1,"AN",0,1,0,0,1,1],"ge3":[1,"AN",0,0,1,0,1,1],)"
    R"("ge4":[1,"AN",0,0,0,1,1,1],"ge5":[0,"AN",0,0,0,0,1,1],"ge6":[1,"AN",0,0,0,0,1,1],)"
    R"("ge7":[1,"AN",0,0,0,0,1,1],"ge8":[1,"AN",0,0,0,0,1,1],"ge9":[1,"AN",0,0,0,0,1,1],)"
    R"("ge10":[1,"AN",0,0,0,0,1,1],"ge11":[1,"AN",0,0,0,0,1,1],"ge12":[1,"5G",0,0,0,0,1,1],)"
    R"("ge13":[1,"AN",0,0,0,0,1,1],"ge14":[1,"AN",0,0,0,0,1,1],"ge15":[1,"AN",0,0,0,0,1,1],)"
    R"("ge16":[1,"AN",0,0,0,0,1,1],"ge17":[1,"AN",0,0,0,0,1,1],"ge18":[1,"AN",0,0,0,0,1,1],)"
    R"("ge19":[1,"AN",0,0,0,0,1,1],"ge20":[1,"AN",0,0,0,0,1,1]}})";

// 288 bytes
inline constexpr char kConf28Second[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{)"
    R"("ge21":[1,"AN",0,0,0,0,1,1],"ge22":[1,"AN",0,0,0,0,1,1],"ge23":[1,"AN",0,0,0,0,1,1],)"
    R"("ge24":[1,"AN",0,0,0,0,1,1],"xe1":[1,"AN",1,0,0,1,0,0],"xe2":[1,"AN",0,0,0,0,0,0],)"
    R"("xe3":[1,"AN",0,0,0,0,0,0],"xe4":[1,"AN",0,0,0,0,0,0]}})";

// 568 bytes
inline constexpr char kLink28[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":{)"
    R"("ge1":[1,1000,1,0],"ge2":[1,1000,1,0],"ge3":[1,1000,1,0],"ge4":[1,1000,1,0],)"
    R"("ge5":[1,1000,1,0],"ge6":[1,1000,1,9],"ge7":[1,1000,1,0],"ge8":[1,1000,1,0],)"
    R"("ge9":[1,1000,1,0],"ge10":[1,1000,1,0],"ge11":[1,100,1,0],"ge12":[1,10,0,0],)"
    R"("ge13":[0,0,0,0],"ge14":[0,0,0,0],"ge15":[0,0,0,0],"ge16":[0,0,0,0],"ge17":[0,0,0,0],)"
    R"("ge18":[0,0,0,0],"ge19":[0,0,0,0],"ge20":[0,0,0,0],"ge21":[0,0,0,0],"ge22":[0,0,0,0],)"
    R"("ge23":[0,0,0,0],"ge24":[0,0,0,0],"xe1":[1,10000,1,0],"xe2":[0,0,0,0],)"
    R"("xe3":[0,0,0,0],"xe4":[0,0,0,0]}})";

// 1300 bytes
inline constexpr char kStats28First[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{)"
    R"("ge1":[9000000000001,800000000001,125000000001,425000000001],)"
    R"("ge2":[9000000000002,800000000002,125000000002,425000000002],)"
    R"("ge3":[9000000000003,800000000003,125000000003,425000000003],)"
    R"("ge4":[9000000000004,800000000004,125000000004,425000000004],)"
    R"("ge5":[9000000000005,800000000005,125000000005,425000000005],)"
    R"("ge6":[9000000000006,800000000006,125000000006,425000000006],)"
    R"("ge7":[9000000000007,800000000007,125000000007,425000000007],)"
    R"("ge8":[9000000000008,800000000008,125000000008,425000000008],)"
    R"("ge9":[9000000000009,800000000009,125000000009,425000000009],)"
    R"("ge10":[9000000000010,800000000010,125000000010,425000000010],)"
    R"("ge11":[9000000000011,800000000011,125000000011,425000000011],)"
    R"("ge12":[9000000000012,800000000012,125000000012,425000000012],)"
    R"("ge13":[9000000000013,800000000013,125000000013,425000000013],)"
    R"("ge14":[9000000000014,800000000014,125000000014,425000000014],)"
    R"("ge15":[9000000000015,800000000015,125000000015,425000000015],)"
    R"("ge16":[9000000000016,800000000016,125000000016,425000000016],)"
    R"("ge17":[9000000000017,800000000017,125000000017,425000000017],)"
    R"("ge18":[9000000000018,800000000018,125000000018,425000000018],)"
    R"("ge19":[9000000000019,800000000019,125000000019,425000000019],)"
    R"("ge20":[9000000000020,800000000020,125000000020,425000000020]}})";

// 561 bytes
inline constexpr char kStats28Second[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{)"
    R"("ge21":[9000000000021,800000000021,125000000021,425000000021],)"
    R"("ge22":[9000000000022,800000000022,125000000022,425000000022],)"
    R"("ge23":[9000000000023,800000000023,125000000023,425000000023],)"
    R"("ge24":[9000000000024,800000000024,125000000024,425000000024],)"
    R"("xe1":[9000000000025,800000000025,125000000025,425000000025],)"
    R"("xe2":[9000000000026,800000000026,125000000026,425000000026],)"
    R"("xe3":[9000000000027,800000000027,125000000027,425000000027],)"
    R"("xe4":[9000000000028,800000000028,125000000028,425000000028]}})";

// 375 bytes
inline constexpr char kPoe28[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf","data":{)"
    R"("ge1":[1,1],"ge2":[1,2],"ge3":[1,3],"ge4":[1,0],"ge5":[1,1],"ge6":[1,2],"ge7":[0,3],)"
    R"("ge8":[1,0],"ge9":[1,1],"ge10":[1,2],"ge11":[1,3],"ge12":[1,0],"ge13":[1,1],)"
    R"("ge14":[1,2],"ge15":[1,3],"ge16":[1,0],"ge17":[1,1],"ge18":[1,2],"ge19":[1,3],)"
    R"("ge20":[1,0],"ge21":[1,1],"ge22":[1,2],"ge23":[1,3],"ge24":[1,0]}})";

// 423 bytes
inline constexpr char kPoe28Zeros[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf","data":{)"
    R"("ge1":[0,0],"ge2":[0,0],"ge3":[0,0],"ge4":[0,0],"ge5":[0,0],"ge6":[0,0],"ge7":[0,0],)"
    R"("ge8":[0,0],"ge9":[0,0],"ge10":[0,0],"ge11":[0,0],"ge12":[0,0],"ge13":[0,0],)"
    R"("ge14":[0,0],"ge15":[0,0],"ge16":[0,0],"ge17":[0,0],"ge18":[0,0],"ge19":[0,0],)"
    R"("ge20":[0,0],"ge21":[0,0],"ge22":[0,0],"ge23":[0,0],"ge24":[0,0],"xe1":[0,0],)"
    R"("xe2":[0,0],"xe3":[0,0],"xe4":[0,0]}})";
