#include "update_identity.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include "cloud_session.h"

#ifndef QM_APP_VERSION
#define QM_APP_VERSION "0.0.0"
#endif
#ifndef QM_UPDATE_PUBKEY
#define QM_UPDATE_PUBKEY ""
#endif

const QString UpdateIdentity::kPlatform = QStringLiteral("linux");

namespace {

QString environment(const char* name) { return qEnvironmentVariable(name).trimmed(); }

}  // namespace

namespace Bundle {

std::optional<BundleManifest> readManifest(const QString& root) {
    QFile file(QDir(root).filePath(QStringLiteral("bundle.json")));
    if (!file.open(QIODevice::ReadOnly) || file.size() > 64 * 1024) return std::nullopt;
    QJsonDocument doc = QJsonDocument::fromJson(file.readAll());
    QJsonObject o = doc.object();
    QJsonValue version = o.value(QLatin1String("version")), key = o.value(QLatin1String("update_public_key"));
    if (!doc.isObject() || !version.isString() || version.toString().isEmpty() || !key.isString()) return std::nullopt;
    return BundleManifest{version.toString(), key.toString().toLower()};
}

std::optional<QString> rootOf(const QString& executablePath) {
    QFileInfo exe(executablePath);
    QString root = QDir::cleanPath(exe.absolutePath() + QStringLiteral("/.."));
    if (!root.endsWith(QLatin1String(".app")) || !readManifest(root)) return std::nullopt;
    return root;
}

bool installedByPackage(const QString& executablePath, const QString& infoDir) {
    const QString program = QFileInfo(executablePath).canonicalFilePath();
    if (program.isEmpty()) return false;
    // The list is "NAME.list", or "NAME:ARCH.list" for a package of one architecture.
    const QFileInfoList lists = QDir(infoDir).entryInfoList(
        {QStringLiteral("quillmate-flasher.list"), QStringLiteral("quillmate-flasher:*.list")}, QDir::Files);
    for (const QFileInfo& list : lists) {
        QFile file(list.filePath());
        if (!file.open(QIODevice::ReadOnly) || file.size() > 1024 * 1024) continue;
        while (!file.atEnd()) {
            QByteArray line = file.readLine();
            if (line.endsWith('\n')) line.chop(1);
            if (QFile::decodeName(line) == program) return true;
        }
    }
    return false;
}

}  // namespace Bundle

UpdateIdentity UpdateIdentity::current() {
    UpdateIdentity id;
    QString exe = QCoreApplication::applicationFilePath();
    id.bundleRoot = Bundle::rootOf(exe);
    std::optional<BundleManifest> manifest = id.bundleRoot ? Bundle::readManifest(*id.bundleRoot) : std::nullopt;
    if (id.bundleRoot) id.executableInBundle = QDir(*id.bundleRoot).relativeFilePath(exe);
    else id.packaged = Bundle::installedByPackage(exe);

    id.version = environment("QM_VERSION");
    if (id.version.isEmpty()) id.version = manifest ? manifest->version : QStringLiteral(QM_APP_VERSION);
    id.channel = environment("QM_UPDATE_CHANNEL");
    if (id.channel.isEmpty()) id.channel = QStringLiteral("stable");
    id.publicKeyHex = environment("QM_UPDATE_PUBKEY").toLower();
    if (id.publicKeyHex.isEmpty()) id.publicKeyHex = QStringLiteral(QM_UPDATE_PUBKEY).toLower();
    id.baseURL = CloudSession::baseURL();
    return id;
}
