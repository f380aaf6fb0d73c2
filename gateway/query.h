// SPDX-License-Identifier: Apache-2.0
//
// Asking a module inside a switch. The reply comes without an envelope, so it is told apart only by
// its sender; and since a query may change something, it is sent once.
#pragma once

#include <string>

#include "gateway/discovery.h"
#include "gateway/session.h"

namespace qel_gateway {

struct QueryReply {
  std::string text;
  Json json = Json(Json::value_t::discarded);  // discarded when the text is no JSON
};

// `text`: what query_text() made. Throws Error (no answer), Interrupted.
Task<QueryReply> ask_module(Session& session, const Switch& one, std::string text,
                            Duration patience);

}  // namespace qel_gateway
