// One failure type for everything the writer refuses or cannot finish; the text is shown to the user.
#pragma once
#include <stdexcept>
#include <string>

struct WriterError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr unsigned long long kMiB = 1024ull * 1024;
