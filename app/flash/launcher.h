// Running the writer with administrator rights and reading what it prints.
#pragma once
#include <QString>
#include <cstdio>
#include <functional>

// The platform's own statuses: the user dismissed the password prompt, or the rights were
// refused (no authentication agent, wrong password, not allowed).
constexpr int kAuthCanceled = -60006;
constexpr int kAuthDenied = -60005;

// A tool started with administrator rights.
struct ElevatedRun {
    int status = kAuthDenied;  // 0: started and output is set; else a status above
    FILE* output = nullptr;    // the tool's standard output; the caller reads it to its end and closes it
    // Call once, after output has ended: waits for the run to end and says whether the tool ran
    // after all: 0, or kAuthCanceled / kAuthDenied when the elevating program gave up instead.
    // toolSpoke: the output held a line of the tool's protocol, so the tool certainly ran.
    std::function<int(bool toolSpoke)> ended{};
};

// Runs tool as root with two arguments. May block while the system asks for a password: never
// call it on the main thread.
ElevatedRun qm_authorized_run(const char* tool, const char* arg1, const char* arg2);

// As above through a given elevating program (its exit status 126: the prompt was dismissed,
// 127: refused), or none to run the tool directly. For tests.
ElevatedRun qm_exec_through(const char* elevator, const char* tool, const char* arg1, const char* arg2);

// The plain C form: 0 and a stream on the tool's output in *output, or a status above. The
// tool's exit status is not read.
extern "C" int qm_authorized_exec(const char* tool, const char* arg1, const char* arg2, FILE** output);

// The operating system's name in messages: "Linux", "macOS".
QString platformName();
// How to unmount a drive by hand with this system's own tools, as one sentence.
QString unmountAdvice();
