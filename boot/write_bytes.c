/* SPDX-License-Identifier: Apache-2.0 */
/* Writes the assembled bytes of mbr.S to the file that is named: CMake cannot write zeros. */
#include <stdio.h>

static const unsigned char bytes[] = {
#include "mbr.inc"
};
_Static_assert(sizeof bytes <= 440, "the disk signature follows the boot code");

int main(int count, char** arguments) {
  FILE* file = count == 2 ? fopen(arguments[1], "wb") : NULL;
  if (file == NULL) return 2;
  static const unsigned char zeros[440];
  const size_t rest = sizeof zeros - sizeof bytes;
  const int written = fwrite(bytes, 1, sizeof bytes, file) == sizeof bytes && fwrite(zeros, 1, rest, file) == rest;
  return fclose(file) == 0 && written ? 0 : 2;
}
