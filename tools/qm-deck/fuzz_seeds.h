// Seed inputs for the fuzz targets, made from drives this simulator writes.
#pragma once
#include <string>

namespace deck {

// Writes dir/fuzz_statsdb/ (drives in each statistics state packed as one input, and plaintext
// records for the target's authenticated mode) and dir/fuzz_history/ (the documents' logs with
// their names and refs). Returns an empty string or what could not be written.
std::string write_fuzz_seeds(const std::string& dir);

}  // namespace deck
