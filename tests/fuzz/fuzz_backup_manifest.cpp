// The backup folder's list of copies as arbitrary bytes: anybody could have edited it. Beyond
// not crashing: every row names a path inside the folder under its own key, and writing the
// rows out and reading them again gives the same rows.
#include <QByteArray>
#include <QString>
#include <cstdint>
#include <cstdlib>

#include "backup_manifest.h"
#include "fuzz_support.h"

namespace {

bool insideFolder(const QByteArray& path) {
    if (path.isEmpty() || path.contains('\0') || path.contains('\n')) return false;
    for (const QByteArray& part : path.split('/'))
        if (part.isEmpty() || part == "." || part == "..") return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray text(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto rows = BackupManifest::parse(text);
    for (const auto& [key, e] : rows) {
        check(key == e.path);
        check(insideFolder(e.path));
    }
    const QByteArray written = BackupManifest::serialize(rows, QStringLiteral("key 0123"));
    check(written.startsWith('#') && written.endsWith('\n'));
    check(BackupManifest::parse(written) == rows);
    return 0;
}
