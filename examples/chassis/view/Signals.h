#pragma once

#include <initializer_list>

namespace View {

/** Signals that a program waits for. Block them before the first thread starts, so that all threads have them blocked:
 *  they stay pending until somebody waits. */
void blockSignals(std::initializer_list<int> signals);
int waitForSignal(std::initializer_list<int> signals);
/** Ctrl-Z has no effect from now on: an actor that stands still holds up those that tell it something. */
void stayRunning();
/** From now on SIGINT and SIGTERM end the process at once: for an end that may have to wait for others. */
void letSignalsEnd();

} // namespace View
