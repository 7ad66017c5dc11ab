// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StartCheck.h>

#include <algorithm>
#include <cstdio>

#include "Findings.h"

namespace vorlix {
namespace {

bool isPlainLetter(char letter) {
  const auto isIn = [&](char first, char last) { return letter >= first && letter <= last; };
  return isIn('a', 'z') || isIn('A', 'Z') || isIn('0', '9') ||
         std::string("/._-+:,@%=").find(letter) != std::string::npos;
}

// A store is what a start by EFI is set up with. A disk without one is for a legacy start; so is one whose MBR has more
// than the slot that protects the GPT.
void chooseWays(const StartFacts& facts, StartWay way, StartReport& report) {
  const bool hasStore = facts.efi.store.sight == FileFact::Sight::there;
  const bool isProtective = mbrKindOf(facts.sector0) == MBRKind::protectsOnly;
  report.efi = way == StartWay::efi || way == StartWay::both || (way == StartWay::automatic && hasStore);
  report.legacy =
      way == StartWay::legacy || way == StartWay::both || (way == StartWay::automatic && !(hasStore && isProtective));
}

}  // namespace

std::string StartFindings::hybridCommand() const {
  std::string text = "vorlix hybrid " + diskWord() + " --partition ";
  text += facts_.partition >= 1 && facts_.partition <= kSlotCount ? std::to_string(facts_.partition) : "N";
  if (facts_.type == 0) return text;
  char type[16];
  std::snprintf(type, sizeof type, " --type %02X", facts_.type);
  return text + type;
}

bool StartReport::starts() const {
  return std::none_of(findings.begin(), findings.end(),
                      [](const StartFinding& finding) { return finding.state == StartFinding::State::fault; });
}

std::string commandWord(const std::string& name) {
  if (!name.empty() && name.front() != '-' && std::all_of(name.begin(), name.end(), isPlainLetter)) return name;
  std::string quoted = name.starts_with('-') ? "./'" : "'";
  for (const char letter : name) quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  return quoted + "'";
}

StartReport checkStart(const StartFacts& facts, StartWay way) {
  StartReport report;
  chooseWays(facts, way, report);
  StartFindings findings(facts);
  checkStartGPT(findings);
  if (report.legacy) {
    checkLegacyMBR(findings);
  } else {
    checkProtectiveMBR(findings);
  }
  checkStartVolume(findings, report.legacy);
  checkEFIVolume(findings, report.efi);
  report.findings = findings.take();
  return report;
}

}  // namespace vorlix
