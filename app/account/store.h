// The sign-in token on disk, readable by its owner only.
#pragma once
#include <QString>
#include <optional>

namespace Store {
// <generic data folder>/Quillmate/token.txt
QString tokenPath();
// The stored token, trimmed; none when the file is missing or holds only white space.
std::optional<QString> token();
// Replaces the stored token in one step; none removes the file. False when the disk refused.
bool setToken(const std::optional<QString>& token);
}  // namespace Store
