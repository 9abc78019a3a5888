// The deck's document side: named documents with their version histories.
#pragma once
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

namespace deck {

struct DocOptions {
    int count = 3;                 // documents with a history
    bool crlf = false;             // one document saved with CRLF line ends
    bool log_fields = false;       // a log with lines of 7, 8, 9 and 10 fields
    bool missing_version = false;  // a log line whose version file is not on the drive
    bool big_version = false;      // a version file over 4 MiB
    bool long_doc = false;         // a document of more than 1,020 lines
    bool hostile_name = false;     // log lines and folders whose names try to leave the history folder
};

// Writes data to path, replacing what was there. Returns an empty string, or a message.
std::string put(const std::filesystem::path& path, const std::string& data);

// Writes the documents and their histories under the drive folder `dir`, deterministically
// from `seed`. Returns an empty string, or a message saying what could not be written.
std::string write_documents(const std::string& dir, const DocOptions& options, uint64_t seed);

// Prints what the core reads of the documents' histories (names, versions, readable or not).
void print_documents(const std::string& dir, FILE* out);

}  // namespace deck
