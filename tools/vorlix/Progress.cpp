// SPDX-License-Identifier: Apache-2.0
#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <utility>

#include "Json.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr std::chrono::milliseconds kBetweenBars{100};
constexpr std::chrono::milliseconds kBetweenObjects{500};
constexpr std::chrono::seconds kBetweenLines{5};
constexpr double kTooEarlyToTell = 0.5;  // seconds
constexpr int kBarWidth = 30;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t signalHasCome = 0;

extern "C" void noteSignal(int number) {
  signalHasCome = 1;
  std::signal(number, SIG_DFL);
}

int64_t wholeSeconds(double seconds) {
  return std::chrono::ceil<std::chrono::seconds>(std::chrono::duration<double>(seconds)).count();
}

std::string timeText(int64_t whole) {
  const std::string rest = std::to_string(whole % 60);
  const std::string minutes = std::to_string(whole / 60 % 60);
  const std::string tail = (rest.size() == 1 ? "0" : "") + rest;
  if (whole < 3600) return minutes + ":" + tail;
  return std::to_string(whole / 3600) + ":" + (minutes.size() == 1 ? "0" : "") + minutes + ":" + tail;
}

}  // namespace

void addProgressOption(Command& command, ProgressForm& form) {
  command.addChoice("--progress", form,
                    {{"auto", ProgressForm::people}, {"json", ProgressForm::json}, {"none", ProgressForm::none}},
                    "auto: a bar on a terminal, else a line every few seconds; json: one object a line; none");
}

Progress::Progress(ProgressForm form, std::string phase)
    : form_(form),
      phase_(std::move(phase)),
      isTerminal_(form == ProgressForm::people && isatty(STDERR_FILENO) == 1),
      interval_(form == ProgressForm::json ? Clock::duration(kBetweenObjects)
                : isTerminal_              ? Clock::duration(kBetweenBars)
                                           : Clock::duration(kBetweenLines)),
      start_(Clock::now()),
      told_(start_) {}

Progress::~Progress() {
  if (hasBar_) std::fputs("\r\033[K", stderr);
}

void Progress::show(uint64_t done, uint64_t total) {
  done_ = done;
  total_ = total;
  const Clock::time_point now = Clock::now();
  if (form_ == ProgressForm::none || now - told_ < interval_) return;
  tell(now);
}

void Progress::finish() {
  if (form_ == ProgressForm::json) tell(Clock::now());
  if (hasBar_) std::fputs("\r\033[K", stderr);
  hasBar_ = false;
}

void Progress::tell(Clock::time_point now) {
  told_ = now;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
  const bool isKnown = seconds >= kTooEarlyToTell && rate > 0;
  const double left = isKnown ? static_cast<double>(total_ - std::min(done_, total_)) / rate : -1;
  form_ == ProgressForm::json ? tellJson(rate, left) : tellPeople(rate, left);
}

void Progress::tellPeople(double rate, double secondsLeft) {
  const double part = total_ == 0 ? 1 : static_cast<double>(done_) / static_cast<double>(total_);
  const std::string left = secondsLeft < 0 ? "" : ", " + timeText(wholeSeconds(secondsLeft)) + " left";
  const std::string numbers = std::to_string(static_cast<int>(part * 100)) + " % of " + shortSizeText(total_) + ", " +
                              shortSizeText(static_cast<uint64_t>(rate)) + "/s" + left;
  if (!isTerminal_) {
    std::fprintf(stderr, "%s: %s\n", phase_.c_str(), numbers.c_str());
    return;
  }
  const auto filled = static_cast<size_t>(std::min(part, 1.0) * kBarWidth);
  const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, ' ');
  std::fprintf(stderr, "\r%s [%s] %s\033[K", phase_.c_str(), bar.c_str(), numbers.c_str());
  std::fflush(stderr);
  hasBar_ = true;
}

void Progress::tellJson(double rate, double secondsLeft) const {
  Json::object({{"version", kJsonVersion},
                {"phase", phase_},
                {"done", done_},
                {"total", total_},
                {"bytesPerSecond", static_cast<uint64_t>(rate)},
                {"secondsLeft", secondsLeft < 0 ? Json() : Json(wholeSeconds(secondsLeft))}})
      .printLine();
  std::fflush(stdout);
}

Interruption::Interruption() {
  signalHasCome = 0;
  for (const int number : kSignals) {
    if (std::signal(number, noteSignal) == SIG_IGN) std::signal(number, SIG_IGN);
  }
}

Interruption::~Interruption() {
  for (const int number : kSignals) {
    if (std::signal(number, SIG_DFL) == SIG_IGN) std::signal(number, SIG_IGN);
  }
}

bool Interruption::hasCome() {
  return signalHasCome != 0;
}

}  // namespace vorlix::tool
