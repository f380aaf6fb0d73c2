// SPDX-License-Identifier: Apache-2.0
//
// Asking a switch for its ports.
#include "gateway/ports.h"

#include <algorithm>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/requests.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr int kReadSends = 2;

// One report besides the first: what to ask, what to expect, and where its rows go.
struct Report {
  unsigned bit;
  const char* request;
  const char* subject;  // of the answer
  bool paged;           // complete only when every port has been named
  void (*store)(Port& port, const Json& row);
  bool (*stored)(const Port& port);
};

constexpr Report kReports[] = {
    {kPortConfig, "ports_conf", "ports_conf", true,
     [](Port& port, const Json& row) { port.config = read_port_config(row); },
     [](const Port& port) { return port.config.has_value(); }},
    {kPortLink, "ports_link", "ports_link", false,
     [](Port& port, const Json& row) { port.link = read_port_link(row); },
     [](const Port& port) { return port.link.has_value(); }},
    {kPortPoe, "ports_poe", "ports_poe_conf", false,
     [](Port& port, const Json& row) { port.poe = read_port_poe(row); },
     [](const Port& port) { return port.poe.has_value(); }},
    {kPortStats, "ports_stats", "ports_stats", true,
     [](Port& port, const Json& row) { port.stats = read_port_stats(row); },
     [](const Port& port) { return port.stats.has_value(); }},
    {kPortClient, "ports_client", "ports_client", true,
     [](Port& port, const Json& row) { port.client = read_port_client(row); },
     [](const Port& port) { return port.client.has_value(); }},
};

Question read_question(const Switch& one, const char* request, Duration patience) {
  Question question;
  question.to = one.address;
  question.source = one.source;
  question.mac = one.mac;
  question.text = get_text(mac_text(one.mac), request);
  question.patience = patience;
  question.sends = kReadSends;
  return question;
}

const Json& rows_of(const Reply& reply) {
  if (!reply.data.is_object()) {
    throw BadReply("a port report without an object");
  }
  return reply.data;
}

Verdict take_info(const Reply& reply, PortTable& table, bool& informed, bool& placed) {
  const Json& rows = rows_of(reply);
  if (reply.subject == "ports_info") {
    std::vector<Port> ports;
    for (const auto& [name, row] : rows.items()) {
      ports.push_back(read_port_info(name, row));
    }
    std::ranges::stable_sort(ports, {}, &Port::index);
    table.ports = std::move(ports);
    informed = true;
    placed = false;
  } else if (informed) {
    for (const auto& [name, row] : rows.items()) {
      if (Port* port = table.find(name)) {
        port->position = read_port_position(row);
      }
    }
    placed = true;
  }
  return informed && placed ? Verdict::Done : Verdict::More;
}

// All rows are read before one is kept, so that a bad report changes nothing.
Verdict take_rows(const Reply& reply, const Report& report, PortTable& table) {
  std::vector<Port> staged = table.ports;
  for (const auto& [name, row] : rows_of(reply).items()) {
    const auto port = std::ranges::find(staged, name, &Port::name);
    if (port != staged.end()) {
      report.store(*port, row);
    }
  }
  table.ports = std::move(staged);
  const bool complete = !report.paged || std::ranges::all_of(table.ports, report.stored);
  return complete ? Verdict::Done : Verdict::More;
}

Task<void> read_info(Session& session, const Switch& one, PortTable& table, Duration patience) {
  bool informed = false;
  bool placed = false;
  Question question = read_question(one, "ports_info", patience);
  question.subjects = {"ports_info", "ports_pos"};
  question.take = [&](const Reply& reply) { return take_info(reply, table, informed, placed); };
  auto wait = session.ask(std::move(question));
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
  if (!informed) {
    throw Error("the switch does not say which ports it has", ExitCode::NoAnswer);
  }
  if (!placed) {
    table.missing.emplace_back("ports_pos");
  }
}

}  // namespace

Port* PortTable::find(std::string_view name) {
  const auto found = std::ranges::find(ports, name, &Port::name);
  return found != ports.end() ? &*found : nullptr;
}

const Port* PortTable::find(std::string_view name) const {
  const auto found = std::ranges::find(ports, name, &Port::name);
  return found != ports.end() ? &*found : nullptr;
}

std::vector<std::string> port_subjects(unsigned reports) {
  std::vector<std::string> subjects = {"ports_info"};
  for (const Report& report : kReports) {
    if ((reports & report.bit) != 0) {
      subjects.emplace_back(report.request);
    }
  }
  return subjects;
}

Task<PortTable> read_ports(Session& session, const Switch& one, unsigned reports,
                           Duration patience) {
  PortTable table;
  co_await read_info(session, one, table, patience);
  // The switch works on one request after the other; asking for all at once saves the waiting.
  std::vector<std::pair<const Report*, Session::Wait>> waits;
  for (const Report& report : kReports) {
    if ((reports & report.bit) == 0 || table.ports.empty()) {
      continue;
    }
    Question question = read_question(one, report.request, patience);
    question.subjects = {report.subject};
    question.take = [&table, &report](const Reply& reply) {
      return take_rows(reply, report, table);
    };
    waits.emplace_back(&report, session.ask(std::move(question)));
  }
  for (auto& [report, wait] : waits) {
    const Outcome outcome = co_await wait;
    if (outcome == Outcome::Interrupted) {
      throw Interrupted();
    }
    if (outcome == Outcome::Silent) {
      table.missing.emplace_back(report->request);
    }
  }
  co_return table;
}

}  // namespace qel_gateway
