// SPDX-License-Identifier: Apache-2.0
//
// The companion program "ntfs_reader", which parses an NTFS volume with its own process's limits and rights. Whatever
// becomes of it, and whatever it answers, is at worst a refusal here. tools/ntfs_reader/Answers.h describes what is
// sent.
#pragma once

#include <Vorlix/platform/Descriptor.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Dissenters.h"
#include "OpenedDevice.h"

namespace vorlix {

/// One running program for one volume. Destroying the object ends it.
class NtfsReader {
 public:
  enum class What : char { items = 'L', content = 'R' };

  /// The longest wait for a piece of an answer.
  static constexpr std::chrono::seconds kPatience{20};

  /// Starts the program, which opens the volume. Null with a refusal if there is no such program or the volume cannot
  /// be read.
  static std::unique_ptr<NtfsReader> start(const OpenedDevice& device, Refusal& refusal);

  ~NtfsReader();
  NtfsReader(const NtfsReader&) = delete;
  NtfsReader& operator=(const NtfsReader&) = delete;

  /// Asks for the items of a folder, or for the first `count` bytes of a file. Refused if the answer would be larger
  /// than `limit` bytes. After a crash every question is refused.
  Refusal ask(What what, const std::string& path, uint64_t count, size_t limit, std::vector<uint8_t>& answer);

  pid_t process() const { return process_; }

 private:
  NtfsReader(pid_t process, Descriptor socket);

  Refusal send(const std::vector<uint8_t>& bytes);
  Refusal receive(uint8_t* bytes, size_t count);
  Refusal receiveAnswer(size_t limit, std::vector<uint8_t>& answer);
  Refusal giveUp(const std::string& reason);
  Refusal lost();

  pid_t process_;  // -1 after its end
  Descriptor socket_;
  std::string failure_;  // why there will be no more answers; empty if there will
};

}  // namespace vorlix
