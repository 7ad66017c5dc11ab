// SPDX-License-Identifier: Apache-2.0
//
// fault_tracer: counts the system calls of a command and injects a fault at one of them.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Tracer.h"

namespace {

constexpr int kUsage = 125;
constexpr int kHang = 124;
constexpr int kSignal = 128;  // added to a signal's number, as in shells

constexpr const char* kHelp =
    "usage: fault_tracer [OPTIONS] -- COMMAND [ARGUMENTS]\n"
    "Runs a command and counts the system calls of all its processes that work on files, disks and processes.\n"
    "\n"
    "  --report FILE     write how the command ended, and each counted call with its file\n"
    "  --calls A,B       count only these calls (--names lists all)\n"
    "  --from-start      also count the calls of the dynamic loader\n"
    "  --timeout SECONDS kill all processes after that time and report a hang (default: 60)\n"
    "  --at N, --at P:N  inject a fault at call N, counted from 1, or at call N of process P:\n"
    "    --error ERRNO     the call fails; ERRNO is a number or a name such as EIO\n"
    "    --short           the call transfers half of its bytes\n"
    "    --kill-before     all processes are killed before the call is made\n"
    "    --kill-after      all processes are killed after the call\n"
    "\n"
    "Exit status: the command's; 128 plus the number of a signal; 124 for a hang; 125 if the tracer itself fails.\n";

int errorOf(const std::string& name) {
  for (int error = 1; error < 200; ++error) {
    const char* const known = strerrorname_np(error);
    if (known != nullptr && name == known) return error;
  }
  const int error = std::atoi(name.c_str());
  if (error <= 0) throw std::invalid_argument("unknown error: " + name);
  return error;
}

std::vector<std::string> namesOf(const std::string& list) {
  std::vector<std::string> names;
  for (size_t at = 0; at <= list.size();) {
    const size_t end = std::min(list.find(',', at), list.size());
    names.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  for (const std::string& name : names) {
    bool isKnown = false;
    for (const Call& call : countedCalls()) isKnown = isKnown || name == call.name;
    if (!isKnown) throw std::invalid_argument("not a counted call: " + name);
  }
  return names;
}

struct Options {
  Task task;
  std::string report;
};

Options parse(int argc, char** argv) {
  Options options;
  int at = 1;
  const auto value = [&] {
    if (at >= argc) throw std::invalid_argument("an option lacks its value");
    return std::string(argv[at++]);
  };
  while (at < argc) {
    const std::string_view option = argv[at++];
    if (option == "--") break;
    if (option == "--report") {
      options.report = value();
    } else if (option == "--calls") {
      options.task.calls = namesOf(value());
    } else if (option == "--from-start") {
      options.task.fromStart = true;
    } else if (option == "--timeout") {
      options.task.seconds = std::stod(value());
    } else if (option == "--at") {
      const std::string place = value();
      const size_t colon = place.find(':');
      if (colon != std::string::npos) options.task.process = std::stoull(place.substr(0, colon));
      options.task.at = std::stoull(colon == std::string::npos ? place : place.substr(colon + 1));
    } else if (option == "--error") {
      options.task.fault = Fault::error;
      options.task.error = errorOf(value());
    } else if (option == "--short") {
      options.task.fault = Fault::shortTransfer;
    } else if (option == "--kill-before") {
      options.task.fault = Fault::killBefore;
    } else if (option == "--kill-after") {
      options.task.fault = Fault::killAfter;
    } else {
      throw std::invalid_argument("unknown option " + std::string(option));
    }
  }
  options.task.command.assign(argv + at, argv + argc);
  if (options.task.command.empty()) throw std::invalid_argument("no command");
  if ((options.task.at == 0) != (options.task.fault == Fault::none)) {
    throw std::invalid_argument("--at and a fault need each other");
  }
  return options;
}

// Escapes text so that it fits into one field of a line.
std::string field(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    if (static_cast<unsigned char>(character) >= ' ' && character != '\\') {
      escaped += character;
      continue;
    }
    char code[8];
    std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(character));
    escaped += code;
  }
  return escaped;
}

const char* nameOf(Outcome::End end) {
  switch (end) {
    case Outcome::End::exited:
      return "exited";
    case Outcome::End::signalled:
      return "signalled";
    case Outcome::End::killed:
      return "killed";
    case Outcome::End::hang:
      return "hang";
    case Outcome::End::failed:
      break;
  }
  return "failed";
}

// Writes a file of lines with fields separated by tabs. The first line describes the run: how the command ended, its
// status, whether the fault took place, the number of other processes that a signal ended, the number of the chosen
// call. Each other line describes a call: number, process, name, file, other file, count, offset, flags, result ("?" if
// the process ended during the call).
bool writeReport(const std::string& path, const Outcome& outcome) {
  std::ofstream file(path);
  file << nameOf(outcome.end) << '\t' << outcome.status << '\t' << (outcome.isHit ? "hit" : "not hit") << '\t'
       << outcome.childrenByCrash << '\t' << outcome.chosen << '\n';
  size_t number = 0;
  for (const CallRecord& call : outcome.calls) {
    file << ++number << '\t' << call.process << '\t' << call.call->name << '\t' << field(call.file) << '\t'
         << field(call.other) << '\t' << call.count << '\t' << call.offset << '\t' << call.flags << '\t';
    if (call.isDone) {
      file << call.result << '\n';
    } else {
      file << "?\n";
    }
  }
  file.close();
  return !file.fail();
}

int statusOf(const Outcome& outcome) {
  switch (outcome.end) {
    case Outcome::End::exited:
      return outcome.status;
    case Outcome::End::signalled:
    case Outcome::End::killed:
      return kSignal + outcome.status;
    case Outcome::End::hang:
      return kHang;
    case Outcome::End::failed:
      break;
  }
  return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--names") == 0) {
    for (const Call& call : countedCalls()) std::cout << call.name << '\n';
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::cout << kHelp;
    return 0;
  }
  Options options;
  try {
    options = parse(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "fault_tracer: " << error.what() << '\n' << kHelp;
    return kUsage;
  }
  const Outcome outcome = trace(options.task);
  if (outcome.end == Outcome::End::failed) {
    std::cerr << "fault_tracer: " << outcome.reason << '\n';
    return kUsage;
  }
  if (!options.report.empty() && !writeReport(options.report, outcome)) {
    std::cerr << "fault_tracer: " << options.report << ": the report cannot be written\n";
    return kUsage;
  }
  return statusOf(outcome);
}
