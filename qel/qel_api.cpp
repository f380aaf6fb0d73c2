// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_api.h"

#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/sys.h"
#include "protocol/gateway_protocol.h"
#include "qel/qel_confdir.h"
#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "qel/qel_shell.h"
#include "qel/qel_table.h"

namespace proto = qel_protocol;

namespace {

constexpr char kUploadPath[] = "/var/conf/getconf.tar.gz";
constexpr char kDownloadPath[] = "/var/conf/downlconf.tar.gz";
constexpr int64_t kChunk = static_cast<int64_t>(proto::kChunkSize);

// The size of an open file, which is then at its beginning again; -1 when it has none.
long file_size(std::FILE* file) {
  if (std::fseek(file, 0, SEEK_END) != 0) {
    return -1;
  }
  const long size = std::ftell(file);
  return std::fseek(file, 0, SEEK_SET) == 0 ? size : -1;
}

// Loads the archive out of the open file; results as qel_api_conf_pack.
int load_archive(std::FILE* file) {
  const long size = file_size(file);
  char* data = nullptr;
  if (size >= 0 && size < INT32_MAX) {
    data = static_cast<char*>(std::malloc(static_cast<size_t>(size) + 1));
  }
  if (data == nullptr) {
    std::perror("Memory allocation failed");
    return -1;
  }
  const auto length = static_cast<size_t>(size);
  if (std::fread(data, 1, length, file) < length) {
    std::perror("Error reading file");
    std::free(data);
    g_qel_conf.upload_length = 0;
    return 1;
  }
  data[length] = '\0';
  std::free(g_qel_conf.upload_data);
  g_qel_conf.upload_data = data;
  g_qel_conf.upload_length = static_cast<uint32_t>(length);
  g_qel_conf.upload_crc = crc32_sp(0, data, length);
  return 0;
}

// The end of a restore whose files are in place. Flash comes before the commit: a start that finds
// no commit stores them again. Returns what qel_confdir_commit does.
bool store_and_commit() {
  qel_shell_run("/morva/bin/conf flash");
  const bool good = qel_confdir_commit();
  qel_confdir_sweep();
  return good;
}

void write_failed(size_t written, size_t length) {
  qel_console("Write failed! written[%d], len[%d]\n", static_cast<int>(written),
              static_cast<int>(length));
}

}  // namespace

qel_conf_transfer g_qel_conf;

void qel_api_conf_init() {
  qel_confdir_remove_archive(kUploadPath);
  qel_confdir_remove_archive(kDownloadPath);
  g_qel_conf = qel_conf_transfer{};
  const qel_confdir_result finished = qel_confdir_recover();
  qel_confdir_sweep();
  // Without the commit the next start would come here again: no restart then, or they never end.
  if (finished == qel_confdir_result::replaced && store_and_commit()) {
    zlog_notice("a restore that was interrupted is finished, the switch restarts");
    if (qel_restart_order() != 0) {
      zlog_err("the switch refused to restart: the finished restore counts from its next restart");
    }
  }
}

int qel_api_conf_pack() {
  qel_confdir_sweep();
  qel_confdir_remove_archive(kUploadPath);
  if (qel_shell_run("cd /var/conf && tar -zcvf getconf.tar.gz -- *.conf") != 0) {
    return 0;
  }
  std::FILE* file = qel_os_fopen(kUploadPath, "rb");
  if (file == nullptr) {
    std::perror("Failed to open file");
    return -1;
  }
  const int result = load_archive(file);
  std::fclose(file);
  return result;
}

int qel_api_get_conf_bin(uint8_t* destination, int32_t index, int32_t* length, int32_t* next) {
  if (g_qel_conf.upload_data == nullptr || g_qel_conf.upload_length == 0) {
    qel_console("[%s,%d] \n", __func__, __LINE__);
    return -1;
  }
  const int64_t total = g_qel_conf.upload_length;
  const int64_t chunks = (total + kChunk - 1) / kChunk;
  const bool last = int64_t{index} + 1 == chunks;
  *length = static_cast<int32_t>(last ? total - int64_t{index} * kChunk : kChunk);
  *next = last ? 0 : 1;
  // The index is not bounded: one outside the archive is answered like a middle chunk, of zeros.
  if (index >= 0 && index < chunks) {
    std::memcpy(destination, g_qel_conf.upload_data + int64_t{index} * kChunk,
                static_cast<size_t>(*length));
  } else {
    std::memset(destination, 0, static_cast<size_t>(*length));
  }
  return 0;
}

int qel_api_conf_release() {
  std::free(g_qel_conf.upload_data);
  g_qel_conf.upload_data = nullptr;
  g_qel_conf.upload_length = 0;
  qel_shell_run("rm -rf -- /var/conf/getconf.tar.gz");
  return 0;
}

