// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_devinfo.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/sys.h"
#include "qel/qel_cjson.h"
#include "qel/qel_client.h"
#include "qel/qel_mono.h"
#include "qel/qel_netif.h"
#include "qel/qel_os.h"
#include "qel/qel_table.h"

namespace {

// Compiled in, reported, and never compared with the product's own model text.
constexpr char kModel[] = "QM4410_MODEL";
constexpr char kModelVersion[] = "V1";

constexpr int64_t kMegabyte = 1048576;

constexpr std::array<const char*, static_cast<size_t>(qel_info::count)> kKeys = {
    "mac",         "ip",          "sn",      "hw_ver",   "model",      "version",
    "port_count",  "device_name", "uptime",  "cpuoccu",  "memoccu",    "poeoccu",
    "onlineports", "uplinkdatas", "sysname", "have_poe", "check_model"};

// Truncates to an integer. Counters that contradict each other (more idle or free than there is)
// wrap to a huge difference, and that figure need not fit.
int to_percent(double percent) {
  return percent < static_cast<double>(INT32_MAX) ? static_cast<int>(percent) : INT32_MAX;
}

// The largest "tx_bytes" among the ports that face a switch, in a parsed statistics reply or null.
int64_t largest_uplink(const cJSON* reply) {
  int64_t largest = 0;
  const cJSON* data = cJSON_GetObjectItem(reply, "data");
  if (cJSON_IsArray(data) == 0) {
    return largest;
  }
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, data) {
    const char* name = cJSON_GetObjectItemString(element, "name");
    const qel_port* port = name != nullptr ? qel_port_of(uif_get_by_name(name)) : nullptr;
    if (port == nullptr || port->neighbour_type != kQelClientSwitch) {
      continue;
    }
    const int64_t sent = cJSON_GetObjectItemLongIntDef(element, "tx_bytes", 0);
    largest = sent > largest ? sent : largest;
  }
  return largest;
}

// A setting's text. A restored archive may have put anything there, so it is cleaned.
void set_from_nvram(qel_info place, const char* key) {
  char area[kQelInfoValueSize];
  qel_text value(area, sizeof area);
  value.put_plain(nvram_safe_get(key));
  qel_devinfo_set(place, "%s", value.c_str());
}

}  // namespace

qel_info_table g_qel_info;

const char* qel_devinfo_value(qel_info place) {
  return g_qel_info[static_cast<size_t>(place)].value;
}

void qel_devinfo_set(qel_info place, const char* format, ...) {
  qel_info_entry& entry = g_qel_info[static_cast<size_t>(place)];
  va_list arguments;
  va_start(arguments, format);
  std::snprintf(entry.key, sizeof entry.key, "%s", kKeys[static_cast<size_t>(place)]);
  std::vsnprintf(entry.value, sizeof entry.value, format, arguments);
  va_end(arguments);
}

int qel_devinfo_init() {
  g_qel_info = qel_info_table{};
  set_from_nvram(qel_info::sn, "product_sn");
  set_from_nvram(qel_info::hw_ver, "product_hw_ver");
  set_from_nvram(qel_info::model, "product_model");
  set_from_nvram(qel_info::version, "firmware_ver");
  qel_devinfo_set(qel_info::port_count, "%d", qel_mono_get_port_count());
  set_from_nvram(qel_info::device_name, "product_description");
  qel_devinfo_set(qel_info::poeoccu, "0");
  qel_devinfo_set(qel_info::check_model, "%s_%s", kModel, kModelVersion);
  return qel_devinfo_refresh();
}

int qel_devinfo_refresh() {
  const long uptime = qel_os_sysinfo_uptime();
  set_from_nvram(qel_info::sysname, "product_description");
  char address[kQelIpTextSize] = {};
  qel_netif_ip_get(kQelManagementInterface, address);
  qel_devinfo_set(qel_info::ip, "%s", address);
  qel_devinfo_set(qel_info::uptime, "%ld", uptime);
  uint8_t* mac = g_qel_dev.mac;
  qel_netif_mac_get(kQelManagementInterface, mac);
  std::snprintf(g_qel_dev.devid, sizeof g_qel_dev.devid, "SW_%02X%02X%02X%02X%02X%02X", mac[0],
                mac[1], mac[2], mac[3], mac[4], mac[5]);
  qel_devinfo_set(qel_info::mac, "%s", mac2str(mac));
  qel_devinfo_set(qel_info::cpuoccu, "%d", qel_cpu_occupancy_now());
  qel_devinfo_set(qel_info::memoccu, "%d", qel_mem_occupancy_now());
  qel_devinfo_set(qel_info::onlineports, "%d", static_cast<int>(g_qel_dev.online_ports));
  // Whatever the hardware has: the module commands read the setting of that name instead.
  qel_devinfo_set(qel_info::have_poe, "1");
  qel_uplink_tx_mb_get();
  return 0;
}

