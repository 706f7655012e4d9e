// Process-wide settings for a process that runs omra-server (the `omra server` command, the
// benchmarks). Call from the main thread before the server starts.
#pragma once

namespace omra::server {

// Every connection holds a descriptor: raises the soft open-file limit to the hard one.
void raiseOpenFileLimit();

// Fixes glibc's mmap threshold at 128 KiB. Left dynamic, it rises after the first large body is
// freed, and bursts of large bodies then fragment the heap and keep their memory resident.
void tuneMallocForServer();

}  // namespace omra::server
