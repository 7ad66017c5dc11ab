// SPDX-License-Identifier: Apache-2.0
#include "NtfsReader.h"

#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/platform/CompanionProgram.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/posix/ProgramStart.h"

namespace vorlix {
namespace {

constexpr const char* kProgram = "ntfs_reader";
constexpr size_t kLargestFrame = size_t{1} << 20;
constexpr size_t kLongestReason = 1000;
constexpr size_t kFrameHeader = 5;

using Clock = std::chrono::steady_clock;

void append(std::vector<uint8_t>& bytes, uint64_t number, size_t size) {
  for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
}

Dissenter failed(const std::string& reason) {
  return {kDissentError, reason};
}

// What a program in another process says goes to terminals.
std::string plainText(const std::vector<uint8_t>& bytes) {
  std::string text(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), kLongestReason)));
  for (char& letter : text) {
    if (letter < ' ' || letter > '~') letter = '?';
  }
  return text;
}

struct SocketPair {
  Descriptor own;
  Descriptor others;
};

SocketPair makeSockets() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socket");
  }
  const Descriptor own(ends[0]);
  const Descriptor others(ends[1]);
  return {giveable(own.get()), giveable(others.get())};
}

// The program has the socket as its input, nothing for its output and messages, and the device.
pid_t startProgram(const std::string& path, const OpenedDevice& device, const Descriptor& socket) {
  const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (!nowhere) throw std::system_error(errno, std::generic_category(), "/dev/null");
  const Descriptor output = giveable(nowhere.get());
  const Descriptor volume = giveable(device.descriptor.get());
  ProgramStart start;
  start.give(socket.get());
  start.give(output.get());
  start.give(output.get());
  start.give(volume.get());
  char* const environment[] = {nullptr};
  return start.run(path, {path, std::to_string(device.window.offset), std::to_string(device.window.size)}, environment);
}

}  // namespace

std::unique_ptr<NtfsReader> NtfsReader::start(const OpenedDevice& device, Refusal& refusal) {
  const std::optional<std::string> path = companionProgram(kProgram);
  if (!path) {
    refusal = Dissenter{kDissentUnsupported, std::string("not mounted, and ") + kProgram +
                                                 ", which reads NTFS without that, is not installed"};
    return nullptr;
  }
  std::unique_ptr<NtfsReader> reader;
  try {
    SocketPair sockets = makeSockets();
    const pid_t process = startProgram(*path, device, sockets.others);
    reader.reset(new NtfsReader(process, std::move(sockets.own)));
  } catch (const std::system_error& failure) {
    refusal = dissenterFor(failure.code().value(), *path);
    return nullptr;
  }
  std::vector<uint8_t> nothing;
  refusal = reader->receiveAnswer(0, nothing);
  return refusal ? nullptr : std::move(reader);
}

NtfsReader::NtfsReader(pid_t process, Descriptor socket) : process_(process), socket_(std::move(socket)) {}

NtfsReader::~NtfsReader() {
  static_cast<void>(giveUp(""));
}

Refusal NtfsReader::ask(What what, const std::string& path, uint64_t count, size_t limit,
                        std::vector<uint8_t>& answer) {
  answer.clear();
  if (!failure_.empty()) return failed(failure_);
  std::vector<uint8_t> request = {static_cast<uint8_t>(what)};
  append(request, count, 8);
  append(request, path.size(), 4);
  request.insert(request.end(), path.begin(), path.end());
  if (Refusal refusal = send(request)) return refusal;
  Refusal refusal = receiveAnswer(limit, answer);
  if (refusal) answer.clear();
  return refusal;
}

Refusal NtfsReader::send(const std::vector<uint8_t>& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return lost();
    sent += static_cast<size_t>(count);
  }
  return std::nullopt;
}

Refusal NtfsReader::receiveAnswer(size_t limit, std::vector<uint8_t>& answer) {
  for (;;) {
    std::array<uint8_t, kFrameHeader> header = {};
    if (Refusal refusal = receive(header.data(), header.size())) return refusal;
    const auto size = static_cast<size_t>(littleEndian(header.data() + 1, 4));
    if (size > kLargestFrame) return giveUp("the NTFS reader answers wrongly");
    if (header[0] == 'E' && size == 0) return std::nullopt;
    if (header[0] == 'F') {
      std::vector<uint8_t> reason(size);
      if (Refusal refusal = receive(reason.data(), reason.size())) return refusal;
      return failed(plainText(reason));
    }
    if (header[0] != 'D' || size == 0) return giveUp("the NTFS reader answers wrongly");
    const size_t start = answer.size();
    if (size > limit - start) return giveUp("larger than can be read of a volume that is not mounted");
    answer.resize(start + size);
    if (Refusal refusal = receive(answer.data() + start, size)) return refusal;
  }
}

Refusal NtfsReader::receive(uint8_t* bytes, size_t count) {
  const Clock::time_point end = Clock::now() + kPatience;
  while (count > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return giveUp("reading the NTFS volume takes too long");
    pollfd waiting = {socket_.get(), POLLIN, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return lost();
    if (ready <= 0) continue;
    const ssize_t got = recv(socket_.get(), bytes, count, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return lost();
    bytes += got;
    count -= static_cast<size_t>(got);
  }
  return std::nullopt;
}

// The program has closed its end.
Refusal NtfsReader::lost() {
  int status = 0;
  pid_t ended = -1;
  if (process_ > 0) {
    kill(process_, SIGKILL);  // it may have closed its end only
    do ended = waitpid(process_, &status, 0);
    while (ended < 0 && errno == EINTR);
  }
  process_ = -1;
  if (ended > 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU) {
    return giveUp("damaged NTFS: reading it takes too long");
  }
  const bool hasCrashed = ended > 0 && WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL;
  return giveUp(hasCrashed ? std::string("damaged NTFS: its reader crashed: ") + strsignal(WTERMSIG(status))
                           : "the NTFS reader ended without an answer");
}

Refusal NtfsReader::giveUp(const std::string& reason) {
  socket_.reset();
  if (process_ > 0) {
    kill(process_, SIGKILL);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) continue;
    process_ = -1;
  }
  failure_ = reason;
  return failed(reason);
}

}  // namespace vorlix
