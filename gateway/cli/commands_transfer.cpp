// SPDX-License-Identifier: Apache-2.0
//
// qelctl backup, restore, firmware: files to and from switches, several at once, and a summary at
// the end that says of each what became of it.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/archive.h"
#include "gateway/cli/context.h"
#include "gateway/cli/each_switch.h"
#include "gateway/cli/transfer_output.h"
#include "gateway/files.h"
#include "gateway/requests.h"
#include "gateway/restore.h"
#include "gateway/settings.h"
#include "gateway/text.h"
#include "gateway/transfer.h"

namespace qel_gateway::cli {

namespace {

namespace fs = std::filesystem;

constexpr Duration kChunkPatience{6000};
constexpr Duration kRestartPatience{30000};
constexpr int kComeBackSeconds = 120;  // more than a switch takes to start

bool is_folder(const std::string& file) {
  std::error_code ignored;
  return fs::is_directory(file, ignored);
}

// Where the backup of each switch goes: FILE itself for one, FILE/<mac>.tar.gz when FILE is a
// folder. Several into one file would leave the last.
std::string backup_path(const std::string& file, const Switch& one, size_t count) {
  if (is_folder(file)) {
    return (fs::path(file) / (mac_text(one.mac) + ".tar.gz")).string();
  }
  if (count > 1) {
    throw Error(fmt::format("{} switches: FILE has to be a folder that exists", count),
                ExitCode::Usage);
  }
  return file;
}

Task<Transferred> back_up(Context& context, const Switch& one, std::string path,
                          ProgressSink progress) {
  const std::vector<uint8_t> bytes = co_await fetch_archive(
      context.session(), one, context.patience(kChunkPatience), std::move(progress));
  write_file(path, bytes);
  Transferred done;
  done.words = fmt::format("saved {} in {}", short_size(bytes.size()), terminal_text(path));
  done.json["file"] = path;
  done.json["bytes"] = bytes.size();
  done.json["crc"] = fmt::format("{:08x}", crc32_of(bytes));
  try {
    done.json["members"] = read_archive(bytes).size();
  } catch (const Error& error) {
    // What the switch gave is kept, but it could not be restored.
    done.json["warning"] = error.what();
    done.words += fmt::format("; it could not be restored: {}", error.what());
  }
  co_return done;
}

ExitCode run_backup(Context& context, const std::string& file) {
  if (context.options().dry_run) {
    return dry_run(context, [](const std::string& mac) {
      return std::vector<std::string>{upload_text(mac, 0)};
    });
  }
  if (!is_folder(file)) {
    file_to_write(file);
  }
  const auto switches = selected(context, Search::Quick);
  for (const Switch& one : switches) {
    file_to_write(backup_path(file, one, switches.size()));
  }
  return transfer_each(
      context, "backup", switches, [&](const Switch& one, const ProgressSink& progress) {
        return back_up(context, one, backup_path(file, one, switches.size()), progress);
      });
}

Push make_push(const std::string& file, const char* subject, const std::vector<uint8_t>& bytes) {
  Push push;
  push.subject = subject;
  push.file = plain_file_name(file);
  push.bytes = &bytes;
  push.crc = crc32_of(bytes);
  return push;
}

ExitCode dry_push(Context& context, const Push& push, bool forget_first) {
  return dry_run(context, [&](const std::string& mac) {
    std::vector<std::string> texts;
    if (forget_first) {
      texts.push_back(forget_text(mac, push));
    }
    for (const PlannedChunk& chunk : plan_chunks(mac, push, max_request_bytes())) {
      texts.push_back(fmt::format("{} and {} bytes", chunk.text, chunk.length));
    }
    return texts;
  });
}

std::string who(const std::vector<Switch>& switches) {
  return switches.size() == 1 ? title_of(switches[0]) : fmt::format("{} switches", switches.size());
}

OrderedJson differences_json(const std::vector<Difference>& differences) {
  OrderedJson list = OrderedJson::array();
  for (const Difference& difference : differences) {
    OrderedJson one;
    one["file"] = difference.file;
    if (!difference.key.empty()) {
      one["key"] = difference.key;
    }
    one["difference"] = difference_word(difference.kind);
    list.push_back(std::move(one));
  }
  return list;
}

// What is restored, and how long a switch may be away afterwards.
struct Restore {
  Push push;
  std::vector<ArchiveMember> members;
  std::chrono::seconds come_back;
};

Task<Transferred> restore(Context& context, const Switch& one, const Restore& what,
                          ProgressSink progress) {
  const Duration chunk_patience = context.patience(kChunkPatience);
  RestartMark mark = co_await mark_restart(context.session(), one, context.patience());
  co_await push_archive(context.session(), one, what.push, chunk_patience, std::move(progress));
  const RestorePatience patience{context.patience(kRestartPatience), what.come_back,
                                 chunk_patience};
  const RestoreReport report =
      co_await await_restored(context.session(), one, std::move(mark), what.members, patience);
  Transferred done;
  done.code = report.code;
  done.words = report.words;
  done.json["bytes"] = what.push.bytes->size();
  done.json["members"] = what.members.size();
  done.json["restart"] = effect_word(report.restart);
  if (report.read_back) {
    done.json["differences"] = differences_json(report.differences);
  }
  if (report.code != ExitCode::Done) {
    done.json["error"] = report.words;
  }
  co_return done;
}

ExitCode run_restore(Context& context, const std::string& file, int come_back) {
  const std::vector<uint8_t> bytes = read_file(file, kArchiveMax);
  const Restore what{make_push(file, "config_download", bytes), read_archive(bytes),
                     std::chrono::seconds(come_back)};
  if (context.options().dry_run) {
    return dry_push(context, what.push, true);
  }
  const auto switches = selected(context);
  const size_t count = what.members.size();
  const std::string question =
      fmt::format("Replace the whole configuration of {} by {} ({} file{}) and restart?",
                  who(switches), terminal_text(file), count, count == 1 ? "" : "s");
  if (!confirmed(context, question)) {
    return ExitCode::Failed;
  }
  return transfer_each(context, "restore", switches,
                       [&](const Switch& one, const ProgressSink& progress) {
                         return restore(context, one, what, progress);
                       });
}

Task<Transferred> upgrade(Context& context, const Switch& one, Push push, ProgressSink progress) {
  co_await push_firmware(context.session(), one, push, context.patience(kChunkPatience),
                         std::move(progress));
  Transferred done;
  done.words = "the switch has all of the image and upgrades";
  done.json["bytes"] = push.bytes->size();
  co_return done;
}

ExitCode run_firmware_push(Context& context, const std::string& file) {
  const std::vector<uint8_t> bytes = read_file(file, kFirmwareMax);
  const Push push = make_push(file, "firm_download", bytes);
  if (context.options().dry_run) {
    return dry_push(context, push, false);
  }
  const auto switches = selected(context);
  const std::string question =
      fmt::format("Upgrade the firmware of {} with {} ({})?", who(switches), terminal_text(file),
                  short_size(bytes.size()));
  if (!confirmed(context, question)) {
    return ExitCode::Failed;
  }
  return transfer_each(context, "firmware push", switches,
                       [&](const Switch& one, const ProgressSink& progress) {
                         return upgrade(context, one, push, progress);
                       });
}

ExitCode run_firmware_pull(Context& context, const std::string& location) {
  check_location(location);
  if (context.options().dry_run) {
    return dry_run(context, [&](const std::string& mac) {
      return std::vector<std::string>{fetch_firmware_text(mac, location)};
    });
  }
  const auto switches = selected(context);
  const std::string question =
      fmt::format("Have {} fetch firmware from {} and upgrade?", who(switches), location);
  if (!confirmed(context, question)) {
    return ExitCode::Failed;
  }
  constexpr Duration kFetchPatience{120000};
  return transfer_each(context, "firmware pull", switches,
                       [&](const Switch& one, const ProgressSink&) -> Task<Transferred> {
                         const EffectReport report = co_await fetch_firmware(
                             context.session(), one, location, context.patience(kFetchPatience));
                         Transferred done;
                         done.words = report.detail;
                         done.json["result"] = effect_word(report.effect);
                         done.code =
                             report.effect == Effect::Silent ? ExitCode::NoAnswer : ExitCode::Done;
                         co_return done;
                       });
}

void add_firmware(CLI::App& app, Choice& choice) {
  auto* family = app.add_subcommand("firmware", "Upgrade switches");
  family->require_subcommand(0, 1);
  family->footer("Example:\n  qelctl -i eth1 --switch office-sw firmware push linux.trx");
  auto* push = family->add_subcommand("push", "Push an image to switches");
  push->footer(
      "Asks first, unless --yes.\n\nExample:\n  qelctl -i eth1 --switch all firmware push "
      "linux.trx --yes");
  auto file = std::make_shared<std::string>();
  push->add_option("FILE", *file, "The image")->required();
  push->callback([&choice, file] {
    choice.action = [file](Context& context) { return run_firmware_push(context, *file); };
  });
  auto* pull = family->add_subcommand("pull", "Have switches fetch an image themselves");
  pull->footer(
      "Asks first, unless --yes. The switch does not say how the upgrade goes.\n\n"
      "Example:\n  qelctl -i eth1 firmware pull http://192.168.1.2/linux.trx --yes");
  auto location = std::make_shared<std::string>();
  pull->add_option("URL", *location, "Where the switch finds the image")->required();
  pull->callback([&choice, location] {
    choice.action = [location](Context& context) { return run_firmware_pull(context, *location); };
  });
}

}  // namespace

void add_transfer(CLI::App& app, Choice& choice) {
  auto* backup = app.add_subcommand("backup", "Save the configuration of switches");
  backup->footer(
      "With several switches FILE is a folder, and each gets a file <mac>.tar.gz in it.\n\n"
      "Example:\n  qelctl -i eth1 --switch all backup /srv/backups");
  auto file = std::make_shared<std::string>();
  backup->add_option("FILE", *file, "File to write, or folder to write into")->required();
  backup->callback([&choice, file] {
    choice.action = [file](Context& context) { return run_backup(context, *file); };
  });
  auto* restore = app.add_subcommand("restore", "Put a saved configuration onto switches");
  restore->footer(
      "FILE is a gzip'd tar of \".conf\" files. Asks first, unless --yes. Done when the\n"
      "switch has restarted and a backup taken then equals FILE.\n\n"
      "Example:\n  qelctl -i eth1 --switch office-sw restore office-sw.tar.gz --wait 120");
  auto source = std::make_shared<std::string>();
  auto come_back = std::make_shared<int>(kComeBackSeconds);
  restore->add_option("FILE", *source, "The archive")->required();
  restore->add_option("--wait", *come_back, "Wait so long for the switch to answer again")
      ->check(CLI::Range(1, 3600))
      ->type_name("SECONDS")
      ->capture_default_str();
  restore->callback([&choice, source, come_back] {
    choice.action = [source, come_back](Context& context) {
      return run_restore(context, *source, *come_back);
    };
  });
  add_firmware(app, choice);
}

}  // namespace qel_gateway::cli
