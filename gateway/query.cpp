// SPDX-License-Identifier: Apache-2.0
//
// Module queries.
#include "gateway/query.h"

#include "gateway/error.h"

namespace qel_gateway {

Task<QueryReply> ask_module(Session& session, const Switch& one, std::string text,
                            Duration patience) {
  QueryReply answer;
  Question question;
  question.to = one.address;
  question.source = one.source;
  question.text = std::move(text);
  question.patience = patience;
  question.take = [&answer](const Reply& reply) {
    answer.text = reply.text;
    answer.json = reply.data;
    return Verdict::Done;
  };
  auto wait = session.ask(std::move(question));
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
  if (outcome == Outcome::Silent) {
    throw Error("no reply; empty ones and those of more than 1600 bytes never come",
                ExitCode::NoAnswer);
  }
  co_return answer;
}

}  // namespace qel_gateway
