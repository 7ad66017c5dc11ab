// SPDX-License-Identifier: Apache-2.0
//
// Looks for a resource that is not there, which needs the bundle's lock and the languages of its files.
#include <CoreFoundation/CoreFoundation.h>

int main() {
  return CFBundleCopyResourceURL(CFBundleGetMainBundle(), CFSTR("no-such-resource"), CFSTR(""), nullptr) == nullptr ? 0
                                                                                                                    : 1;
}
