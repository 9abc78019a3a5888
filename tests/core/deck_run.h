// Runs the qm-deck executable as a user would and collects its exit status and output.
#pragma once
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "temp_dir.h"

struct DeckRun {
    int status = -1;  // the exit status, -1 when the process did not exit normally
    std::string out, err;
};

inline std::string shell_quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline DeckRun run_deck(const std::vector<std::string>& args) {
    TempDir io;
    std::string cmd = shell_quoted(QM_DECK_PATH);
    for (const std::string& a : args) cmd += " " + shell_quoted(a);
    cmd += " </dev/null >" + shell_quoted(io / "out") + " 2>" + shell_quoted(io / "err");
    int raw = std::system(cmd.c_str());
    DeckRun r;
    r.status = raw != -1 && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = slurp(io / "out");
    r.err = slurp(io / "err");
    return r;
}
