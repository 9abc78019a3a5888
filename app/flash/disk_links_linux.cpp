#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include "disk_links.h"

namespace {

// Lower is better: the bus's own name carries the maker and serial the user plugged in.
int rank(const QString& link) {
    static const QRegularExpression partition(QStringLiteral("-part[0-9]+$"));
    if (link.startsWith(u"usb-") || link.startsWith(u"mmc-")) return 0;
    if (link.startsWith(u"wwn-") || link.startsWith(u"nvme-eui") || partition.match(link).hasMatch()) return 2;
    return 1;
}

}  // namespace

QHash<QString, QString> DiskLinks::best(const QString& folder) {
    QHash<QString, QString> chosen;
    QDir dir(folder);
    for (const QString& link :
         dir.entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name)) {
        const QFileInfo info(dir.filePath(link));
        if (!info.isSymLink()) continue;
        const QString device = info.symLinkTarget().section(u'/', -1);
        auto found = chosen.constFind(device);
        if (found == chosen.constEnd() || rank(link) < rank(found->section(u'/', -1)))
            chosen.insert(device, info.filePath());
    }
    return chosen;
}
