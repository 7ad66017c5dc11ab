// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Vorlix_vers.h>

const double VorlixVersionNumber = 1.0;
const unsigned char VorlixVersionString[] = "@(#)PROGRAM:Vorlix  PROJECT:Vorlix-1\n";
