// Replacing the installed bundle with a freshly unpacked one: both folders live side by side and
// trade places in one step, so a crash leaves either the old bundle or the new one, never half.
#pragma once
#include <optional>
#include <string>

// Atomically exchanges two folders (renameat2 RENAME_EXCHANGE, same file system); nullopt or the
// error text (strerror). Both must be real folders, not links to them. The file system is
// flushed first (syncfs), so the folder swapped in is on disk before it becomes the live one.
std::optional<std::string> exchangeFolders(const std::string& a, const std::string& b);

// Removes a folder tree without following any link: a link inside is removed, its target left
// alone (a link given as path is removed itself). True when everything went, and when path did
// not exist. Folders of the owner's that deny the owner access are opened up to be emptied.
bool removeTree(const std::string& path);

// Whether the current user may create and rename entries in this folder.
bool folderWritable(const std::string& path);
