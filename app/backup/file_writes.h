// Writes that survive a crash or a pulled plug at any moment: the old content or the new,
// never a mix.
#pragma once
#include <QByteArray>
#include <QString>

namespace FileWrites {
// Writes data to a temporary file beside path, flushes it to disk, renames it over path and
// flushes the folder. False on any failure; path is then as it was.
bool replaceDurably(const QString& path, const QByteArray& data);
// Appends data to path (created when missing) in one write, then flushes it.
bool appendDurably(const QString& path, const QByteArray& data);
// Flushes the folder's entries (a rename or a new file in it) to disk.
bool syncFolder(const QString& folder);
}  // namespace FileWrites