void qel_cpu_stat_read(qel_cpu_stat* sample) {
  constexpr int kNeeded = 4;
  std::FILE* file = qel_os_fopen("/proc/stat", "r");
  if (file == nullptr) {
    return;
  }
  char line[256];
  if (std::fgets(line, sizeof line, file) != nullptr) {
    qel_cpu_stat& s = *sample;
    const int parsed =
        std::sscanf(line,
                    "cpu %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64
                    " %" SCNu64 " %" SCNu64,
                    &s.user, &s.nice, &s.system, &s.idle, &s.iowait, &s.irq, &s.softirq, &s.steal);
    if (parsed >= kNeeded) {
      s.busy = s.user + s.nice + s.system + s.irq + s.softirq + s.steal;
      s.total = s.busy + s.idle + s.iowait;
    }
  }
  std::fclose(file);
}

void qel_mem_stat_read(qel_mem_stat* sample) {
  std::FILE* file = qel_os_fopen("/proc/meminfo", "r");
  if (file == nullptr) {
    return;
  }
  char line[64];
  if (std::fgets(line, sizeof line, file) != nullptr &&
      std::sscanf(line, "MemTotal: %lu %*s", &sample->MemTotal) == 1) {
    // Line by line and without a search: a line of another name leaves its figure as it was.
    if (std::fgets(line, sizeof line, file) != nullptr) {
      std::sscanf(line, "MemFree: %lu %*s", &sample->MemFree);
    }
    if (std::fgets(line, sizeof line, file) != nullptr) {
      std::sscanf(line, "Buffers: %lu %*s", &sample->Buffers);
    }
    if (std::fgets(line, sizeof line, file) != nullptr) {
      std::sscanf(line, "Cached: %lu %*s", &sample->Cached);
    }
  }
  std::fclose(file);
}

int qel_cpu_occupancy(const qel_cpu_stat& sample) {
  if (sample.total == 0) {
    return 0;
  }
  // Only `idle` is subtracted: time spent waiting for the disk counts as busy.
  return to_percent(static_cast<double>(sample.total - sample.idle) * 100.0 /
                    static_cast<double>(sample.total));
}

int qel_mem_occupancy(const qel_mem_stat& sample) {
  const auto total = static_cast<uint32_t>(sample.MemTotal);
  const auto free = static_cast<uint32_t>(sample.MemFree);
  if (total == 0) {
    return 0;
  }
  // Buffers and cache are not subtracted: they count as used.
  return to_percent(static_cast<double>(total - free) * 100.0 / static_cast<double>(total));
}

int qel_cpu_occupancy_now() {
  qel_cpu_stat sample = {};
  qel_cpu_stat_read(&sample);
  return qel_cpu_occupancy(sample);
}

int qel_mem_occupancy_now() {
  qel_mem_stat sample = {};
  qel_mem_stat_read(&sample);
  return qel_mem_occupancy(sample);
}

int32_t qel_uplink_tx_mb_get() {
  char* reply = qel_mono_reply_area();
  qel_mono_port_basic_statistic_get_all(reply);
  const qel_cjson_tree tree(cJSON_Parse(reply));
  const int64_t megabytes = largest_uplink(tree.get()) / kMegabyte;
  qel_devinfo_set(qel_info::uplinkdatas, "%" PRId64, megabytes);
  return static_cast<int32_t>(megabytes);
}

int qel_sys_name_set(const char* text) {
  struct sys_info info = {};
  if (text == nullptr || std::strlen(text) >= sizeof info.name || !qel_text_is_plain(text)) {
    return 0;
  }
  sys_info_get(&info);
  std::memset(info.name, 0, sizeof info.name);
  std::memcpy(info.name, text, std::strlen(text));
  sys_info_set(&info);
  return 0;
}
