// SPDX-License-Identifier: Apache-2.0
//
// Checks callers that are real processes: copies of sleep(1), signed with the openssl command line.
#include <Vorlix/platform/CodeSigning.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "CapturedTree.h"
#include "Commands.h"
#include "platform/linux/CodeSigning.h"

extern char** environ;

namespace vorlix::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRequirement = "anchor apple generic and certificate leaf[subject.OU] = K7M2QZ4RNA";
constexpr const char* kTeam = "K7M2QZ4RNA";

/// A program that runs until the object is destroyed.
class Running {
 public:
  explicit Running(const fs::path& program) {
    const std::string path = program.string();
    std::string name = "client";
    std::string seconds = "600";
    char* const arguments[] = {name.data(), seconds.data(), nullptr};
    if (posix_spawn(&process_, path.c_str(), nullptr, nullptr, arguments, environ) != 0) {
      throw std::runtime_error("cannot run " + path);
    }
    awaitExecutable(program);
  }
  ~Running() { end(); }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  int32_t identifier() const { return process_; }

  /// Ends the program but does not collect its status.
  void kill() const {
    ::kill(process_, SIGKILL);
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOWAIT);
  }

  void end() {
    if (process_ < 0) return;
    ::kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = -1;
  }

 private:
  void awaitExecutable(const fs::path& program) const {
    const fs::path link = "/proc/" + std::to_string(process_) + "/exe";
    for (int i = 0; i < 1000; ++i) {
      std::error_code unreadable;
      if (fs::read_symlink(link, unreadable) == fs::canonical(program)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    throw std::runtime_error("does not run: " + program.string());
  }

  pid_t process_ = -1;
};

/// Authorities, developers and their certificates. They are made once, because generating keys takes time.
class Authorities {
 public:
  static const Authorities& all() {
    static const Authorities made;
    return made;
  }

  std::string operator/(const std::string& name) const { return (folder_.path() / name).string(); }

 private:
  Authorities() {
    makeRoot("root", "/O=Vendor/CN=Vendor Root");
    makeRoot("unknown", "/O=Vendor/CN=Vendor Root");  // has the anchor's name
    makeLeaf("team", "root", subject(kTeam), kCodeSigning);
    makeLeaf("other", "root", subject("AAAAAAAAAA"), kCodeSigning);
    makeLeaf("stranger", "unknown", subject(kTeam), kCodeSigning);
    makeLeaf("expired", "root", subject(kTeam), kCodeSigning, 0);  // ends as it begins
    makeLeaf("server", "root", subject(kTeam), "extendedKeyUsage=serverAuth");
    makeLeaf("plain", "root", subject(kTeam), "basicConstraints=CA:FALSE");
    makeLeaf("agreement", "root", subject(kTeam), "extendedKeyUsage=codeSigning\nkeyUsage=keyAgreement");
    makeLeaf("authority", "root", subject(kTeam), "extendedKeyUsage=codeSigning\nbasicConstraints=critical,CA:TRUE");
    makeLeaf("none", "root", "/O=Vendor/CN=Developer", kCodeSigning);
    makeLeaf("both", "root", "/O=Vendor/OU=K7M2QZ4RNA/OU=AAAAAAAAAA/CN=Developer", kCodeSigning);
    makeLeaf("longer", "root", subject("K7M2QZ4RNAX"), kCodeSigning);
    makeLeaf("lower", "root", subject("k7m2qz4rna"), kCodeSigning);
    makeLeaf("name", "root", "/O=K7M2QZ4RNA/CN=K7M2QZ4RNA", kCodeSigning);
    makeLeaf("issuing", "root", "/O=Vendor/CN=Developers", "basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign");
    makeLeaf("issued", "issuing", subject(kTeam), kCodeSigning);
    makeLeaf("misissued", "team", subject(kTeam), kCodeSigning);
    fs::create_directory(*this / "anchors");
    fs::copy(*this / "root.pem", *this / "anchors/root.pem");
  }

  static constexpr const char* kCodeSigning = "extendedKeyUsage=codeSigning\nkeyUsage=digitalSignature";

  static std::string subject(const std::string& unit) { return "/O=Vendor/OU=" + unit + "/CN=Developer"; }

  void makeRoot(const std::string& name, const std::string& subject) {
    run("cd '" + folder_.path().string() +
        "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
        "-days 30 -subj '" +
        subject + "' -keyout " + name + ".key -out " + name + ".pem 2>&1");
  }

  void makeLeaf(const std::string& name, const std::string& issuer, const std::string& subject,
                const std::string& extensions, int days = 30) {
    std::ofstream(*this / (name + ".ext")) << extensions << '\n';
    run("cd '" + folder_.path().string() +
        "' && openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
        "-subj '" +
        subject + "' -keyout " + name + ".key -out " + name + ".csr 2>&1 && openssl x509 -req -in " + name +
        ".csr -CA " + issuer + ".pem -CAkey " + issuer + ".key -CAcreateserial -days " + std::to_string(days) +
        " -extfile " + name + ".ext -out " + name + ".pem 2>&1");
  }

  TemporaryFolder folder_;
};

class CodeSigningTest : public testing::Test {
 protected:
  void SetUp() override {
    if (system("command -v openssl >/dev/null") != 0) GTEST_SKIP() << "signing needs the openssl command line";
    fs::copy_file("/bin/sleep", client());
  }

  std::string client() const { return (folder_.path() / "client").string(); }
  std::string signature() const { return client() + ".p7s"; }

  void sign(const std::string& developer, const std::string& options = "-outform DER", const std::string& file = "") {
    const Authorities& by = Authorities::all();
    run("openssl cms -sign -binary -in '" + (file.empty() ? client() : file) + "' -signer '" +
        (by / (developer + ".pem")) + "' -inkey '" + (by / (developer + ".key")) + "' " + options + " -out '" +
        signature() + "' 2>&1");
  }

  static CodeCheck verdict(int32_t process) { return verdict(process, Authorities::all() / "anchors"); }
  static CodeCheck verdict(int32_t process, const fs::path& anchors) {
    return LinuxCodeSigning(anchors).check(process, kRequirement);
  }

  /// Starts the client and returns the verdict on it.
  CodeCheck clientVerdict() const { return verdict(Running(client()).identifier()); }
  CodeCheck clientVerdict(const fs::path& anchors) const { return verdict(Running(client()).identifier(), anchors); }

  CodeCheck verdictAfterSigningBy(const std::string& developer, const std::string& options = "-outform DER") {
    sign(developer, options);
    return clientVerdict();
  }

  /// Replaces a file by another one, as an installer does.
  void replace(const std::string& target, const std::string& content) const {
    const std::string fresh = target + ".new";
    fs::copy_file(content, fresh);
    fs::rename(fresh, target);
  }

  std::string changedCopyOfClient() const {
    const std::string copy = (folder_.path() / "changed").string();
    fs::copy_file(client(), copy);
    std::ofstream(copy, std::ios::app | std::ios::binary) << 'x';
    return copy;
  }

  TemporaryFolder folder_;
};

TEST_F(CodeSigningTest, ASignatureByTheTeamIsValid) {
  EXPECT_EQ(verdictAfterSigningBy("team"), CodeCheck::valid);
}

TEST_F(CodeSigningTest, ASignatureInPEMIsValid) {
  EXPECT_EQ(verdictAfterSigningBy("team", "-outform PEM"), CodeCheck::valid);
}

TEST_F(CodeSigningTest, AnIntermediateInTheSignatureCompletesTheChain) {
  EXPECT_EQ(verdictAfterSigningBy("issued", "-outform DER -certfile '" + (Authorities::all() / "issuing.pem") + "'"),
            CodeCheck::valid);
  EXPECT_EQ(verdictAfterSigningBy("issued"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ACertificateIssuedByADeveloperIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("misissued", "-outform DER -certfile '" + (Authorities::all() / "team.pem") + "'"),
            CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnUnsignedExecutableIsInvalid) {
  EXPECT_EQ(clientVerdict(), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnotherTeamUnderTheSameAnchorIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("other"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, TheTeamMustMatchExactly) {
  EXPECT_EQ(verdictAfterSigningBy("longer"), CodeCheck::invalid);
  EXPECT_EQ(verdictAfterSigningBy("lower"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, OnlyTheOrganisationalUnitNamesTheTeam) {
  EXPECT_EQ(verdictAfterSigningBy("none"), CodeCheck::invalid);
  EXPECT_EQ(verdictAfterSigningBy("name"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, TwoOrganisationalUnitsAreInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("both"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnUnknownAnchorIsInvalidEvenWithTheAnchorsName) {
  EXPECT_EQ(verdictAfterSigningBy("stranger"), CodeCheck::invalid);
  EXPECT_EQ(verdictAfterSigningBy("stranger", "-outform DER -certfile '" + (Authorities::all() / "unknown.pem") + "'"),
            CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnExpiredCertificateIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("expired"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ACertificateThatIsNotForCodeSigningIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("server"), CodeCheck::invalid);
  EXPECT_EQ(verdictAfterSigningBy("plain"), CodeCheck::invalid);
  EXPECT_EQ(verdictAfterSigningBy("agreement"), CodeCheck::invalid);
  EXPECT_EQ(verdictAfterSigningBy("authority"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnExecutableChangedAfterSigningIsInvalid) {
  sign("team");
  std::ofstream(client(), std::ios::app | std::ios::binary) << 'x';
  EXPECT_EQ(clientVerdict(), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnotherFilesSignatureIsInvalid) {
  sign("team", "-outform DER", "/bin/cat");
  EXPECT_EQ(clientVerdict(), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ASignatureThatEmbedsItsContentIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("team", "-nodetach -outform DER"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ASignatureWithoutSignedAttributesIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("team", "-noattr -outform DER"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AWeakDigestIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("team", "-md sha1 -outform DER"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ASecondSignerIsInvalid) {
  const Authorities& by = Authorities::all();
  EXPECT_EQ(verdictAfterSigningBy(
                "team", "-outform DER -signer '" + (by / "other.pem") + "' -inkey '" + (by / "other.key") + "'"),
            CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ASignatureWithoutItsCertificateIsInvalid) {
  EXPECT_EQ(verdictAfterSigningBy("team", "-nocerts -outform DER"), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, DataThatIsNotASignatureIsInvalid) {
  const Running running(client());
  const auto verdictOn = [&](const std::string& bytes) {
    std::ofstream(signature(), std::ios::binary | std::ios::trunc) << bytes;
    return verdict(running.identifier());
  };
  EXPECT_EQ(verdictOn(""), CodeCheck::invalid);
  EXPECT_EQ(verdictOn("text"), CodeCheck::invalid);
  EXPECT_EQ(verdictOn("-----BEGIN CMS-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,"
                      "00112233445566778899AABBCCDDEEFF\n\nAAAA\n-----END CMS-----\n"),
            CodeCheck::invalid);
  run("openssl cms -data_create -in /bin/sleep -outform DER -out '" + signature() + "' 2>&1");
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AFifoOrFolderAsTheSignatureIsInvalidAndDoesNotBlock) {
  const Running running(client());
  run("mkfifo '" + signature() + "'");
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
  fs::remove(signature());
  fs::create_directory(signature());
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, ATruncatedSignatureIsInvalid) {
  sign("team");
  fs::resize_file(signature(), fs::file_size(signature()) - 1);
  EXPECT_EQ(clientVerdict(), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnEndedProcessIsNotFound) {
  sign("team");
  Running running(client());
  const int32_t identifier = running.identifier();
  running.kill();
  EXPECT_EQ(verdict(identifier), CodeCheck::guestFailed) << "ended, but its status is not collected";
  running.end();
  EXPECT_EQ(verdict(identifier), CodeCheck::guestFailed) << "ended, and its status is collected";
}

TEST_F(CodeSigningTest, InvalidProcessIdentifiersAreNotFound) {
  for (const int32_t identifier : {0, -1, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()}) {
    EXPECT_EQ(verdict(identifier), CodeCheck::guestFailed) << identifier;
  }
}

TEST_F(CodeSigningTest, ARunningProcessWhoseFileWasReplacedIsInvalid) {
  sign("team");
  const std::string genuine = client() + ".genuine";
  fs::copy_file(client(), genuine);
  const Running running(client());
  ASSERT_EQ(verdict(running.identifier()), CodeCheck::valid);
  replace(client(), changedCopyOfClient());
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid) << "another file has that name";
  EXPECT_EQ(clientVerdict(), CodeCheck::invalid) << "the new file is not the signed one";
}

TEST_F(CodeSigningTest, AnUnsignedProcessIsInvalidEvenIfASignedFileReplacesItsOwn) {
  const std::string genuine = client() + ".genuine";
  fs::copy_file(client(), genuine);
  sign("team");
  replace(client(), changedCopyOfClient());
  const Running running(client());
  ASSERT_EQ(verdict(running.identifier()), CodeCheck::invalid);
  replace(client(), genuine);
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
  EXPECT_EQ(clientVerdict(), CodeCheck::valid) << "the signed file itself, started again";
}

TEST_F(CodeSigningTest, AnUnsignedProcessIsInvalidEvenIfALinkToASignedFileReplacesItsOwn) {
  sign("team");
  const std::string other = changedCopyOfClient();
  const Running running(other);
  fs::copy_file(signature(), other + ".p7s");
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
  fs::remove(other);
  fs::create_symlink(client(), other);
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AProcessWhoseFileWasDeletedIsInvalid) {
  sign("team");
  const Running running(client());
  fs::remove(client());
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AMovedFileNeedsItsSignatureBesideIt) {
  sign("team");
  const Running running(client());
  fs::rename(client(), client() + ".moved");
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
  fs::rename(signature(), client() + ".moved.p7s");
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::valid);
}

TEST_F(CodeSigningTest, ALinkToTheExecutableIsFollowed) {
  sign("team");
  const std::string link = (folder_.path() / "link").string();
  fs::create_symlink(client(), link);
  EXPECT_EQ(verdict(Running(link).identifier()), CodeCheck::valid);
}

TEST_F(CodeSigningTest, WithoutAnchorsNothingIsValid) {
  sign("team");
  const TemporaryFolder anchors;
  EXPECT_EQ(clientVerdict(anchors.path()), CodeCheck::invalid) << "an empty folder";
  EXPECT_EQ(clientVerdict(anchors.path() / "missing"), CodeCheck::invalid);
  std::ofstream(anchors.path() / "README") << "no certificate\n";
  EXPECT_EQ(clientVerdict(anchors.path()), CodeCheck::invalid);
}

TEST_F(CodeSigningTest, AnAnchorMayBeDEROrOneOfSeveralAndOtherFilesAreIgnored) {
  sign("team");
  const Authorities& by = Authorities::all();
  const TemporaryFolder anchors;
  std::ofstream(anchors.path() / "README") << "no certificate\n";
  fs::create_directory(anchors.path() / "folder");
  run("openssl x509 -in '" + (by / "root.pem") + "' -outform DER -out '" + (anchors.path() / "root.der").string() +
      "'");
  EXPECT_EQ(clientVerdict(anchors.path()), CodeCheck::valid);
  fs::remove(anchors.path() / "root.der");
  EXPECT_EQ(clientVerdict(anchors.path()), CodeCheck::invalid);
  run("cat '" + (by / "unknown.pem") + "' '" + (by / "root.pem") + "' >'" + (anchors.path() / "all.pem").string() +
      "'");
  EXPECT_EQ(clientVerdict(anchors.path()), CodeCheck::valid);
}

TEST_F(CodeSigningTest, AnchorsThatOthersCanWriteAreNotTrustedByRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "only a privileged host checks the owner of the anchors";
  sign("team");
  const TemporaryFolder top;
  const fs::path anchors = top.path() / "anchors";
  fs::create_directory(anchors);
  const fs::path root = anchors / "root.pem";
  fs::copy(Authorities::all() / "root.pem", root);
  const Running running(client());
  const auto now = [&] { return verdict(running.identifier(), anchors); };
  ASSERT_EQ(now(), CodeCheck::valid);

  const auto refusedWith = [&](const fs::path& path, fs::perms permissions) {
    const fs::perms before = fs::status(path).permissions();
    fs::permissions(path, permissions, fs::perm_options::add);
    const CodeCheck result = now();
    fs::permissions(path, before);
    return result == CodeCheck::invalid && now() == CodeCheck::valid;
  };
  EXPECT_TRUE(refusedWith(anchors, fs::perms::others_write));
  EXPECT_TRUE(refusedWith(anchors, fs::perms::group_write));
  EXPECT_TRUE(refusedWith(root, fs::perms::others_write));
  EXPECT_TRUE(refusedWith(top.path(), fs::perms::others_write));

  const auto refusedAsOf = [&](const fs::path& path) {
    if (chown(path.c_str(), 65534, 65534) != 0) return false;
    const CodeCheck result = now();
    if (chown(path.c_str(), 0, 0) != 0) return false;
    return result == CodeCheck::invalid && now() == CodeCheck::valid;
  };
  EXPECT_TRUE(refusedAsOf(anchors));
  EXPECT_TRUE(refusedAsOf(root));
  EXPECT_TRUE(refusedAsOf(top.path()));
}

TEST_F(CodeSigningTest, AnUnknownRequirementFails) {
  sign("team");
  const Running running(client());
  const auto with = [&](const std::string& requirement) {
    return LinuxCodeSigning(Authorities::all() / "anchors").check(running.identifier(), requirement);
  };
  const std::string start = "anchor apple generic and certificate leaf[subject.OU] = ";
  EXPECT_EQ(with(start + "K7M2QZ4RNA"), CodeCheck::valid);
  EXPECT_EQ(with(start + "\"K7M2QZ4RNA\""), CodeCheck::valid);
  EXPECT_EQ(with("anchor apple generic and certificate leaf [subject.OU]=K7M2QZ4RNA"), CodeCheck::valid);
  EXPECT_EQ(with(start + "AAAAAAAAAA"), CodeCheck::invalid);
  for (const std::string& text :
       {std::string(""), start, start + "\"\"", start + "\"K7M2QZ4RNA", start + "=",
        start + "K7M2QZ4RNA and info[x] = 1", std::string("anchor apple and certificate leaf[subject.OU] = K7M2QZ4RNA"),
        std::string("anchor apple generic or certificate leaf[subject.OU] = K7M2QZ4RNA"),
        std::string("anchor apple generic and certificate leaf[subject.CN] = K7M2QZ4RNA"),
        std::string("certificate leaf[subject.OU] = K7M2QZ4RNA"), "! " + start + "K7M2QZ4RNA"}) {
    EXPECT_EQ(with(text), CodeCheck::requirementFailed) << text;
  }
}

TEST_F(CodeSigningTest, AMissingProcessIsReportedBeforeTheRequirementIsRead) {
  EXPECT_EQ(LinuxCodeSigning(Authorities::all() / "anchors").check(-1, "nonsense"), CodeCheck::guestFailed);
}

TEST_F(CodeSigningTest, NoDescriptorStaysOpen) {
  sign("team");
  const Running running(client());
  const auto open = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); };
  verdict(running.identifier());
  const auto before = open();
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::valid);
  EXPECT_EQ(verdict(-1), CodeCheck::guestFailed);
  fs::remove(signature());
  EXPECT_EQ(verdict(running.identifier()), CodeCheck::invalid);
  EXPECT_EQ(open(), before);
}

}  // namespace
}  // namespace vorlix::test
