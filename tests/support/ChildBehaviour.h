/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What the test child does, by the number that is its first argument. The others follow in the order given.
 */
#ifndef VORLIX_TESTS_CHILD_BEHAVIOUR_H
#define VORLIX_TESTS_CHILD_BEHAVIOUR_H

enum {
  CHILD_PRINT = 1,       /* text for standard output, text for standard error, exit status */
  CHILD_FLOOD = 2,       /* count: writes so many 'o' to standard output and as many 'e' to standard error, in turns */
  CHILD_SPLIT = 3,       /* stream, two texts: writes the second when the first has been read */
  CHILD_ARGUMENTS = 4,   /* any: prints them, each in brackets */
  CHILD_SIGNAL = 5,      /* number: ends by that signal */
  CHILD_SLOW_EXIT = 6,   /* milliseconds, exit status: closes both outputs, then waits, then exits */
  CHILD_CLOSE_ERROR = 7, /* text, milliseconds: closes standard error, waits, prints the text */
  CHILD_GRANDCHILD = 8,  /* text, milliseconds: exits at once and leaves a process that waits and prints the text */
  CHILD_STUBBORN = 9,    /* text, milliseconds, exit status: ignores SIGTERM, prints the text, waits, exits */
  CHILD_STAY = 10,       /* text, milliseconds: prints the text, waits, exits with 0 */
  CHILD_STATE = 11,      /* prints its open descriptors, blocked signals and ignored signals, a line each */
  CHILD_INPUT = 12       /* milliseconds: waits so long for standard input; prints "open", "ended" or "data" */
};

#endif
