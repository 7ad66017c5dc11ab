#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The installed library from a host's view: CMake and pkg-config find it, headers are complete, no stray symbols."""

import concurrent.futures
import functools
import hashlib
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["VORLIX"]).resolve().parent
SOURCE = pathlib.Path(os.environ["VORLIX_SOURCE"]).resolve()
os.environ["PATH"] += ":/usr/sbin:/sbin"  # folders of the disk tools, which need no rights on an image
TOOLS = ["cmake", "pkg-config", "sgdisk", "sfdisk", "nm", "readelf", "ldd"]
MISSING = [tool for tool in TOOLS if shutil.which(tool) is None]
SANITIZED = "VORLIX_SANITIZED" in os.environ
COMPANION = "libexec/vorlix-1/registry_lookup"
C_HEADERS = ["Export.h", "QDSDiskFunctions.h", "Vorlix_vers.h"]


def run(*command, **options):
    """Runs a command and returns its output; on failure, the error has the output."""
    result = subprocess.run([str(part) for part in command], text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}")
    return result.stdout


def cached(name):
    """A variable of the build's CMake cache; empty if the cache lacks it."""
    found = re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)
    return found.group(1) if found else ""


def without_comments(text):
    return re.sub(r"//[^\n]*", "", re.sub(r"/\*.*?\*/", "", text, flags=re.DOTALL))


OPENED, CLOSED = "namespace vorlix {", "}  // namespace vorlix"


def marked(header, pattern):
    """The names that a header marks as exported, qualified if they are in the library's namespace."""
    names = set()
    for index, part in enumerate(re.split(f"^(?:{OPENED}|{CLOSED})$", header.read_text(), flags=re.MULTILINE)):
        qualifier = "vorlix::" if index % 2 else ""
        names |= {qualifier + name for name in re.findall(pattern, without_comments(part), re.MULTILINE)}
    return names


def declared_names(header):
    """Functions and variables that a header marks as exported, with the C++ ones qualified."""
    return marked(header, r"^VORLIX_EXPORT[^;]*?(\w+)\s*(?:\(|\[|;)")


def exported_classes(header):
    """Classes that a header marks as exported, qualified."""
    return marked(header, r"^(?:class|struct) VORLIX_EXPORT (\w+)")


def include_chains(texts):
    """
    Lists that have each header once; a header includes all that stand before it in its list, itself or by others.

    texts: {name: text}, of headers that include one another as <name>.
    """
    included = {name: set(re.findall(r"^#include <(Vorlix/[^>]+)>$", text, re.MULTILINE)) for name, text in texts.items()}

    @functools.lru_cache(maxsize=None)
    def reached(name):
        return included[name].union(*map(reached, included[name]))

    rest = sorted(texts, key=lambda name: (-len(reached(name)), name))
    chains = []
    while rest:
        chain = [rest.pop(0)]
        for name in list(rest):
            if name in reached(chain[0]):
                chain.insert(0, name)
                rest.remove(name)
        chains.append(chain)
    return chains


def belongs_to(name, class_name):
    """Returns whether a symbol is a member of a class or the compiler's data about the class."""
    about = r"(?:(?:vtable|typeinfo|typeinfo name) for |non-virtual thunk to )?"
    return re.match(rf"{about}{re.escape(class_name)}(?:::|$)", name) is not None


