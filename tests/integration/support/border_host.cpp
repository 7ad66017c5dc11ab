// SPDX-License-Identifier: Apache-2.0
//
// A host of the shared library: exceptions and objects cross its border in both directions. Prints what does not.
#include <Vorlix/QDDiskInfo.h>
#include <Vorlix/QDTaskHelper.h>
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/KeyedArchive.h>
#include <Vorlix/platform/CompanionProgram.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/simulated/SimulatedHostBundle.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <typeinfo>
#include <vector>

namespace {

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds) return;
  std::printf("not so: %s\n", what);
  ++failures;
}

template <typename Exception>
void expectThrow(const std::function<void()>& action, const char* what) {
  try {
    action();
    expect(false, what);
  } catch (const Exception&) {
  } catch (...) {
    expect(false, what);
  }
}

// An exception that only the host knows.
class HostsOwn : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The simulated machine's resources, and one that the host cannot look up.
class FailingBundle : public vorlix::SimulatedHostBundle {
 public:
  std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                             const std::string& directory) override {
    if (name == "broken") throw HostsOwn("broken");
    return SimulatedHostBundle::pathForResource(name, type, directory);
  }
};

class HostsMachine : public vorlix::SimulatedMachine {
 public:
  HostsMachine() { bundle->addResource("reader", "", "/host/reader", "tools/bin"); }

  vorlix::Platform ports() const {
    vorlix::Platform set = platform();
    set.hostBundle = bundle;
    return set;
  }

  std::shared_ptr<FailingBundle> bundle = std::make_shared<FailingBundle>();
};

// The library's record, extended by the host.
class HostsVolume : public QDVolume {};

// A record of the host that calls itself what the library archives, with a text of a given length.
class HostsRecord : public vorlix::Coding {
 public:
  explicit HostsRecord(size_t length) : length_(length) {}
  std::vector<std::string> archiveClasses() const override { return {"HostsRecord", "NSObject"}; }
  void encodeWithCoder(vorlix::KeyedArchiver& coder) const override {
    coder.encodeText(std::string(length_, 'x'), "text");
  }

 private:
  size_t length_;
};

}  // namespace

int main() {
  expectThrow<std::system_error>([] { QDTaskHelper().runCommand("/no/such/program", {}); }, "a launch that fails");
  expectThrow<std::exception>([] { QDTaskHelper().runCommand("/no/such/program", {}); }, "a launch, by its base");
  const auto wrapper = QDTaskWrapperWithBlocks::initWithStartBlock({}, {}, {}, {}, nullptr);
  expectThrow<std::bad_function_call>([&] { wrapper->startProcess(); }, "a block that is empty");
  expectThrow<std::length_error>(
      [] {
        constexpr size_t length = vorlix::KeyedUnarchiver::kLargestArchive;
        vorlix::KeyedArchiver::archivedDataWithRootObject(std::make_shared<HostsRecord>(length));
      },
      "an archive that is too large");
  expect(!vorlix::KeyedArchiver::archivedDataWithRootObject(std::make_shared<HostsRecord>(1)).empty(),
         "a record of the host is archived");

  const std::shared_ptr<vorlix::Object> object = QDTaskHelper::sharedTaskHelper();
  expect(typeid(*object) == typeid(QDTaskHelper), "an object of the library has the type that the host knows");
  expect(std::dynamic_pointer_cast<QDTaskHelper>(object) != nullptr, "it can be cast down");
  expect(std::dynamic_pointer_cast<QDTaskWrapperWithBlocks>(object) == nullptr, "and only to what it is");
  const auto volume = std::make_shared<HostsVolume>();
  const std::shared_ptr<vorlix::Object> base = volume;
  expect(dynamic_cast<vorlix::Coding*>(base.get()) == volume.get(), "a record is found across its second base");
  expect(typeid(*base) == typeid(HostsVolume), "a type of the host stays itself");
  expect(base->shared_from_this() == base, "an object knows its owners");

  const HostsMachine machine;
  const vorlix::ScopedPlatform scope(machine.ports());
  expect(vorlix::companionProgram("reader") == "/host/reader", "the library asks the host's port");
  expectThrow<HostsOwn>([] { vorlix::companionProgram("broken"); }, "the host's exception passes the library");
  return failures == 0 ? 0 : 1;
}
