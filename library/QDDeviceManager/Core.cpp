// SPDX-License-Identifier: Apache-2.0
//
// The shared instance, the properties and the messages.
#include <Vorlix/QDDeviceManager.h>

#include <utility>

#include "Messages.h"

std::shared_ptr<QDDeviceManager> myObj;

namespace vorlix {

void tellDelegate(const std::string& line) {
  QDDeviceManager::sharedDeviceManager()->logString(line);
}

std::string shown(const std::optional<std::string>& text) {
  return text.value_or("(null)");
}

}  // namespace vorlix

QDDeviceManager::QDDeviceManager() = default;
QDDeviceManager::~QDDeviceManager() = default;

std::shared_ptr<QDDeviceManager> QDDeviceManager::init() {
  return std::shared_ptr<QDDeviceManager>(new QDDeviceManager);
}

std::shared_ptr<QDDeviceManager> QDDeviceManager::sharedDeviceManager() {
  // Never destroyed: code that runs while the process ends may use it.
  static const auto* const shared = [] {
    const auto manager = init();
    manager->setFileManager(vorlix::FileManager::defaultManager());
    myObj = manager;
    return new std::shared_ptr<QDDeviceManager>(manager);
  }();
  return *shared;
}

bool QDDeviceManager::didUnmount() const {
  return didUnmount_;
}

void QDDeviceManager::setDidUnmount(bool value) {
  didUnmount_ = value;
}

bool QDDeviceManager::didMount() const {
  return didMount_;
}

void QDDeviceManager::setDidMount(bool value) {
  didMount_ = value;
}

int32_t QDDeviceManager::mountStatus() const {
  return mountStatus_;
}

void QDDeviceManager::setMountStatus(int32_t value) {
  mountStatus_ = value;
}

int32_t QDDeviceManager::unmountStatus() const {
  return unmountStatus_;
}

void QDDeviceManager::setUnmountStatus(int32_t value) {
  unmountStatus_ = value;
}

std::shared_ptr<vorlix::FileManager> QDDeviceManager::fileManager() const {
  const std::scoped_lock lock(objects_);
  return fileManager_;
}

// A setter may replace the last reference to an object. It is destroyed with the argument, after the lock is released,
// because its destructor may call back.
void QDDeviceManager::setFileManager(std::shared_ptr<vorlix::FileManager> value) {
  const std::scoped_lock lock(objects_);
  std::swap(fileManager_, value);
}

std::shared_ptr<vorlix::Object> QDDeviceManager::log() const {
  const std::scoped_lock lock(objects_);
  return log_;
}

void QDDeviceManager::setLog(std::shared_ptr<vorlix::Object> value) {
  const std::scoped_lock lock(objects_);
  std::swap(log_, value);
}

std::shared_ptr<vorlix::Object> QDDeviceManager::delegate() const {
  const std::scoped_lock lock(objects_);
  return delegate_.lock();
}

void QDDeviceManager::setDelegate(const std::shared_ptr<vorlix::Object>& value) {
  const std::scoped_lock lock(objects_);
  delegate_ = value;
}

void QDDeviceManager::logString(const std::string& line) {
  const std::shared_ptr<vorlix::Object> receiver = delegate();
  if (auto* const answering = dynamic_cast<vorlix::LogReceiver*>(receiver.get())) answering->log(line);
}
