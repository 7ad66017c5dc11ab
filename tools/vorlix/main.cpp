// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  CLI::App app("Disks and boot records of Windows installations on Mac hardware");
  CLI11_PARSE(app, argc, argv);
  return 0;
}
