# SPDX-License-Identifier: Apache-2.0
# A formula for Homebrew. The target `dist` makes the tarball and writes a copy of this file that names it, with its
# checksum (build/dist/vorlix.rb). Homebrew 4.4 has installed, tested and removed it on Linux, with the system's libraries in
# place of its bottles. Nobody has run it on a Mac yet.
class Vorlix < Formula
  desc "Disk and boot library for Windows installations on Mac hardware"
  homepage "file://VORLIX_PLACE"
  url "file://VORLIX_PLACE/vorlix-VORLIX_VERSION.tar.gz"
  sha256 "VORLIX_SHA256"
  license "Apache-2.0"

  depends_on "cli11" => :build
  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "nlohmann-json" => :build
  depends_on "pkg-config" => :build
  depends_on "hivex"
  depends_on "libarchive"
  depends_on "libmd"
  depends_on "libplist"
  depends_on :macos # Linux has packages
  depends_on "mtools"
  depends_on "zstd"

  uses_from_macos "zlib"

  def install
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DBUILD_TESTING=OFF", *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    assert_match version.to_s, shell_output("#{bin}/vorlix --version")
    assert_path_exists share/"bash-completion/completions/vorlix"
    assert_path_exists zsh_completion/"_vorlix"
    assert_path_exists fish_completion/"vorlix.fish"
    # An image without tables, which nothing writes to.
    (testpath/"blank.img").binwrite "\0" * 1048576
    assert_match(/GPT +none/, shell_output("#{bin}/vorlix show blank.img"))
    assert_equal "\0" * 1048576, (testpath/"blank.img").binread
    (testpath/"host.c").write <<~C
      #include <Vorlix/QDSDiskFunctions.h>
      int main(void) { return getblocksize("blank.img") == 512 ? 0 : 1; }
    C
    system ENV.cc, "host.c", "-I#{include}", "-L#{lib}", "-lvorlix", "-Wl,-rpath,#{lib}", "-o", "host"
    system "./host"
  end
end
