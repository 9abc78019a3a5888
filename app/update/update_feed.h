// Reading the release feed's answer: plain functions of what arrived, no network, so that every
// hostile answer can be tried without a server (and is, by the fuzzer).
#pragma once
#include <QByteArray>
#include <QString>
#include <optional>

#include "update_info.h"

namespace UpdateFeed {
// Answers longer than this are not read: a release is described in a few hundred bytes.
constexpr qsizetype kMaxAnswer = 64 * 1024;

// status 0 means no exchange happened (no connection, timeout, an answer too long to read).
// Up to date or available mean the server answered (the caller then notes the time).
UpdateCheck read(int status, const QByteArray& body, const QString& currentVersion, const QString& baseURL);

// Exactly count bytes from 2 x count hex digits (either case), else none.
std::optional<QByteArray> hexBytes(const QString& hex, int count);

// A name the archive may be stored under in a private folder: one plain path component.
bool plainFileName(const QString& name);
}  // namespace UpdateFeed