size_t qel_json_conf_get(std::span<char> area, int32_t index, uint16_t* tail) {
  uint8_t chunk[proto::kChunkSize];
  int32_t length = 0;
  int32_t next = 0;
  g_qel_dev.online_ports = 0;
  const int result = qel_api_get_conf_bin(chunk, index, &length, &next);
  if (result != 0) {
    qel_console("[%s,%d] ret[%d]\n", __func__, __LINE__, result);
  }
  qel_text text(area.data(), area.size());
  qel_json_update_head(text, "config_upload");
  text.printf("\"state\":%d", result == 0 ? 1 : 0);
  text.printf(",\"idx\":%d", index);
  text.printf(",\"length\":%d", length);
  text.printf(",\"next\":%d", next);
  text.printf(",\"total_length\":%d", static_cast<int32_t>(g_qel_conf.upload_length));
  // Signed, so that a CRC with its top bit set is sent as a negative number.
  text.printf(",\"crc\":%d", static_cast<int32_t>(g_qel_conf.upload_crc));
  text.put("}}");
  const size_t whole = text.length() + 1 + static_cast<size_t>(length);
  if (whole > area.size()) {
    return 0;
  }
  std::memcpy(area.data() + text.length() + 1, chunk, static_cast<size_t>(length));
  *tail = static_cast<uint16_t>(text.length() + 1 + proto::kHeaderSize);
  return whole;
}

int qel_api_download_begin(int32_t total_length) {
  if (total_length < 0) {
    return -2;
  }
  const auto total = static_cast<uint32_t>(total_length);
  auto* data = static_cast<char*>(std::malloc(size_t{total} + 1));
  if (data == nullptr) {
    return -2;
  }
  qel_confdir_remove_archive(kDownloadPath);
  g_qel_conf.download_file = qel_os_fopen(kDownloadPath, "wb");
  if (g_qel_conf.download_file == nullptr) {
    qel_console("File Open failed\n");
    std::free(data);
    return -1;
  }
  // Unbuffered, so that a full disk shows in the chunk that meets it.
  std::setvbuf(g_qel_conf.download_file, nullptr, _IONBF, 0);
  std::free(g_qel_conf.download_data);
  g_qel_conf.download_data = data;
  g_qel_conf.download_total = total;
  g_qel_conf.download_length = 0;
  return 0;
}

int qel_api_download_conf_write(std::span<const uint8_t> bytes) {
  qel_conf_transfer& conf = g_qel_conf;
  if (conf.download_file == nullptr) {
    return 0;
  }
  if (bytes.size() > conf.download_total - conf.download_length) {
    write_failed(0, bytes.size());
    qel_api_download_reset();
    return -1;
  }
  const size_t written =
      bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), conf.download_file);
  if (written < bytes.size() || std::fflush(conf.download_file) != 0) {
    write_failed(written, bytes.size());
    qel_api_download_reset();
    return -1;
  }
  if (!bytes.empty()) {
    std::memcpy(conf.download_data + conf.download_length, bytes.data(), bytes.size());
  }
  conf.download_length += static_cast<uint32_t>(bytes.size());
  qel_console("[%s,%d] downloadlen[%d] written[%d]\n", __func__, __LINE__,
              static_cast<int>(conf.download_length), static_cast<int>(written));
  return 0;
}

int qel_api_download_conf_check(uint32_t crc) {
  const uint32_t computed = crc32_sp(0, g_qel_conf.download_data, g_qel_conf.download_length);
  qel_console("[%s,%d] crc32[0x%x], loadcrc32[0x%x]\n", __func__, __LINE__, computed, crc);
  qel_api_download_reset();
  return computed == crc ? 0 : -1;
}

void qel_api_download_reset() {
  qel_console("[%s,%d] \n", __func__, __LINE__);
  if (g_qel_conf.download_file != nullptr) {
    std::fclose(g_qel_conf.download_file);
    g_qel_conf.download_file = nullptr;
  }
  std::free(g_qel_conf.download_data);
  g_qel_conf.download_data = nullptr;
  g_qel_conf.download_length = 0;
  g_qel_conf.download_total = 0;
  qel_console("[%s,%d] \n", __func__, __LINE__);
}

bool qel_api_download_unpack() {
  const bool good = qel_confdir_unpack();
  if (!good) {
    qel_confdir_remove_archive(kDownloadPath);
  }
  return good;
}

void qel_api_update_down_config(int flag) {
  if (flag != 0) {
    const qel_confdir_result result = qel_confdir_replace();
    qel_confdir_remove_archive(kDownloadPath);
    if (result == qel_confdir_result::replaced) {
      store_and_commit();
    }
    qel_restart_order();
  }
  qel_console("[%s,%d] down config flag[%d] \n", __func__, __LINE__, flag);
}

bool qel_api_chunk(std::span<const uint8_t> received, int32_t position, int32_t length,
                   std::span<const uint8_t>* chunk) {
  *chunk = {};
  if (position < 0 || length < 0 || static_cast<size_t>(position) > received.size() ||
      static_cast<size_t>(length) > received.size() - static_cast<size_t>(position)) {
    return false;
  }
  *chunk = received.subspan(static_cast<size_t>(position), static_cast<size_t>(length));
  return true;
}
