/** Ending by a signal, but only where nothing is half done. */
#ifndef TOOL_INTERRUPT_H
#define TOOL_INTERRUPT_H

/**
 * From now on SIGINT, SIGTERM and SIGHUP only ask for the end. SIGINT and SIGHUP stay ignored where the
 * command was started so, as under nohup; SIGTERM always works, since the next signal would be SIGKILL.
 */
void watch_interrupts();

bool is_interrupted();

/** Throws Failure when the end has been asked for. */
void stop_if_interrupted();

#endif