@unittest.skipIf(sys.platform == "darwin", "needs ELF files and sfdisk, which macOS lacks")
@unittest.skipIf(MISSING, f"not installed: {', '.join(MISSING)}")
class InstalledLibrary(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.work = pathlib.Path(cls.folder.name)
        cls.prefix = cls.work / "prefix"
        cls.manifest = cls.work / "manifest.txt"
        cls.install(cls.prefix, cls.manifest)
        cls.include = cls.prefix / "include"
        cls.library = next(cls.prefix.glob("lib*/**/libvorlix.so")).resolve()
        # A host of a library that was built with sanitizers needs the same sanitizers and the same compiler.
        cls.cc = cached("CMAKE_C_COMPILER") or "cc"
        cls.cxx = cached("CMAKE_CXX_COMPILER") or "c++"
        sanitizers = cached("VORLIX_SANITIZE")
        cls.flags = [f"-fsanitize={sanitizers}"] if sanitizers else []
        cls.link_flags = []
        if sanitizers and "clang" in run(cls.cc, "--version"):
            # For programs in C, clang does not link the C++ part of UBSan's runtime.
            cls.flags.append("-fsanitize-link-c++-runtime")
            cls.link_flags = ["-lstdc++"]
        cls.image = cls.make_image()

    @classmethod
    def install(cls, prefix, manifest):
        """Installs the build and moves the list of what was written away: that of the developer's installation stays."""
        own = BUILD / "install_manifest.txt"
        kept = own.read_bytes() if own.exists() else None
        run("cmake", "--install", BUILD, "--prefix", prefix)
        shutil.move(own, manifest)
        if kept is not None:
            own.write_bytes(kept)

    @classmethod
    def make_image(cls):
        """A GPT image made by sgdisk, with an MBR that has two more slots."""
        image = cls.work / "disk.img"
        with open(image, "wb") as file:
            file.truncate(64 << 20)
        run("sgdisk", "-a", "1", "-n", "1:40:10279", "-t", "1:EF00", "-n", "2:10280:50000", "-t", "2:AF00",
            "-n", "5:50001:98303", "-t", "5:0700", image)
        run("sgdisk", "--hybrid=2:5", image)
        return image

    def installed(self, pattern):
        return sorted(path.relative_to(self.prefix) for path in self.prefix.glob(pattern) if not path.is_dir())

    def test_the_boot_code_is_there_for_other_tools(self):
        """Code that fits before the disk signature, with the text that it prints."""
        code = (self.prefix / "share" / "vorlix" / "mbr.bin").read_bytes()
        self.assertEqual(len(code), 440)
        self.assertIn(b"No active slot in the MBR.", code)

    def other_compiler(self):
        """A host need not have the library's compiler, and clang takes half the time."""
        return shutil.which("clang++") or self.cxx

    def cmake_project(self, name, source_folder):
        build = self.work / name
        run("cmake", "-S", source_folder, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_C_COMPILER={self.cc}", f"-DCMAKE_CXX_COMPILER={self.cxx}",
            f"-DCMAKE_C_FLAGS={' '.join(self.flags)}", f"-DCMAKE_CXX_FLAGS={' '.join(self.flags)}",
            f"-DCMAKE_EXE_LINKER_FLAGS={' '.join(self.link_flags)}")
        run("cmake", "--build", build)
        return build

    def pkg_config(self, *options, package="vorlix"):
        environment = dict(os.environ, PKG_CONFIG_PATH=str(self.library.parent / "pkgconfig"))
        return run("pkg-config", *options, package, env=environment).split()

    def sgdisk_numbers(self):
        """(first, last, type GUID) of the used entries, by sgdisk."""
        found = []
        for number in (1, 2, 5):
            text = run("sgdisk", "-i", number, self.image)
            found.append((int(re.search(r"First sector: (\d+)", text).group(1)),
                          int(re.search(r"Last sector: (\d+)", text).group(1)),
                          re.search(r"GUID code: ([0-9A-F-]{36})", text).group(1)))
        return found

    def sfdisk_slots(self):
        """(number, type, first, count) of the MBR's slots, by sfdisk."""
        text = run("sfdisk", "-d", "-Y", "dos", self.image)
        pattern = r"img(\d) : start= *(\d+), size= *(\d+), type= *([0-9a-f]+)"
        return [(int(number), kind.upper().zfill(2), int(first), int(count))
                for number, first, count, kind in re.findall(pattern, text)]

    def check_example(self, program, **options):
        before = self.image.read_bytes()
        output = run(program, self.image, **options)
        entries = [(int(first), int(last), kind) for first, last, kind
                   in re.findall(r"^ *(\d+) +(\d+) +\d+  GPT part - (\S+)$", output, re.MULTILINE)]
        slots = [(int(number), kind, int(first), int(count)) for number, kind, first, count
                 in re.findall(r"^ +(\d) +(?:yes|no) +([0-9A-F]{2}) +(\d+) +(\d+)$", output, re.MULTILINE)]
        self.assertIn("MBR signature AA55, active slot 0\n", output)
        self.assertEqual(entries, self.sgdisk_numbers())
        self.assertEqual([slot for slot in slots if slot[1] != "00"], self.sfdisk_slots())
        self.assertEqual(len(slots), 4)
        self.assertEqual(self.image.read_bytes(), before, "the example wrote to the disk")

    def test_cmake_finds_it_and_the_example_prints_what_sgdisk_prints(self):
        build = self.cmake_project("by-cmake", SOURCE / "examples")
        self.check_example(build / "show_disk")

    def test_pkg_config_finds_it_and_the_example_prints_what_sgdisk_prints(self):
        program = self.work / "by-pkg-config"
        run(self.cc, "-std=gnu11", "-Wall", "-Wextra", "-Werror", *self.flags, "-o", program,
            SOURCE / "examples" / "show_disk.c", *self.pkg_config("--cflags", "--libs"), *self.link_flags)
        self.check_example(program, env=dict(os.environ, LD_LIBRARY_PATH=str(self.library.parent)))

    def test_pkg_config_finds_the_simulated_machine(self):
        program = self.work / "simulated-by-pkg-config"
        run(self.cxx, "-std=c++20", *self.flags, "-o", program, SOURCE / "examples" / "simulated_test.cpp",
            *self.pkg_config("--cflags", "--libs", package="vorlix-simulated"), *self.link_flags)
        self.assertEqual(run(program, env=dict(os.environ, LD_LIBRARY_PATH=str(self.library.parent))), "all tests passed\n")

    def test_the_archive_alone_serves_a_host_in_c(self):
        archive_only = self.work / "archive"
        archive_only.mkdir()
        shutil.copy(self.library.with_name("libvorlix.a"), archive_only)
        program = self.work / "by-archive"
        libraries = [option for option in self.pkg_config("--static", "--libs") if not option.startswith("-L")]
        run(self.cc, "-std=gnu11", *self.flags, *self.pkg_config("--cflags"), "-o", program,
            SOURCE / "examples" / "show_disk.c", f"-L{archive_only}", *libraries)
        self.assertNotIn("libvorlix", run("ldd", program))
        self.check_example(program)

    def test_a_moved_installation_is_still_found_by_pkg_config(self):
        moved = self.work / "moved"
        shutil.copytree(self.prefix, moved, symlinks=True)
        folder = moved / self.library.parent.relative_to(self.prefix.resolve()) / "pkgconfig"
        text = run("pkg-config", "--variable=includedir", "vorlix", env=dict(os.environ, PKG_CONFIG_PATH=str(folder)))
        self.assertEqual(pathlib.Path(text.strip()).resolve(), (moved / "include").resolve())

    def test_the_simulated_machine_links_beside_the_shared_library(self):
        project = self.work / "simulated-source"
        project.mkdir()
        (project / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(Host LANGUAGES CXX)\nfind_package(Vorlix REQUIRED)\n"
            "add_executable(host host.cpp)\ntarget_link_libraries(host PRIVATE Vorlix::Simulated Vorlix::Vorlix)\n")
        (project / "host.cpp").write_text(
            "#include <Vorlix/QDSDiskFunctions.h>\n#include <Vorlix/platform/simulated/SimulatedMachine.h>\n"
            "int main() {\n  vorlix::SimulatedMachine machine;\n  machine.addDisk(\"disk7\", 1 << 20, 4096);\n"
            "  const vorlix::ScopedPlatform scope(machine.platform());\n"
            "  return getblocksize(\"disk7\") == 4096 ? 0 : 1;\n}\n")
        run(self.cmake_project("simulated", project) / "host")

    def test_the_shared_library_needs_no_development_packages_of_its_libraries(self):
        """Nothing but our own package can be found, neither by CMake nor by pkg-config."""
        folder = str(self.library.parent / "pkgconfig")
        environment = {name: value for name, value in os.environ.items() if not name.startswith("PKG_CONFIG")}
        environment["PKG_CONFIG_LIBDIR"] = folder
        self.assertIn("-lvorlix", run("pkg-config", "--cflags", "--libs", "vorlix", env=environment))
        project = self.work / "without-packages"
        project.mkdir()
        (project / "host.cpp").write_text("#include <Vorlix/QDSDiskFunctions.h>\nint main() { return logLine(nullptr) < 0; }\n")
        (project / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(Host LANGUAGES CXX)\n"
            "find_package(Vorlix REQUIRED ${parts})\nif(TARGET Vorlix::VorlixStatic)\n  message(STATUS static)\nendif()\n"
            "add_executable(host host.cpp)\ntarget_link_libraries(host PRIVATE Vorlix::Vorlix)\n")
        common = ["cmake", "-S", project, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={self.cxx}",
                  f"-DCMAKE_CXX_FLAGS={' '.join(self.flags)}"]
        alone = ["-DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON"]
        text = run(*common, *alone, "-B", self.work / "shared-alone", env=environment)
        self.assertNotIn("-- static", text)
        run("cmake", "--build", self.work / "shared-alone")
        with self.assertRaisesRegex(AssertionError, r"(?s)development packages of:.*libplist-2\.0,.*libmd,.*zlib"):
            run(*common, *alone, "-Dparts=COMPONENTS;Static", "-B", self.work / "static-alone", env=environment)
        self.assertIn("-- static", run(*common, "-B", self.work / "with-static"))

    def test_exceptions_and_objects_cross_the_border_of_the_shared_library(self):
        project = self.work / "border-source"
        project.mkdir()
        (project / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(Host LANGUAGES CXX)\nfind_package(Vorlix REQUIRED)\n"
            f"add_executable(host {SOURCE}/tests/integration/support/border_host.cpp)\n"
            "target_link_libraries(host PRIVATE Vorlix::Simulated Vorlix::Vorlix)\n")
        self.assertEqual(run(self.cmake_project("border", project) / "host"), "")

    @unittest.skipIf(SANITIZED, "the build without sanitizers has shown it")
    def test_the_command_line_builds_by_itself_with_the_installed_library(self):
        """From a tree that has no header of the library, so that the installed ones are all that it can include."""
        tree = self.work / "tree"
        shutil.copytree(SOURCE / "tools/vorlix", tree / "tools/vorlix")
        shutil.copy(SOURCE / "tools/StandardDescriptors.h", tree / "tools")
        (tree / "cmake").mkdir()
        for file in ("Batches.cmake", "Commit.cmake"):
            shutil.copy(SOURCE / "cmake" / file, tree / "cmake")
        run("cmake", "-S", tree / "tools/vorlix", "-B", self.work / "by-itself", f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={self.other_compiler()}", "-DCMAKE_CXX_FLAGS=-O0", "-DVORLIX_PRECOMPILED=ON")
        run("cmake", "--build", self.work / "by-itself", "--parallel", "2")
        program = self.work / "by-itself/vorlix"
        self.assertIn(str(self.library), str(pathlib.Path(re.search(r"libvorlix\.so\S* => (\S+)", run("ldd", program))
                                                           .group(1)).resolve()))
        for words in (["show", self.image], ["show", "--json", self.image], ["--help"]):
            self.assertEqual(run(program, *words), run(BUILD / "vorlix", *words))
        self.assertEqual(run(program, "--version"), f"vorlix {cached('CMAKE_PROJECT_VERSION')}\n", "no git, no commit")

    @unittest.skipIf(shutil.which("git") is None, "not installed: git")
    def test_the_tarball_has_the_commits_files_and_the_same_bytes_twice(self):
        """Of a small project of its own, whose commit a later change does not get into the tarball of."""
        source = self.work / "project"
        (source / "packaging/homebrew").mkdir(parents=True)
        shutil.copy(SOURCE / "packaging/homebrew/vorlix.rb", source / "packaging/homebrew")
        git = ["git", "-C", source, "-c", "user.name=n", "-c", "user.email=e@example.com"]
        run("git", "init", "-q", source)
        run(*git, "add", ".")
        run(*git, "commit", "-q", "-m", "first")
        sums = []
        for out in (self.work / "dist1", self.work / "dist2"):
            text = run("cmake", "-D", f"SOURCE={source}", "-D", "GIT=git", "-D", "GZIP=gzip", "-D", "VERSION=9.8.7", "-D",
                       f"OUT={out}", "-P", SOURCE / "cmake/Dist.cmake")
            tarball = out / "vorlix-9.8.7.tar.gz"
            sums.append(hashlib.sha256(tarball.read_bytes()).hexdigest())
            self.assertIn(sums[-1], text)
            formula = (out / "vorlix.rb").read_text()
            self.assertIn(f'sha256 "{sums[-1]}"', formula)
            self.assertIn(f'url "file://{tarball}"', formula)
            self.assertNotIn("VORLIX_", formula)
            (source / "packaging/homebrew/vorlix.rb").touch()
            (source / "new").write_text("not committed")
        self.assertEqual(sums[0], sums[1])
        names = run("tar", "-tzf", self.work / "dist2/vorlix-9.8.7.tar.gz").split()
        self.assertIn("vorlix-9.8.7/packaging/homebrew/vorlix.rb", names)
        self.assertNotIn("vorlix-9.8.7/new", names)
        (source / "packaging/homebrew/vorlix.rb").write_text("changed")
        self.assertIn("not in the tarball", run(
            "cmake", "-D", f"SOURCE={source}", "-D", "GIT=git", "-D", "GZIP=gzip", "-D", "VERSION=9.8.7", "-D",
            f"OUT={self.work}/dist3", "-P", SOURCE / "cmake/Dist.cmake"))

    def version_text(self, source):
        """What a build of a folder calls itself, and whether the look-up of the same commit leaves the file alone."""
        out = self.work / "version.txt"
        (self.work / "version.in").write_text("@VERSION@@COMMIT@")
        command = ["cmake", "-D", f"SOURCE={source}", "-D", "GIT=git", "-D", "VERSION=9.8.7", "-D",
                   f"TEMPLATE={self.work}/version.in", "-D", f"OUT={out}", "-P", SOURCE / "cmake/Commit.cmake"]
        run(*command)
        os.utime(out, (1, 1))
        run(*command)
        self.assertEqual(out.stat().st_mtime, 1, "written although nothing changed")
        return out.read_text().strip()

    @unittest.skipIf(shutil.which("git") is None, "not installed: git")
    def test_the_version_has_the_commit_of_a_build_from_git(self):
        source = self.work / "versioned"
        (source / "inner").mkdir(parents=True)
        self.assertEqual(self.version_text(source), "9.8.7")
        git = ["git", "-C", source, "-c", "user.name=n", "-c", "user.email=e@example.com"]
        run("git", "init", "-q", source)
        (source / "file").write_text("1")
        self.assertEqual(self.version_text(source), "9.8.7", "no commit yet")
        run(*git, "add", ".")
        run(*git, "commit", "-q", "-m", "first")
        commit = run(*git, "rev-parse", "--short=12", "HEAD").strip()
        self.assertEqual(self.version_text(source), f"9.8.7 (commit {commit})")
        run(*git, "tag", "v9.8.7")
        (source / "file").write_text("2")
        self.assertEqual(self.version_text(source), f"9.8.7 (commit {commit}, changed)")
        self.assertEqual(self.version_text(source / "inner"), "9.8.7", "unpacked within another project")

    def test_uninstalling_removes_what_was_installed_and_nothing_else(self):
        prefix, manifest = self.work / "twice", self.work / "twice.txt"
        self.install(prefix, manifest)
        foreign = [prefix / "include/Vorlix/foundation/Other.h", prefix / "libexec/vorlix-1/..other", prefix / "bin/other"]
        for file in foreign:
            file.write_text("kept")
        run("cmake", "-D", f"LIST={manifest}", "-P", SOURCE / "cmake/Uninstall.cmake")
        self.assertEqual(sorted(path for path in prefix.rglob("*") if not path.is_dir()), sorted(foreign))
        self.assertFalse([path for path in prefix.rglob("*orlix*") if path.is_dir() and not list(path.iterdir())])
        for file in foreign:
            file.unlink()
        self.assertIn("Gone already", run("cmake", "-D", f"LIST={manifest}", "-P", SOURCE / "cmake/Uninstall.cmake"))
        self.assertEqual([path for path in prefix.rglob("*orlix*")], [])
        self.assertTrue((prefix / "bin").is_dir(), "folders that others use remain")
        missing = subprocess.run(["cmake", "-D", "LIST=/no/such/list", "-P", SOURCE / "cmake/Uninstall.cmake"], text=True,
                                 capture_output=True)
        self.assertIn("Nothing was installed", missing.stderr)
        self.assertNotEqual(missing.returncode, 0)

    def test_the_command_line_is_installed_and_starts(self):
        self.assertIn("--help", run(self.prefix / "bin" / "vorlix", "--help"))

    def test_what_few_calls_need_is_needed_by_modules_alone_which_stand_beside_the_library(self):
        def needed(file):
            return re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", file))

        major = re.search(r"\d+", self.library.name.split(".so.")[1]).group()
        for name, library in (("signing.so", "libcrypto."), ("mounting.so", "libmount."), ("applying.so", "libwim.")):
            module = self.library.parent / f"vorlix-{major}" / name
            self.assertTrue([needs for needs in needed(module) if needs.startswith(library)], needed(module))
            for file in (self.library, self.prefix / "bin" / "vorlix"):
                self.assertFalse([needs for needs in needed(file) if needs.startswith(library)], file)

    @unittest.skipIf(shutil.which("strace") is None, "not installed: strace")
    def test_a_moved_installation_loads_its_own_module(self):
        moved = self.work / "moved-module"
        shutil.copytree(self.prefix, moved, symlinks=True)
        trace = self.work / "loaded"
        for program in (moved / "bin" / "vorlix", self.prefix / "bin" / "vorlix"):
            result = subprocess.run(["strace", "-qq", "-e", "trace=openat", "-o", trace, program, "check-caller",
                                     str(os.getpid())], text=True, capture_output=True)
            self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
            opened = re.findall(r'"([^"]*signing\.so)", \S+ = \d', trace.read_text(errors="replace"))
            expected = program.resolve().parents[1] / self.library.parent.relative_to(self.prefix.resolve())
            self.assertEqual([pathlib.Path(path) for path in opened], [expected / "vorlix-1" / "signing.so"])

    def test_the_registry_program_is_installed_where_hosts_look_for_it(self):
        self.assertIn("registry_lookup", run(self.prefix / COMPANION, "--version"))
        self.assertEqual(self.installed("**/registry_lookup"), [pathlib.Path(COMPANION)])

    def resource_host(self, name, library):
        """A host outside the prefix that prints the path of the registry program."""
        project = self.work / f"{name}-source"
        project.mkdir()
        (project / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(Host LANGUAGES CXX)\nfind_package(Vorlix REQUIRED)\n"
            f"add_executable(host host.cpp)\ntarget_link_libraries(host PRIVATE {library})\n")
        (project / "host.cpp").write_text(
            "#include <Vorlix/platform/CompanionProgram.h>\n#include <cstdio>\n"
            "int main() {\n  const auto path = vorlix::companionProgram(\"registry_lookup\");\n  std::printf(\"%s\\n\", path ? path->c_str() : \"absent\");\n}\n")
        return self.cmake_project(name, project) / "host"

    def test_the_registry_program_is_found_under_the_prefix_chosen_at_install(self):
        volume = self.work / "volume"
        (volume / "Windows/System32/config").mkdir(parents=True)
        (volume / "Windows/System32/config/SOFTWARE").write_bytes(b"no hive")
        # A link to the folder, another working folder and a later move make no difference.
        link = self.work / "link"
        link.symlink_to(self.prefix)
        shutil.copytree(self.prefix, self.work / "moved-program", symlinks=True)
        for command in (self.prefix / "bin/vorlix", link / "bin/vorlix", self.work / "moved-program/bin/vorlix"):
            result = subprocess.run([command, "windows", volume], cwd="/", text=True, capture_output=True)
            self.assertEqual(result.returncode, 2, result.stderr)
            self.assertIn("its registry has no product name", result.stderr)
        if pathlib.Path(cached("CMAKE_INSTALL_PREFIX"), COMPANION).exists():
            print(f"\nskipped: without the companion: {COMPANION} is installed")
            return  # the library also looks in the prefix that it was built for
        shutil.copytree(self.prefix, self.work / "without", symlinks=True)
        (self.work / "without" / COMPANION).unlink()
        result = subprocess.run([self.work / "without/bin/vorlix", "windows", volume], text=True, capture_output=True)
        self.assertIn("registry_lookup is not installed", result.stderr)

    def test_a_host_elsewhere_finds_the_registry_program_of_the_shared_library(self):
        host = self.resource_host("resources", "Vorlix::Vorlix")
        self.assertEqual(run(host, cwd="/").strip(), str(self.prefix.resolve() / COMPANION))
        beside = host.parent / "tools/bin"
        beside.mkdir(parents=True)
        (beside / "registry_lookup").write_text("")
        self.assertEqual(run(host).strip(), str(beside.resolve() / "registry_lookup"), "the host's file has priority")

    def test_every_file_that_is_installed_belongs_to_a_package(self):
        """An install() without COMPONENT would reach no package."""
        parts = set()
        for component in ("command", "library", "wim", "development", "Unspecified"):
            prefix = self.work / component
            run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
            (BUILD / f"install_manifest_{component}.txt").unlink(missing_ok=True)
            files = {str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir()}
            self.assertEqual(files & parts, set(), f"twice: {component}")
            if component == "wim":  # where it is built
                self.assertLessEqual({pathlib.Path(file).name for file in files}, {"applying.so"})
            else:
                self.assertEqual(not files, component == "Unspecified", f"{component}: {sorted(files)}")
            parts |= files
        self.assertEqual(parts, {str(path) for path in self.installed("**/*")})

    def test_the_change_log_has_the_version_that_is_built(self):
        versions = re.findall(r"^## \[(\S+)\]", (SOURCE / "CHANGELOG.md").read_text(), re.MULTILINE)
        self.assertEqual(versions[0], cached("CMAKE_PROJECT_VERSION"))

    def test_man_pages_are_installed(self):
        pages = [str(path) for path in self.installed("share/man/**/*")]
        self.assertEqual(pages, ["share/man/man1/boot_store.1", "share/man/man1/registry_lookup.1", "share/man/man1/vorlix.1"])

    def test_completions_are_installed_where_shells_look_for_them(self):
        installed = {"share/bash-completion/completions/vorlix": "vorlix.bash", "share/zsh/site-functions/_vorlix": "_vorlix",
                     "share/fish/vendor_completions.d/vorlix.fish": "vorlix.fish"}
        for path, source in installed.items():
            self.assertEqual((self.prefix / path).read_bytes(), (SOURCE / "tools/vorlix/completion" / source).read_bytes())
        found = {str(path) for path in self.installed("share/**/*vorlix*") if "completion" in str(path) or "zsh" in str(path)}
        self.assertEqual(found, set(installed))

    @unittest.skipIf(SANITIZED, "the build without sanitizers has shown it")
    def test_each_public_header_compiles_alone(self):
        """
        A header that another one includes is compiled before that one in one unit: it is alone there, and the other one
        sees what it sees alone, because it includes the first one anyway. That takes half the time.
        """
        headers = [str(header.relative_to("include")) for header in self.installed("include/**/*.h")]
        self.assertGreater(len(headers), len(C_HEADERS))
        units = include_chains({name: (self.include / name).read_text() for name in headers})
        self.assertEqual(sorted(name for unit in units for name in unit), sorted(headers))
        warnings = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only", f"-I{self.include}"]
        compiler = self.other_compiler()

        def compiled(unit):
            run(compiler, "-std=c++20", *warnings, "-x", "c++", "-", input="".join(f"#include <{name}>\n" for name in unit))

        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for unit, result in [(unit, pool.submit(compiled, unit)) for unit in units]:
                with self.subTest(headers=unit, language="C++20"):
                    result.result()
        in_c = [name for name in headers if pathlib.PurePath(name).name in C_HEADERS]
        self.assertEqual(len(in_c), len(C_HEADERS), in_c)
        for name in in_c:
            with self.subTest(header=name, language="C11"):
                # A translation unit must not be empty, even if the header declares nothing.
                run(self.cc, "-std=c11", *warnings, "-x", "c", "-", input=f"#include <{name}>\nextern int unit;\n")

    def test_no_internal_header_is_installed(self):
        parts = {part for header in self.installed("include/**/*") for part in header.parts}
        self.assertFalse(parts & {"linux", "macos", "posix", "Journal.h", "SimulatedFileTree.h"}, parts)
        self.assertEqual(self.installed("include/**/*"), self.installed("include/Vorlix/**/*.h"))

    def test_the_shared_library_exports_what_the_headers_mark_and_nothing_else(self):
        declared, classes = set(), set()
        for header in self.installed("include/**/*.h"):
            if header.name != "Export.h":
                declared |= declared_names(self.prefix / header)
                classes |= exported_classes(self.prefix / header)
        self.assertIn("update_mbr_and_partition", declared)
        self.assertIn("partition_maps", declared)
        self.assertIn("vorlix::setPlatform", declared)

        strong, vague = set(), set()
        for line in run("nm", "-D", "-C", "--defined-only", self.library).splitlines():
            kind, name = re.match(r"[0-9a-f]* +(\S) (.*)$", line).groups()
            name = re.sub(r"\[abi:\w+\]", "", name.split("(")[0].split("@@")[0])
            if kind == "A" and name == "VORLIX_1":  # the version of the others
                continue
            if self.flags and name.startswith("__odr_asan"):
                continue
            (vague if kind in "VWuvw" else strong).add(name)
        print(f"\nexported: {len(strong)} names: {', '.join(sorted(strong))}")
        if not self.flags:  # sanitizers want to see the C++ library's
            self.assertEqual([name for name in vague if not any(belongs_to(name, known) for known in classes)], [])
        for class_name in classes:
            # If all members of a class are in its header, the library's symbols for it have vague linkage.
            members = {name for name in strong | vague if belongs_to(name, class_name)}
            self.assertTrue(members, f"nothing of {class_name} is exported")
            strong -= members
        self.assertEqual(strong, declared)
        named = {found for name in vague for found in re.findall(r"vorlix::\w+", name)}
        self.assertEqual(named - classes, set(), "only exported classes may have symbols of vague linkage")

    @unittest.skipIf(SANITIZED, "the library has no version script with sanitizers")
    def test_the_list_of_exported_symbols_in_the_tree_is_current(self):
        listed = (SOURCE / "cmake/symbols-linux.txt").read_text()
        exported = run(SOURCE / "tools/dev/list_symbols", self.library)
        self.assertEqual(exported.splitlines(), listed.splitlines(),
                         "if this is intended: tools/dev/list_symbols build/libvorlix.so > cmake/symbols-linux.txt; "
                         "what hosts may use is removed or changed with a new major version only")
        self.assertGreater(len(listed.splitlines()), 200)
        for stray in run(SOURCE / "tools/dev/list_symbols", self.library, "--stray").splitlines():
            self.assertRegex(stray, r"^W (vorlix::|QD|non-virtual thunk to )", "an inline member of an own class")
        self.assertNotIn("std::", "\n".join(line.split("(")[0] for line in listed.splitlines()))

    @unittest.skipUnless(shutil.which("clang++") and platform.machine() == "x86_64", "the list is for x86-64 and made by clang")
    def test_the_list_of_layouts_in_the_tree_is_current(self):
        listed = (SOURCE / "cmake/layouts-linux.txt").read_text()
        self.assertEqual(run(SOURCE / "tools/dev/list_layouts", self.include).splitlines(), listed.splitlines(),
                         "if this is intended: tools/dev/list_layouts > cmake/layouts-linux.txt; a class or structure that "
                         "hosts compile into their programs changes with a new major version only")
        # As documented for C, with the compiler's alignment.
        self.assertIn("MBRPartitionEntry: size 20, alignment 4\n     0 flag\n", listed)

    @unittest.skipIf(SANITIZED, "the modules have no version script with sanitizers")
    def test_modules_export_their_entry_alone(self):
        modules = sorted((self.library.parent / "vorlix-1").glob("*.so"))
        self.assertGreaterEqual(len(modules), 4)
        for module in modules:
            names = re.findall(r"^\S+ \S (\S+)$", run("nm", "-D", "--defined-only", module), re.MULTILINE)
            self.assertEqual(len(names), 1, f"{module}: {names}")
            self.assertRegex(names[0], r"^vorlix_[a-z_]+$")

    def test_the_shared_library_carries_its_name_with_the_major_version(self):
        self.assertRegex(run("readelf", "-d", self.library), r"SONAME.*\[libvorlix\.so\.\d+\]")


if __name__ == "__main__":
    unittest.main()
