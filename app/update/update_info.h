// What the release feed says about a release, what a check comes to, and the texts a failed
// check, download or install shows.
#pragma once
#include <QString>
#include <cstdint>
#include <optional>

struct UpdateInfo {
    QString version;
    QString notes;
    QString filename;
    QString url;
    int64_t size = 0;
    QString sha256;
    QString signature;
    bool mandatory = false;
};

struct UpdateCheck {
    enum class Kind { UpToDate, Available, Failed };
    Kind kind = Kind::Failed;
    UpdateInfo info;   // Available
    QString message;   // Failed

    static UpdateCheck upToDate() { return {Kind::UpToDate, {}, {}}; }
    static UpdateCheck available(UpdateInfo info) { return {Kind::Available, std::move(info), {}}; }
    static UpdateCheck failed(QString message) { return {Kind::Failed, {}, std::move(message)}; }
};

namespace UpdateTexts {
inline const QString kUnreachable =
    QStringLiteral("Could not reach the update server. That is usually the connection, not this app.");
inline const QString kHttpError = QStringLiteral("The update server answered with an error (%1). Try again later.");
inline const QString kNonsense =
    QStringLiteral("The update server's answer did not make sense, so nothing was downloaded.");
inline const QString kTransferFailed =
    QStringLiteral("The download did not finish, and what had arrived was deleted.");
inline const QString kWrongSize =
    QStringLiteral("The download was not the size it was supposed to be, so it was deleted.");
inline const QString kTooLarge = QStringLiteral(
    "The update is announced as larger than 1 GiB, far more than a release of this app weighs, so nothing was "
    "downloaded.");
inline const QString kNoKey = QStringLiteral(
    "This build has no update signing key stamped into it, so a download cannot be checked and will not be run. "
    "Get a release build.");
// QM_UPDATE_PUBKEY is set but is not a key (the stamped one is checked when the app is built).
inline const QString kMalformedKey = QStringLiteral(
    "The update signing key in QM_UPDATE_PUBKEY is not 64 hex digits, so a download cannot be checked and will not "
    "be run. Correct it, or unset it to use the key stamped into this build.");
inline const QString kMismatch = QStringLiteral(
    "That download is not the release it claims to be: its fingerprint or its signature did not match. It has "
    "been deleted and nothing was installed. If this keeps happening, download the app again from the website.");
inline const QString kNotBundle =
    QStringLiteral("This copy is not running from an app bundle, so it cannot replace itself.");
// What to do instead, after kNotBundle, with the version found: for a copy the package manager
// installed, and for one built or installed by hand.
inline const QString kUsePackageManager =
    QStringLiteral("It was installed as a package: install version %1 with your package manager (apt, for example).");
inline const QString kGetItAsBefore = QStringLiteral(
    "Get version %1 the way you got this one, or install it as a folder of its own, which can update itself.");
// The folder named is the one holding the bundle; the archive is shown in the file manager.
inline const QString kNotWritable = QStringLiteral(
    "Nothing was changed: this app is in a folder it cannot write to (%1). The verified download has been left in "
    "the file manager, ready to drag into place.");
inline const QString kUnpackFailed = QStringLiteral("The update could not be unpacked, so nothing was changed.");
// On Linux the bundle check is the unpacked bundle naming exactly the signed version.
inline const QString kBundleCheckFailed =
    QStringLiteral("The unpacked app failed its bundle check, so nothing was changed.");
inline const QString kOtherDeveloper = QStringLiteral(
    "The unpacked app is signed by a different developer than the one running, so nothing was changed.");
inline const QString kReplaceFailed = QStringLiteral(
    "The app could not be replaced (%1). Nothing was changed: the copy you are running is untouched.");
// The new copy was put in place but ended, or showed no window, soon after it was started.
inline const QString kDidNotStart = QStringLiteral(
    "The new version did not start, so this version was put back and keeps running. Try again later; if it happens "
    "again, download the app from the website.");
// The reason, where the copy that ran before now is, and where it belongs.
inline const QString kPutBackFailed = QStringLiteral(
    "The new version did not start, and this version could not be put back (%1). It is in %2: move it to %3 in "
    "place of the new one, or download the app again from the website.");
inline const QString kUpToDate = QStringLiteral("You have the newest version.");
}  // namespace UpdateTexts
