// The storage a --db argument names: a postgresql:// (or postgres://) URI, or else a SQLite file.
#pragma once
#include <memory>
#include <string>

#include "storage.h"

// Throws std::runtime_error with a readable message when the database cannot be opened.
std::unique_ptr<Storage> open_storage(const std::string& db);
