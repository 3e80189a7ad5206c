// SPDX-License-Identifier: Apache-2.0
/** Termination by a signal, but only at safe points. */
#ifndef TOOL_INTERRUPT_H
#define TOOL_INTERRUPT_H

/**
 * From now on SIGINT, SIGTERM and SIGHUP only request termination. SIGINT and SIGHUP stay ignored if the
 * command was started that way, as under nohup; SIGTERM always works, since the next signal would be SIGKILL.
 */
void watch_interrupts();

bool is_interrupted();

/** Throws Failure if termination was requested. */
void stop_if_interrupted();

#endif
