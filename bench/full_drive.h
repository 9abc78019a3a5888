// A drive with a full statistics ring and the given number of documents, written by the deck
// simulator into a fresh temporary folder that is removed afterwards.
#pragma once
#include <cstdlib>
#include <filesystem>
#include <string>

#include "documents.h"
#include "statistics.h"

class FullDrive {
public:
    explicit FullDrive(int documents) {
        char tmpl[] = "/tmp/qm-bench-drive-XXXXXX";
        if (!mkdtemp(tmpl)) std::abort();
        folder_ = tmpl;
        deck::StatsOptions stats;
        stats.days = 1100;
        deck::DocOptions docs;
        docs.count = documents;
        if (!deck::write_statistics(root(), stats, false).empty() || !deck::write_documents(root(), docs, 1).empty())
            std::abort();
    }
    ~FullDrive() { std::filesystem::remove_all(folder_); }
    std::string root() const { return folder_ + "/drive"; }
    std::string scratch(const std::string& name) const { return folder_ + "/" + name; }

private:
    std::string folder_;
};
