#pragma once

// Only in the test build's probe program, never in MeridKestalUtility itself:
// MERID_CRASH_PROBE makes the start fail the way a real fault would, at the
// point just before the guarded region.
//   "throw": an exception escapes main, so std::terminate runs;
//   "fault": a write through a null pointer.
// Anything else, or nothing, lets the start go on.
void runCrashProbe();
