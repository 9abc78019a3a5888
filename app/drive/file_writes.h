// Writes that survive a crash or a pulled plug at any moment: the old content or the new,
// never a mix.
#pragma once
#include <sys/types.h>

#include <QByteArray>
#include <QString>
#include <cstddef>

namespace FileWrites {
// Writes all len bytes, going on after interruptions; false on an error.
bool writeAll(int fd, const char* data, size_t len);
// Writes data to a temporary file beside path, made with `mode` before any byte goes in, flushes
// it to disk, renames it over path and flushes the folder. False on any failure; path is then
// as it was.
bool replaceDurably(const QString& path, const QByteArray& data, mode_t mode = 0644);
// Appends data to path (created when missing) in one write, then flushes it.
bool appendDurably(const QString& path, const QByteArray& data);
// Flushes the folder's entries (a rename or a new file in it) to disk.
bool syncFolder(const QString& folder);
}  // namespace FileWrites
