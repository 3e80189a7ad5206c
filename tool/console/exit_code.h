// SPDX-License-Identifier: Apache-2.0
/** The exit statuses of the command, in one place. `tessera --help` and the documents follow this table. */
#ifndef TOOL_EXIT_CODE_H
#define TOOL_EXIT_CODE_H

enum class ExitCode : int {
    ok = 0,
    failed = 1,        /* refused or failed for another reason; another command holds the lock */
    usage = 2,         /* invalid command line */
    refused = 3,       /* the package is untrusted, damaged, or not for this board */
    device = 4,        /* a device of the board could not be read or written, or lost data */
    interrupted = 130, /* ended by a signal at a safe point */
};

#endif
