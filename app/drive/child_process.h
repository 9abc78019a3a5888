// Starting helper programs without forking this multi-threaded process (posix_spawn): one with
// a pipe on its standard output, or one detached in a session of its own; collecting exit statuses.
#pragma once
#include <sys/types.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace ChildProcess {
// Starts argv[0] (a full path) with argv; its standard output goes to the pipe whose read end
// is stored in *readEnd. With quiet set, its standard input and error are /dev/null, else
// they are this process's. The pid, or -1 when it could not start.
pid_t spawnReadingOutput(const char* const argv[], int* readEnd, bool quiet);
// Starts argv[0] (a full path) with argv and the environment envp, in a session of its own so it
// outlives this process and its terminal; standard input is /dev/null. The pid, or -1.
pid_t spawnDetached(char* const argv[], char* const envp[]);
// Waits for the child; its exit status, or -1 when it did not exit normally.
int exitStatus(pid_t pid);

struct Output {
    bool ok = false;  // started, finished in time, exit status 0
    QByteArray out;
};
// Runs program (a full path) with args to its end, reading its standard output as it goes so a
// full pipe never stalls it; standard input and error are /dev/null. Killed at the deadline.
// Blocking: for a worker thread.
Output run(const QString& program, const QStringList& args, int timeoutMs);
// The full path of a system tool, looked for in the system's own folders first; empty when none.
QString findTool(const QString& name);
}  // namespace ChildProcess
