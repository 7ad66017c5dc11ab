// SPDX-License-Identifier: Apache-2.0
#include "DisksView.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "Terminal.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using State = StartFinding::State;

struct Verdict {
  std::string text;
  std::optional<Color> color;
};

// The codes of the findings in one state, each once, in the order in which a start meets them.
std::vector<std::string> codesOf(const StartReport& report, State state) {
  std::vector<std::string> codes;
  for (const StartFinding& finding : report.findings) {
    if (finding.state != state) continue;
    const std::string& code = state == State::unseen ? finding.area : finding.code;
    if (std::find(codes.begin(), codes.end(), code) == codes.end()) codes.push_back(code);
  }
  return codes;
}

Verdict verdictOf(const SurveyedPartition& partition) {
  if (!partition.whyNotJudged.empty()) return {"not judged: " + partition.whyNotJudged, std::nullopt};
  if (!partition.start) return {partition.whyUnseen.empty() ? "-" : "?", std::nullopt};
  const StartReport& report = *partition.start;
  if (!report.starts()) {
    const std::vector<std::string> codes = codesOf(report, State::fault);
    const std::string more = codes.size() > 1 ? " (+" + std::to_string(codes.size() - 1) + ")" : "";
    return {"no: " + codes.front() + more, Color::red};
  }
  std::string text = report.legacy ? "legacy" : "";
  if (report.efi) text += text.empty() ? "EFI" : ", EFI";
  if (!codesOf(report, State::unseen).empty()) text += " (not all seen)";
  return {text, Color::green};
}

std::string windowsCell(const SurveyedPartition& partition) {
  if (!partition.whyUnseen.empty()) return "?";
  if (!partition.windows || *partition.windows == WindowsIs::absent) return "";
  if (*partition.windows == WindowsIs::installer) return "installer";
  if (isWindows11(partition.version)) return "Windows 11";
  const std::string product = partition.version.text("product").value_or("");
  return product.empty() ? "Windows" : product;
}

std::string fileSystemName(const std::string& kind) {
  constexpr std::pair<const char*, const char*> kNames[] = {
      {"msdos", "FAT"}, {"ntfs", "NTFS"}, {"exfat", "exFAT"}, {"hfs", "HFS+"}, {"apfs", "APFS"}};
  for (const auto& name : kNames) {
    if (kind == name.first) return name.second;
  }
  return kind;
}

// The name of a partition without the folders of its image file.
std::string shortName(const SurveyedPartition& partition) {
  return partition.device.substr(partition.device.rfind('/') + 1);
}

bool isRefused(const SurveyedDisk& disk) {
  return disk.isClosed && (disk.error == std::strerror(EACCES) || disk.error == std::strerror(EPERM));
}

// The table and whatever else is known of the disk itself.
std::string diskCell(const SurveyedDisk& disk) {
  std::string text;
  const auto add = [&](const std::string& fact) { text += (text.empty() ? "" : ", ") + fact; };
  if (!disk.table.empty()) {
    add(disk.table == "hybrid MBR" ? "GPT, hybrid MBR" : disk.table == "none" ? "no table" : disk.table);
  }
  if (!disk.damage.empty()) add("damaged");
  if (!disk.error.empty()) add((isRefused(disk) ? "may not be read: " : "cannot be read: ") + disk.error);
  if (disk.model) add(*disk.model);
  if (disk.isExternal == true) add("external");
  if (disk.isReadOnly == true) add("read-only");
  return text;
}

std::vector<std::string> partitionRow(const SurveyedPartition& partition, const std::string& mark) {
  const bool isVolume = partition.kind || partition.mountPoint;
  return {mark + printable(shortName(partition)),
          binarySizeText(partition.size),
          printable(partition.number == 0 ? "whole disk" : partition.type),
          printable(fileSystemName(partition.kind.value_or(""))),
          printable(partition.label.value_or("")),
          printable(partition.mountPoint.value_or(isVolume ? "not mounted" : "")),
          printable(windowsCell(partition)),
          printable(verdictOf(partition).text)};
}

std::string checkCommand(const SurveyedDisk& disk, const SurveyedPartition& partition) {
  return "vorlix check " + commandWord(disk.device) + " --partition " + std::to_string(partition.number);
}

