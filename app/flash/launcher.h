// Running the writer with administrator rights and reading what it prints.
#pragma once
#include <QString>
#include <cstdio>

// The platform's own statuses: the user dismissed the password prompt, or the rights were
// refused (no authentication agent, wrong password, not allowed).
constexpr int kAuthCanceled = -60006;
constexpr int kAuthDenied = -60005;

// Runs tool as root with two arguments and stores a stream on its standard output in *output.
// 0 on success, else a status above. Blocks while the system asks for a password: never call it
// on the main thread. The caller reads the stream to its end and closes it.
extern "C" int qm_authorized_exec(const char* tool, const char* arg1, const char* arg2, FILE** output);

// As above through a given elevating program (its exit status 126: the prompt was dismissed,
// 127: refused), or none to run the tool directly. For tests.
int qm_exec_through(const char* elevator, const char* tool, const char* arg1, const char* arg2, FILE** output);

// The operating system's name in messages: "Linux", "macOS".
QString platformName();
