// SPDX-License-Identifier: Apache-2.0
//
// See frame_gate.h.
#include "platform/linux/morvad/kernel/frame_gate.h"

#include <linux/if_packet.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace morvad {
namespace {

/// The group address of the gateway's frames.
constexpr unsigned char kGroup[6] = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x1f};

constexpr char kRemove[] = "add table netdev morva\ndelete table netdev morva\n";

struct NftFree {
  void operator()(nft_ctx* context) const { nft_ctx_free(context); }
};

}  // namespace

std::string run_nft(const std::string& commands) {
  const std::unique_ptr<nft_ctx, NftFree> context(nft_ctx_new(NFT_CTX_DEFAULT));
  if (context == nullptr) {
    return "nftables: no memory";
  }
  nft_ctx_buffer_output(context.get());
  nft_ctx_buffer_error(context.get());
  if (nft_run_cmd_from_buffer(context.get(), commands.c_str()) == 0) {
    return {};
  }
  const char* said = nft_ctx_get_error_buffer(context.get());
  const std::string text = said != nullptr ? said : "";
  return "nftables: " + text.substr(0, text.find('\n'));
}

bool FrameGate::rule_is_there() const {
  return nft_("list chain netdev morva frames").empty();
}

bool FrameGate::found_shut() {
  open_ = !rule_is_there();
  return !open_;
}

std::string FrameGate::set(bool open) {
  if (index_ == 0) {
    open_ = open;  // counts from when the interface is there
    return {};
  }
  std::string commands = kRemove;
  if (!open) {
    // The protocol as the kernel sees it, so that a priority tag in front of it does not hide it.
    commands += "table netdev morva {\nchain frames {\ntype filter hook ingress device \"" +
                interface_ +
                "\" priority 0; policy accept;\nmeta protocol 0x9301 counter drop\n}\n}\n";
  }
  // Looking costs far less than removing what is not there, which every start would pay for.
  std::string refusal = open && !rule_is_there() ? "" : nft_(commands);
  // Without nftables in the kernel nothing was ever shut, so opening needs nothing of it.
  if (!refusal.empty() && (!open || !open_)) {
    return refusal;
  }
  open_ = open;
  if (open) {
    // Closing a packet socket waits for the kernel's readers, some 10 ms, so a member stays one.
    return member_.valid() ? "" : join();
  }
  member_.reset(-1);
  return {};
}

std::string FrameGate::join() {
  UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));  // protocol 0: receives nothing
  packet_mreq request{};
  request.mr_ifindex = index_;
  request.mr_type = PACKET_MR_MULTICAST;
  request.mr_alen = sizeof kGroup;
  std::copy(std::begin(kGroup), std::end(kGroup), request.mr_address);
  if (!fd.valid() ||
      setsockopt(fd.get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
    return interface_ + ": group address not joined: " + strerror(errno);
  }
  member_.reset(fd.release());
  return {};
}

std::string FrameGate::interface_made(int index) {
  index_ = index;
  member_.reset(-1);
  std::string refusal = set(open_);
  open_ = open_ || !refusal.empty();
  return refusal;
}

void FrameGate::interface_gone() {
  index_ = 0;
  member_.reset(-1);
}

}  // namespace morvad
