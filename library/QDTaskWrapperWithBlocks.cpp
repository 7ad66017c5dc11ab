// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/Pauses.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kStatusPause{5000};
constexpr int32_t kStillRunning = -999;

// Absent if the bytes are not UTF-8.
std::optional<std::string> utf8Text(const vorlix::Data& bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (!vorlix::isUtf8(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace

std::shared_ptr<QDTaskWrapperWithBlocks> QDTaskWrapperWithBlocks::initWithStartBlock(
    Block start, Block end, TextBlock output, TextBlock errorOutput,
    std::shared_ptr<const std::vector<std::string>> arguments) {
  return std::shared_ptr<QDTaskWrapperWithBlocks>(new QDTaskWrapperWithBlocks(
      std::move(start), std::move(end), std::move(output), std::move(errorOutput), std::move(arguments)));
}

QDTaskWrapperWithBlocks::QDTaskWrapperWithBlocks(Block start, Block end, TextBlock output, TextBlock errorOutput,
                                                 std::shared_ptr<const std::vector<std::string>> arguments)
    : startBlock_(std::move(start)),
      endBlock_(std::move(end)),
      outputBlock_(std::move(output)),
      errorOutputBlock_(std::move(errorOutput)),
      arguments_(std::move(arguments)) {}

void QDTaskWrapperWithBlocks::startProcess() {
  const auto self = shared_from_this();  // the start callback may release the wrapper
  startBlock_();
  task_.reset();
  task_ = vorlix::platform().childProcess->create(vorlix::ChildOutputs::separate, vorlix::ChildInput::pipe);
  if (!arguments_) throw std::out_of_range("no arguments");
  const std::string path = arguments_->at(0);
  const std::vector<std::string> arguments(arguments_->begin() + 1, arguments_->end());

  // The outputs of an earlier run stay observed, because hosts may rely on its last pieces.
  const auto output = task_->standardOutput();
  const auto errorOutput = task_->standardError();
  observed_.push_back(output);
  observed_.push_back(errorOutput);
  readInBackground(output, &QDTaskWrapperWithBlocks::getData);
  readInBackground(errorOutput, &QDTaskWrapperWithBlocks::getStdErr);
  task_->launch(path, arguments);
}

void QDTaskWrapperWithBlocks::stopProcess() {
  const auto self = shared_from_this();  // the end callback may release the wrapper
  for (const auto& output : std::exchange(observed_, {})) output->cancelBackgroundRead();
  if (task_) task_->terminate();
  endBlock_();
}

void QDTaskWrapperWithBlocks::getData(const vorlix::ReadCompletion& chunk) {
  if (chunk.data.empty()) {
    if (takeWaitingErrors(chunk.object)) stopProcess();
    return;
  }
  outputBlock_(utf8Text(chunk.data));
  readInBackground(chunk.object, &QDTaskWrapperWithBlocks::getData);
}

// The last error messages of a program and the end of its output often arrive together, and the end of output ends the
// run. So this first delivers what standard error holds: at most one piece, of the size of a pipe.
bool QDTaskWrapperWithBlocks::takeWaitingErrors(const std::shared_ptr<vorlix::ChildOutput>& ended) {
  if (!task_ || ended != task_->standardOutput() || !isObserved(ended)) return true;
  const auto errorOutput = task_->standardError();
  const vorlix::Data waiting = errorOutput->readAvailable();
  if (waiting.empty()) return true;
  getStdErr({errorOutput, waiting});
  return isObserved(ended);
}

void QDTaskWrapperWithBlocks::getStdErr(const vorlix::ReadCompletion& chunk) {
  if (!chunk.data.empty()) errorOutputBlock_(utf8Text(chunk.data));
  readInBackground(chunk.object, &QDTaskWrapperWithBlocks::getStdErr);
}

int32_t QDTaskWrapperWithBlocks::terminationStatus() {
  if (!task_) return 0;
  if (task_->isRunning()) {
    vorlix::platform().pauses->pause(kStatusPause);
    if (task_->isRunning()) return kStillRunning;
  }
  return task_->terminationStatus();
}

bool QDTaskWrapperWithBlocks::isObserved(const std::shared_ptr<vorlix::ChildOutput>& output) const {
  return std::find(observed_.begin(), observed_.end(), output) != observed_.end();
}

// Does nothing for an output that is no longer observed because a callback has stopped the run.
void QDTaskWrapperWithBlocks::readInBackground(const std::shared_ptr<vorlix::ChildOutput>& output, Handler handler) {
  if (!isObserved(output)) return;
  const std::weak_ptr<Object> wrapper = weak_from_this();
  // The output owns the completion, so the completion must not own the output.
  const std::weak_ptr<vorlix::ChildOutput> end = output;
  output->readInBackground([wrapper, end, handler](const vorlix::Data& data) {
    const auto self = std::static_pointer_cast<QDTaskWrapperWithBlocks>(wrapper.lock());
    if (self) ((*self).*handler)({end.lock(), data});
  });
}
