#pragma once

// The last words of a crashing process go to the early log under "Crash".

// A fault the process cannot survive: "Unhandled exception code=0x<code>" and
// one line per captured return address. Also makes std::terminate log
// "std::terminate() called" before it aborts.
void installCrashHandlers();

// Abort and segmentation fault: "Signal <n>", then the process ends with the
// exit code 128 plus the number.
void installSignalHandlers();
