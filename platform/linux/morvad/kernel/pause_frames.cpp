// SPDX-License-Identifier: Apache-2.0
//
// Pause frames, see ethtool.h. The older ioctl has no common name for this figure; the netlink
// family has.
#include <linux/ethtool_netlink.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>

#include "platform/linux/morvad/kernel/ethtool.h"
#include "platform/linux/morvad/kernel/netlink_parse.h"

namespace morvad {
namespace {

int take_answer(nl_msg* message, void* count) {
  *static_cast<uint64_t*>(count) = read_pause_answer(message);
  return NL_OK;
}

bool put_header(nl_msg* message, int index) {
  nlattr* header = nla_nest_start(message, ETHTOOL_A_PAUSE_HEADER);
  const bool good =
      header != nullptr &&
      nla_put_u32(message, ETHTOOL_A_HEADER_DEV_INDEX, static_cast<uint32_t>(index)) == 0 &&
      nla_put_u32(message, ETHTOOL_A_HEADER_FLAGS, ETHTOOL_FLAG_STATS) == 0;
  return good && nla_nest_end(message, header) == 0;
}

struct MessageFree {
  void operator()(nl_msg* message) const { nlmsg_free(message); }
};

}  // namespace

bool put_pause_request(nl_msg* message, int family, int index) {
  return genlmsg_put(message, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_ACK,
                     ETHTOOL_MSG_PAUSE_GET, ETHTOOL_GENL_VERSION) != nullptr &&
         put_header(message, index);
}

uint64_t read_pause_answer(nl_msg* message) {
  nlattr* attributes[ETHTOOL_A_PAUSE_MAX + 1] = {};
  nlattr* stats[ETHTOOL_A_PAUSE_STAT_MAX + 1] = {};
  if (genlmsg_parse(nlmsg_hdr(message), 0, attributes, ETHTOOL_A_PAUSE_MAX, nullptr) < 0 ||
      attributes[ETHTOOL_A_PAUSE_STATS] == nullptr ||
      nla_parse_nested(stats, ETHTOOL_A_PAUSE_STAT_MAX, attributes[ETHTOOL_A_PAUSE_STATS],
                       nullptr) < 0) {
    return 0;
  }
  const nlattr* received = stats[ETHTOOL_A_PAUSE_STAT_RX_FRAMES];
  const bool good = received != nullptr && nla_len(received) == sizeof(uint64_t);
  return good ? nla_get_u64(received) : 0;
}

void PauseFrames::Closer::operator()(nl_sock* socket) const {
  nl_socket_free(socket);
}

PauseFrames::PauseFrames() : socket_(nl_socket_alloc()) {
  if (socket_ != nullptr && genl_connect(socket_.get()) == 0) {
    family_ = genl_ctrl_resolve(socket_.get(), ETHTOOL_GENL_NAME);
  }
}

uint64_t PauseFrames::received(int index) {
  const std::unique_ptr<nl_msg, MessageFree> message(family_ < 0 ? nullptr : nlmsg_alloc());
  if (message == nullptr || !put_pause_request(message.get(), family_, index)) {
    return 0;
  }
  uint64_t count = 0;
  nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, take_answer, &count);
  if (nl_send_auto(socket_.get(), message.get()) >= 0) {
    // Reads up to the acknowledgement, or up to the refusal of a driver that knows no pause frames.
    nl_wait_for_ack(socket_.get());
  }
  nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
  return count;
}

}  // namespace morvad
