// Where the program's resources live: the system images and the writer.
#pragma once
#include <QString>
#include <optional>

namespace Resources {
// "<folder of the executable>/resources" in the build tree, else
// "<prefix>/share/quillmate-flasher" when installed; none when neither exists.
std::optional<QString> folder();
}  // namespace Resources
