// Starting a helper program with a pipe on its standard output, without forking this
// multi-threaded process (posix_spawn), and collecting its exit status.
#pragma once
#include <sys/types.h>

namespace ChildProcess {
// Starts argv[0] (a full path) with argv; its standard output goes to the pipe whose read end
// is stored in *readEnd. With quiet set, its standard input and error are /dev/null, else
// they are this process's. The pid, or -1 when it could not start.
pid_t spawnReadingOutput(const char* const argv[], int* readEnd, bool quiet);
// Waits for the child; its exit status, or -1 when it did not exit normally.
int exitStatus(pid_t pid);
}  // namespace ChildProcess
