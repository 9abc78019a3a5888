#include "gzip_size.h"

#include <QFile>
#include <QtEndian>
#include <zlib.h>

namespace {

constexpr qint64 kOverhead = 18;       // the smallest header and the trailer
constexpr qint64 kMostDeflate = 1032;  // deflate cannot expand by more: 258 bytes per 2 bits
constexpr qint64 kTrailerModulus = qint64(1) << 32;

bool trailerTells(qint64 compressed) { return (compressed - kOverhead) * kMostDeflate < kTrailerModulus; }

}  // namespace

namespace GzipSize {

std::optional<qint64> fromTrailer(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() < kOverhead || !trailerTells(file.size()) ||
        !file.seek(file.size() - 4))
        return std::nullopt;
    QByteArray trailer = file.read(4);
    if (trailer.size() != 4) return std::nullopt;
    return qFromLittleEndian<quint32>(trailer.constData());
}

std::optional<qint64> counted(const QString& path) {
    if (std::optional<qint64> size = fromTrailer(path)) return size;
    gzFile gz = gzopen(QFile::encodeName(path).constData(), "rb");
    if (!gz) return std::nullopt;
    gzbuffer(gz, 1 << 20);
    if (gzdirect(gz)) {  // not gzip at all: zlib would pass it through as it is
        gzclose(gz);
        return std::nullopt;
    }
    QByteArray buffer(4 << 20, Qt::Uninitialized);
    qint64 total = 0;
    int n = 0;
    while ((n = gzread(gz, buffer.data(), unsigned(buffer.size()))) > 0) total += n;
    int error = Z_OK;
    gzerror(gz, &error);
    gzclose(gz);
    if (n < 0 || error != Z_OK) return std::nullopt;
    return total;
}

}  // namespace GzipSize
