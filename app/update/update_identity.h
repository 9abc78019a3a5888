// Who this copy is, as far as updates go: its version, the channel it follows, the key that
// release signatures must verify under, the service it asks, and the bundle folder it runs from
// (when it runs from one; only such a copy can replace itself).
#pragma once
#include <QString>
#include <optional>

// The bundle.json at the root of an installed bundle folder.
struct BundleManifest {
    QString version;
    QString updatePublicKey;
};

struct UpdateIdentity {
    static const QString kPlatform;  // "linux"

    QString version;
    QString channel;
    QString publicKeyHex;  // lower-case; empty when the build carries none
    QString baseURL;
    std::optional<QString> bundleRoot;  // the ".app" folder holding bin/ and bundle.json
    QString executableInBundle;         // the program's path inside the bundle, e.g. "bin/quillmate-flasher"
    bool packaged = false;              // not a bundle: the system's package manager installed it

    // From the environment (QM_VERSION, QM_UPDATE_CHANNEL, QM_UPDATE_PUBKEY, QM_SERVER), the
    // bundle this program runs from, and what the build stamped.
    static UpdateIdentity current();
};

namespace Bundle {
// The manifest of the bundle folder at root, when root is one.
std::optional<BundleManifest> readManifest(const QString& root);
// The bundle folder a program at executablePath belongs to: the parent of its folder, when that
// is named "*.app" and holds a readable manifest.
std::optional<QString> rootOf(const QString& executablePath);
// Whether the package manager installed the program at executablePath: dpkg's list of the
// package's files, under infoDir, names it.
bool installedByPackage(const QString& executablePath, const QString& infoDir = QStringLiteral("/var/lib/dpkg/info"));
}  // namespace Bundle
