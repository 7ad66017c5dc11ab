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
#include "Text.h"

namespace vorlix::tool {
namespace {

using State = StartFinding::State;

constexpr int kCheckVersion = 1;

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

void printFindings(const StartReport& report) {
  for (const StartFinding& finding : report.findings) {
    const char* const before = finding.state == State::unseen ? "not looked at: " : "";
    std::printf("%-12s %-6s  %s%s\n", areaTitle(finding.area), stateWord(finding.state), before,
                printable(finding.text).c_str());
    if (finding.state != State::fault) continue;
    std::printf("%-21s%s\n%-21s%s\n", "", ("because " + printable(finding.why)).c_str(), "",
                ("to mend: " + printable(finding.command)).c_str());
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
  Json::object({{"version", kCheckVersion},
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
  command.addOption("DISK", options->disk, "Disk or disk-image file").required();
  command
      .addOption("--partition", options->partition,
                 "GPT entry of the Windows volume (default: the active slot's, or the only possible one)")
      .within(1, 128);
  command.addOption("--type", options->type, "MBR type of that slot, hexadecimal, where `hybrid` was given one");
  command.addChoice("--start", options->way, kStartWays,
                    "What to judge: auto, legacy, efi or both (default: what the disk is set up for)");
  command.addFlag("--json", options->json, "Print JSON (version 1)");
  command.setFooter(
      "Exit status: 0 the disk starts as far as can be told, 1 something must change first, 2 error.\n"
      "docs/start-check.md lists the codes of the findings.");
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