void printBelow(const std::vector<SurveyedDisk>& disks) {
  std::vector<std::string> lines;
  for (const SurveyedDisk& disk : disks) {
    if (!disk.damage.empty()) lines.push_back(disk.name + ": GPT damaged: " + disk.damage.front().text);
    for (const SurveyedPartition& partition : disk.partitions) {
      if (!partition.whyUnseen.empty()) lines.push_back(partition.device + ": " + partition.whyUnseen);
      if (partition.start) lines.push_back("More: " + checkCommand(disk, partition));
    }
  }
  if (!lines.empty()) std::printf("\n");
  // Whole, so that a command can be copied.
  for (const std::string& line : lines) std::printf("%s\n", printable(line).c_str());
}

const char* windowsWord(WindowsIs windows) {
  switch (windows) {
    case WindowsIs::absent:
      return "none";
    case WindowsIs::installer:
      return "installer";
    case WindowsIs::installed:
      return "installed";
  }
  return "";
}

Json codesJson(const std::vector<std::string>& texts) {
  Json array = Json::array();
  for (const std::string& text : texts) array.append(text);
  return array;
}

Json startJson(const SurveyedDisk& disk, const SurveyedPartition& partition) {
  if (!partition.start) return {};
  const StartReport& report = *partition.start;
  return Json::object({{"starts", report.starts()},
                       {"judged", Json::object({{"legacy", report.legacy}, {"efi", report.efi}})},
                       {"faults", codesJson(codesOf(report, State::fault))},
                       {"unseen", codesJson(codesOf(report, State::unseen))},
                       {"command", checkCommand(disk, partition)}});
}

Json partitionJson(const SurveyedDisk& disk, const SurveyedPartition& partition) {
  const auto known = [&](const char* key) { return knownText(partition.version.text(key).value_or("")); };
  return Json::object({
      {"number", partition.number == 0 ? Json() : Json(partition.number)},
      {"device", partition.device},
      {"size", partition.size},
      {"type", knownText(partition.typeCode)},
      {"typeName", knownText(partition.type)},
      {"kind", partition.kind},
      {"label", partition.label},
      {"mountPath", partition.mountPoint},
      {"windows", partition.windows ? Json(windowsWord(*partition.windows)) : Json()},
      {"product", known("product")},
      {"edition", known("edition")},
      {"currentBuildNumber", known("currentBuildNumber")},
      {"start", startJson(disk, partition)},
      {"whyUnseen", knownText(partition.whyUnseen)},
      {"whyNotJudged", knownText(partition.whyNotJudged)},
  });
}

Json diskJson(const SurveyedDisk& disk) {
  Json damage = Json::array();
  for (const GPTFinding& finding : disk.damage) {
    damage.append(Json::object({{"code", finding.code}, {"text", finding.text}}));
  }
  Json partitions = Json::array();
  for (const SurveyedPartition& partition : disk.partitions) partitions.append(partitionJson(disk, partition));
  return Json::object({
      {"name", disk.name},
      {"device", disk.device},
      {"image", disk.isImage},
      {"size", disk.size},
      {"table", knownText(disk.table)},
      {"model", disk.model},
      {"external", disk.isExternal},
      {"readOnly", disk.isReadOnly},
      {"gptDamage", std::move(damage)},
      {"error", knownText(disk.error)},
      {"partitions", std::move(partitions)},
  });
}

}  // namespace

void printDisks(const std::vector<SurveyedDisk>& disks) {
  if (disks.empty()) {
    std::printf("no disk is known\n");
    return;
  }
  const bool isUTF8 = showsUTF8();
  std::vector<std::vector<std::string>> rows = {
      {"Name", "Size", "Type", "File system", "Label", "Mounted at", "Windows", "Starts"}};
  std::vector<std::optional<Color>> colors(1);
  for (const SurveyedDisk& disk : disks) {
    const std::string size = disk.size ? binarySizeText(*disk.size) : "";
    rows.push_back({printable(disk.name), size, printable(diskCell(disk)), "", "", "", "", ""});
    colors.emplace_back();
    for (size_t i = 0; i < disk.partitions.size(); ++i) {
      const bool isLast = i + 1 == disk.partitions.size();
      const std::string mark = isUTF8 ? (isLast ? "└─" : "├─") : (isLast ? "`-" : "|-");
      rows.push_back(partitionRow(disk.partitions[i], mark));
      colors.push_back(verdictOf(disk.partitions[i]).color);
    }
  }
  std::fputs(tableText(rows, "lrllllll", colors).c_str(), stdout);
  printBelow(disks);
}

Json disksJson(const std::vector<SurveyedDisk>& disks) {
  Json array = Json::array();
  for (const SurveyedDisk& disk : disks) array.append(diskJson(disk));
  return Json::object({{"version", kJsonVersion}, {"disks", std::move(array)}});
}

}  // namespace vorlix::tool
