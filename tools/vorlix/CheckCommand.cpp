// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StartCheck.h>

#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "HybridPlan.h"
#include "StartFacts.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using CheckJson = nlohmann::ordered_json;
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
  CheckJson findings = CheckJson::array();
  for (const StartFinding& finding : report.findings) {
    CheckJson item = {{"area", finding.area}, {"state", stateName(finding.state)}};
    if (!finding.code.empty()) item["code"] = finding.code;
    item["text"] = finding.text;
    if (finding.state == State::fault) {
      item["why"] = finding.why;
      item["command"] = finding.command;
    }
    findings.push_back(std::move(item));
  }
  const CheckJson document = {
      {"version", kCheckVersion},
      {"disk", facts.disk},
      {"partition", facts.partition == 0 ? CheckJson() : CheckJson(facts.partition)},
      {"judged", {{"legacy", report.legacy}, {"efi", report.efi}}},
      {"starts", report.starts()},
      {"findings", std::move(findings)},
  };
  std::puts(document.dump(2, ' ', false, CheckJson::error_handler_t::replace).c_str());
}

}  // namespace

void addCheckCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* const command = app.add_subcommand(
      "check", "Tell, without writing, whether a disk can start its Windows, and what mends it if not");
  command->add_option("DISK", options->disk, "Disk or disk-image file")->required();
  command
      ->add_option("--partition", options->partition,
                   "GPT entry of the Windows volume (default: the active slot's, or the only possible one)")
      ->check(CLI::Range(1, 128));
  command->add_option("--type", options->type, "MBR type of that slot, hexadecimal, where `hybrid` was given one");
  command
      ->add_option("--start", options->way,
                   "What to judge: auto, legacy, efi or both (default: what the disk is set up for)")
      ->transform(CLI::CheckedTransformer(kStartWays));
  command->add_flag("--json", options->json, "Print JSON (version 1)");
  command->footer(
      "Exit status: 0 the disk starts as far as can be told, 1 something must change first, 2 error.\n"
      "docs/start-check.md lists the codes of the findings.");
  command->callback([options, &status] {
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
