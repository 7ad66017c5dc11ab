// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StartCheck.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "Commands.h"
#include "Failure.h"
#include "HybridPlan.h"
#include "Json.h"
#include "StartFacts.h"
#include "Terminal.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using State = StartFinding::State;

const std::map<std::string, StartWay> kStartWays = {
    {"auto", StartWay::automatic}, {"legacy", StartWay::legacy}, {"efi", StartWay::efi}, {"both", StartWay::both}};

struct CheckOptions {
  std::string disk;
  uint32_t partition = 0;
  std::string type;
  StartWay way = StartWay::automatic;
  bool json = false;
};

const char* areaTitle(const std::string& area) {
  static const std::map<std::string, const char*> titles = {{"gpt", "GPT"},
                                                            {"mbr", "MBR"},
                                                            {"boot-code", "Boot code"},
                                                            {"active-slot", "Active slot"},
                                                            {"volume", "Volume"},
                                                            {"boot-sector", "Boot sector"},
                                                            {"boot-files", "Boot files"},
                                                            {"second-boot-sector", "Second copy"},
                                                            {"store", "Store"},
                                                            {"volume-code", "Volume code"},
                                                            {"efi-files", "EFI files"},
                                                            {"volume-state", "State"},
                                                            {"legacy-store", "Boot store"}};
  const auto found = titles.find(area);
  return found == titles.end() ? area.c_str() : found->second;
}

const char* stateWord(State state) {
  switch (state) {
    case State::ok:
      return "ok";
    case State::note:
      return "note";
    case State::unseen:
      return "unseen";
    case State::fault:
      return "change";
  }
  return "";
}

// Six columns wide.
std::string stateCell(State state) {
  std::string cell = stateWord(state);
  cell.resize(6, ' ');
  switch (state) {
    case State::ok:
      return colored(cell, Color::green);
    case State::fault:
      return colored(cell, Color::red);
    case State::unseen:
      return colored(cell, Color::yellow);
    case State::note:
      return cell;
  }
  return cell;
}

void printFindings(const StartReport& report) {
  constexpr int kIndent = 21;
  for (const StartFinding& finding : report.findings) {
    const std::string before = finding.state == State::unseen ? "not looked at: " : "";
    std::printf("%-12s %s  %s\n", areaTitle(finding.area), stateCell(finding.state).c_str(),
                hangingText(before + printable(finding.text), kIndent).c_str());
    if (finding.state != State::fault) continue;
    std::printf("%-*s%s\n", kIndent, "", hangingText("because " + printable(finding.why), kIndent).c_str());
    // Whole, so that it can be copied.
    std::printf("%-*s%s\n", kIndent, "", ("to mend: " + printable(finding.command)).c_str());
  }
}

const char* stateName(State state) {
  return state == State::fault ? "fault" : stateWord(state);
}

void printReportJson(const StartFacts& facts, const StartReport& report) {
  Json findings = Json::array();
  for (const StartFinding& finding : report.findings) {
    Json item = Json::object({{"area", finding.area}, {"state", stateName(finding.state)}});
    if (!finding.code.empty()) item.add("code", finding.code);
    item.add("text", finding.text);
    if (finding.state == State::fault) {
      item.add("why", finding.why);
      item.add("command", finding.command);
    }
    findings.append(std::move(item));
  }
  Json::object({{"version", kJsonVersion},
                {"disk", facts.disk},
                {"partition", facts.partition == 0 ? Json() : Json(facts.partition)},
                {"judged", Json::object({{"legacy", report.legacy}, {"efi", report.efi}})},
                {"starts", report.starts()},
                {"findings", std::move(findings)}})
      .print();
}

}  // namespace

void addCheckCommand(Command& top, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  Command command =
      top.addCommand("check", "Tell, without writing, whether a disk can start its Windows, and what mends it if not");
  command.addOption("DISK", options->disk, "Disk or disk-image file").completes(ValueKind::disk).required();
  command
      .addOption("--partition", options->partition,
                 "GPT entry of the Windows volume (default: the active slot's, or the only possible one)")
      .completes(ValueKind::partition)
      .within(1, 128);
  command.addOption("--type", options->type, "MBR type of that slot, hexadecimal, where `hybrid` was given one")
      .completes(ValueKind::text);
  command.addChoice("--start", options->way, kStartWays,
                    "What to judge: auto, legacy, efi or both (default: what the disk is set up for)");
  command.addFlag("--json", options->json, "Print JSON");
  command.setFooter(
      "Exit status: 0 the disk starts as far as can be told, 1 something must change first, 2 error.\n"
      "docs/start-check.md lists the codes of the findings.");
  command.setExamples({"vorlix check /dev/sda", "vorlix check mac.img --partition 3 --start legacy"});
  command.setAction([options, &status] {
    const StartFacts facts = collectStartFacts(options->disk, options->partition, parseMBRType(options->type));
    const StartReport report = checkStart(facts, options->way);
    if (options->json) {
      printReportJson(facts, report);
    } else {
      printFindings(report);
    }
    status = report.starts() ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
