// SPDX-License-Identifier: Apache-2.0
//
// Setting up and examining a simulated machine. Its ports are in the other files of this folder.
#include <Vorlix/platform/VolumeMirrors.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "SimulatedState.h"

namespace vorlix {

SimulatedMachine::SimulatedMachine() : state_(std::make_shared<SimulatedState>()) {}
SimulatedMachine::~SimulatedMachine() = default;

Platform SimulatedMachine::platform() const {
  Platform ports;
  ports.deviceFile = makeSimulatedDeviceFile(state_);
  ports.diskArbitration = makeSimulatedArbitration(state_);
  ports.runLoops = makeSimulatedRunLoops(state_);
  ports.ioRegistry = makeSimulatedRegistry(state_);
  ports.fileCopy = makeSimulatedFileCopy(state_);
  ports.childProcess = makeSimulatedChildProcess(state_);
  ports.codeSigning = makeSimulatedCodeSigning(state_);
  ports.systemLog = makeSimulatedSystemLog(state_);
  ports.hostBundle = state_->hostBundle;
  ports.mountedVolumes = makeSimulatedMountedVolumes(state_);
  ports.userIdentity = makeSimulatedUserIdentity(state_);
  ports.shell = makeSimulatedShell(state_);
  ports.volumeMirrors = std::make_shared<NoVolumeMirrors>();
  ports.files = makeSimulatedFiles(state_);
  ports.pauses = makeSimulatedPauses(state_);
  ports.systemPaths = state_->systemPaths;
  ports.userLocale = makeSimulatedUserLocale(state_);
  // Streams over simulated devices and descriptors are real objects of this process.
  const Platform native = nativePlatform();
  ports.deviceStreams = native.deviceStreams;
  ports.filesInPlace = native.filesInPlace;
  return ports;
}

void SimulatedMachine::addDisk(const std::string& name, uint64_t size, uint32_t blockSize) {
  SimulatedWhole& whole = state_->disks[name];
  whole.size = size;
  whole.blockSize = blockSize;
  state_->devices[name] = {name, 0, size};
}

void SimulatedMachine::addSlice(const std::string& disk, uint32_t number, uint64_t first, uint64_t count) {
  const uint64_t blockSize = state_->disks.at(disk).blockSize.value();
  state_->devices[disk + "s" + std::to_string(number)] = {disk, first * blockSize, count * blockSize};
}

void SimulatedMachine::hideBlockSize(const std::string& disk) {
  state_->disks.at(disk).blockSize.reset();
}

void SimulatedMachine::refuseSessions() {
  state_->sessionsRefused = true;
}

void SimulatedMachine::setVolume(const std::string& device, SimulatedVolume volume) {
  state_->devicesByMountPath.emplace(volume.mountPath, bareDeviceName(device));
  state_->view(device).volume = std::move(volume);
}

void SimulatedMachine::setDescription(const std::string& device, const std::string& key, Value value) {
  state_->view(device).descriptionChanges.insert_or_assign(key, std::move(value));
}

void SimulatedMachine::removeDescription(const std::string& device, const std::string& key) {
  state_->view(device).descriptionChanges.insert_or_assign(key, std::nullopt);
}

void SimulatedMachine::hideDescription(const std::string& device) {
  state_->view(device).descriptionHidden = true;
}

void SimulatedMachine::hideWholeDisk(const std::string& device) {
  state_->view(device).wholeDiskHidden = true;
}

void SimulatedMachine::refuseMount(const std::string& device, int32_t status, const std::string& text) {
  state_->view(device).mountRefusal = {status, text};
}

void SimulatedMachine::refuseUnmount(const std::string& device, int32_t status, const std::string& text) {
  state_->view(device).unmountRefusal = {status, text};
}

void SimulatedMachine::delayCompletions(unsigned runs) {
  state_->completionDelay = runs;
}

bool SimulatedMachine::isMounted(const std::string& device) const {
  const auto& volume = state_->view(device).volume;
  return volume && volume->mounted;
}

RegistryEntryID SimulatedMachine::addRegistryEntry(const std::string& name, const std::string& className,
                                                   Dictionary properties,
                                                   std::map<std::string, std::optional<RegistryEntryID>> parents) {
  state_->registry.push_back({name, className, std::move(properties), std::move(parents)});
  return state_->registry.size() - 1;
}

void SimulatedMachine::failRegistry(RegistryCall call, KernReturn code, std::optional<RegistryEntryID> entry) {
  state_->registryFaults.push_back({call, code, entry});
}

size_t SimulatedMachine::heldRegistryEntries() const {
  return state_->heldRegistryEntries;
}

void SimulatedMachine::addResource(const std::string& name, const std::string& type, const std::string& path,
                                   const std::string& directory) {
  state_->hostBundle->addResource(name, type, path, directory);
}

void SimulatedMachine::addMountedVolume(MountedVolume volume) {
  state_->mountedVolumes.push_back(std::move(volume));
}

void SimulatedMachine::setRealUserID(uint32_t user) {
  state_->realUserID = user;
}

void SimulatedMachine::setShellStatus(int status) {
  state_->shellStatus = status;
}

void SimulatedMachine::setLogFile(const std::string& path) {
  state_->systemPaths->setLogFile(path);
}

void SimulatedMachine::setStatusTool(const std::string& path) {
  state_->systemPaths->setStatusTool(path);
}

void SimulatedMachine::setDecimalSeparator(const std::string& separator) {
  state_->decimalSeparator = separator;
}

void SimulatedMachine::duringPauses(std::function<void(std::chrono::milliseconds)> action) {
  state_->duringPauses = std::move(action);
}

void SimulatedMachine::failCopy(const std::string& source, const std::string& reason) {
  state_->copyFailures[source] = reason;
}

void SimulatedMachine::addProgram(const std::string& path, SimulatedProgram program) {
  state_->programs[path] = std::move(program);
}

void SimulatedMachine::addProgram(const std::string& path, SimulatedRun run) {
  addProgram(path, [run = std::move(run)](const std::vector<std::string>&) { return run; });
}

void SimulatedMachine::setCodeCheck(int32_t process, CodeCheck outcome) {
  state_->codeChecks[process] = outcome;
}

std::vector<uint8_t> SimulatedMachine::bytes(const std::string& device, uint64_t offset, size_t count) const {
  const SimulatedWindow& window = state_->device(device);
  std::vector<uint8_t> result(window.inside(offset, count));
  state_->disks.at(window.disk).bytes.read(window.offset + offset, result.data(), result.size());
  return result;
}

void SimulatedMachine::setBytes(const std::string& device, uint64_t offset, const std::vector<uint8_t>& bytes) {
  const SimulatedWindow& window = state_->device(device);
  if (window.inside(offset, bytes.size()) != bytes.size()) throw std::out_of_range("past the end: " + device);
  state_->disks.at(window.disk).bytes.write(window.offset + offset, bytes.data(), bytes.size());
}

void SimulatedMachine::fail(const std::string& device, Operation operation, int error, unsigned successes) {
  state_->faults[{bareDeviceName(device), operation}] = {error, successes};
}

void SimulatedMachine::shortenWrites(const std::string& device, size_t count) {
  state_->writeLimits[bareDeviceName(device)] = count;
}

void SimulatedMachine::lockElsewhere(const std::string& disk, DeviceLock lock) {
  state_->disks.at(bareDeviceName(disk)).lockedElsewhere = lock;
}

std::vector<std::string> SimulatedMachine::journal() const {
  return state_->journal;
}

std::vector<std::string> SimulatedMachine::writes() const {
  std::vector<std::string> result;
  std::copy_if(state_->journal.begin(), state_->journal.end(), std::back_inserter(result),
               [](const std::string& line) { return line.rfind("write ", 0) == 0 || line.rfind("sync ", 0) == 0; });
  return result;
}

void SimulatedMachine::clearJournal() {
  state_->journal.clear();
}

size_t SimulatedMachine::openCount() const {
  return state_->openCount;
}

}  // namespace vorlix
