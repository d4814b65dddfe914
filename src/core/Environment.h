// Python's environment beyond the bootstrap script: the text streams
// (modules/StreamsMod.h), interrupts (Interrupts.h) and signals (Signals.h).
#pragma once

namespace pytarn {

// Runs on the Python thread straight after the bootstrap script, lock held.
// What fails is printed; the bootstrap's set-up then stays as it was.
void setUpEnvironment();

} // namespace pytarn
