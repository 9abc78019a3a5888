// The size a gzip file decodes to. Its trailer keeps that size modulo 4 GiB only, so it is
// believed only while the compressed bytes could not decode to more; otherwise the file is
// decoded and its bytes counted (seconds for a large image: call that off the main thread).
#pragma once
#include <QString>
#include <optional>

namespace GzipSize {

// The decoded size when the trailer alone tells it, else none. None too for a file too short
// to be gzip.
std::optional<qint64> fromTrailer(const QString& path);
// The decoded size, counted when the trailer cannot tell; none when it does not decode.
std::optional<qint64> counted(const QString& path);

}  // namespace GzipSize
