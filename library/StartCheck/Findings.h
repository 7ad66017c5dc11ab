// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/BootSectors.h>
#include <Vorlix/StartCheck.h>

#include <string>
#include <utility>

namespace vorlix {

/// Place of the disk signature in sector 0, four bytes behind the boot code.
inline constexpr size_t kDiskSignature = kPureBootCodeSize;

/// Why a truncated disk starts nothing, and what mends it: no tool can add what is missing.
inline constexpr const char* kWhyTruncated = "a volume reaches into the part that is missing";
inline constexpr const char* kCopyAgain = "copy the whole disk or image again, to one that is large enough";

/// Collects the findings of one check.
class StartFindings {
 public:
  explicit StartFindings(const StartFacts& facts) : facts_(facts) {}

  const StartFacts& facts() const { return facts_; }
  std::vector<StartFinding> take() { return std::move(findings_); }

  void ok(const char* area, std::string text) { add(area, StartFinding::State::ok, "", std::move(text)); }
  void note(const char* area, const char* code, std::string text) {
    add(area, StartFinding::State::note, code, std::move(text));
  }
  void unseen(const char* area, std::string reason) { add(area, StartFinding::State::unseen, "", std::move(reason)); }
  void fault(const char* area, const std::string& code, std::string text, std::string why, std::string command) {
    add(area, StartFinding::State::fault, code, std::move(text));
    findings_.back().why = std::move(why);
    findings_.back().command = std::move(command);
  }

  /// "vorlix hybrid DISK --partition N", which mends whatever is wrong in the MBR and with the hidden sectors.
  std::string hybridCommand() const;
  std::string diskWord() const { return commandWord(facts_.disk); }

 private:
  void add(const char* area, StartFinding::State state, const std::string& code, std::string text) {
    findings_.push_back({area, state, code, std::move(text), "", ""});
  }

  const StartFacts& facts_;
  std::vector<StartFinding> findings_;
};

/// Checks the GPT.
void checkStartGPT(StartFindings& findings);

/// Checks the MBR, the active slot and the boot code of sector 0 for a legacy start.
void checkLegacyMBR(StartFindings& findings);

/// Checks that the MBR shows EFI firmware a disk with a GPT.
void checkProtectiveMBR(StartFindings& findings);

/// Checks the volume that is to start. `legacy` adds what only a legacy start needs.
void checkStartVolume(StartFindings& findings, bool legacy);

/// Checks the EFI System Partition and its store. Without `judged`, only says what is there.
void checkEFIVolume(StartFindings& findings, bool judged);

/// Checks the identifiers in a boot configuration store. `prefix` is "" for the store of EFI, "legacy-" for boot/BCD.
void checkStore(StartFindings& findings, const char* area, const std::string& prefix, const std::vector<uint8_t>& store,
                const std::string& command);

}  // namespace vorlix
