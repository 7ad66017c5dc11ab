/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What the test child does, selected by the number in its first argument. The other arguments follow in this order.
 */
#ifndef VORLIX_TESTS_CHILD_BEHAVIOUR_H
#define VORLIX_TESTS_CHILD_BEHAVIOUR_H

enum {
  CHILD_PRINT = 1,       /* text for standard output, text for standard error, exit status */
  CHILD_FLOOD = 2,       /* count: writes that many 'o' to standard output and 'e' to standard error, alternating */
  CHILD_SPLIT = 3,       /* stream, two strings: writes the second once the first has been read */
  CHILD_ARGUMENTS = 4,   /* any: prints each in brackets */
  CHILD_SIGNAL = 5,      /* number: kills itself with that signal */
  CHILD_SLOW_EXIT = 6,   /* milliseconds, exit status: closes both outputs, then waits, then exits */
  CHILD_CLOSE_ERROR = 7, /* text, milliseconds: closes standard error, waits, prints the text */
  CHILD_GRANDCHILD = 8,  /* text, milliseconds: exits at once and leaves a process that waits and prints the text */
  CHILD_STUBBORN = 9,    /* text, milliseconds, exit status: ignores SIGTERM, prints the text, waits, exits */
  CHILD_STAY = 10,       /* text, milliseconds: prints the text, waits, exits with 0 */
  CHILD_STATE = 11,      /* prints its open descriptors, blocked signals and ignored signals, one line each */
  CHILD_INPUT = 12       /* milliseconds: waits that long for standard input; prints "open", "ended" or "data" */
};

#endif
