#include "lsblk_parser.h"

#include "disk_policy.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <cmath>

namespace lsblk {
namespace {

// Deeper than any real stack of partitions, LVM, crypt and RAID; a tree beyond it is not
// trusted and its disk is held back rather than half-read.
constexpr int kMaxDepth = 32;

QString trimBlanks(const QString& s) {
    qsizetype b = 0, e = s.size();
    while (b < e && (s[b] == u' ' || s[b] == u'\t')) ++b;
    while (e > b && (s[e - 1] == u' ' || s[e - 1] == u'\t')) --e;
    return s.mid(b, e - b);
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// lsblk writes bytes it deems unsafe as "\xHH"; the bytes together are UTF-8 again.
QString decodeHexEscapes(const QString& s) {
    const QByteArray in = s.toUtf8();
    QByteArray out;
    out.reserve(in.size());
    for (qsizetype i = 0; i < in.size(); ++i) {
        if (in[i] == '\\' && i + 3 < in.size() && in[i + 1] == 'x') {
            const int hi = hexDigit(in[i + 2]), lo = hexDigit(in[i + 3]);
            if (hi >= 0 && lo >= 0) {
                out += char(hi * 16 + lo);
                i += 3;
                continue;
            }
        }
        out += in[i];
    }
    return QString::fromUtf8(out);
}

QString text(const QJsonObject& o, const char* key) {
    const QJsonValue v = o.value(QLatin1String(key));
    return v.isString() ? v.toString() : QString();
}

// Older lsblk writes flags as "1"/"0", newer as true/false; some columns come as numbers.
bool flag(const QJsonValue& v) {
    if (v.isBool()) return v.toBool();
    if (v.isDouble()) return v.toDouble() != 0;
    if (v.isString()) {
        const QString s = v.toString().trimmed();
        return s == u"1" || s.compare(u"true", Qt::CaseInsensitive) == 0;
    }
    return false;
}

// Bytes, as a number or a string of digits. Anything else ("465.8G" from a run without
// --bytes, negatives, fractions, overflow) is unknown, which reads as empty.
quint64 bytes(const QJsonValue& v) {
    if (v.isDouble()) {
        const double d = v.toDouble();
        if (!(d >= 0) || d >= 18446744073709551616.0 || d != std::floor(d)) return 0;
        const qint64 exact = v.toInteger(-1);  // exact below 2^63, where doubles are not
        return exact >= 0 ? quint64(exact) : quint64(d);
    }
    if (v.isString()) {
        const QString s = v.toString();
        if (s.isEmpty() || s.size() > 20) return 0;
        for (QChar c : s)
            if (c < u'0' || c > u'9') return 0;
        bool ok = false;
        const quint64 n = s.toULongLong(&ok);
        return ok ? n : 0;
    }
    return 0;
}

QStringList mountPoints(const QJsonObject& o) {
    QStringList out;
    const QJsonValue many = o.value(QLatin1String("mountpoints"));
    if (many.isArray())
        for (const QJsonValue& m : many.toArray())
            if (m.isString()) out << m.toString();
    const QJsonValue one = o.value(QLatin1String("mountpoint"));
    if (one.isString()) out << one.toString();
    return out;
}

// Every name a device goes by in lsblk's output: NAME ("vg-root"), KNAME ("dm-0"), PATH.
QStringList namesOf(const QJsonObject& o) {
    QStringList out;
    for (const char* key : {"name", "kname"}) {
        const QString s = text(o, key);
        if (!s.isEmpty()) out << s;
    }
    QString path = text(o, "path");
    if (path.startsWith(u"/dev/")) {
        out << path.mid(5);
        path = path.mid(path.lastIndexOf(u'/') + 1);  // /dev/mapper/vg-root
        if (!path.isEmpty()) out << path;
    }
    return out;
}

std::string local(const QString& s) { return s.toStdString(); }

struct Walk {
    const QSet<QString>& systemDevices;
    QSet<QString> tainted;          // holds, or sits above, something the system uses
    QHash<QString, QString> parent; // name -> PKNAME, for the flat (--list) layout
    QHash<QString, QStringList> mounts;  // name -> mount points on it or on what sits on it

    // True when this device or anything below it carries the system; adds the mount points
    // of this device and all below it to mountsBelow.
    bool visit(const QJsonObject& o, int depth, QStringList& mountsBelow) {
        const QStringList names = namesOf(o);
        bool system = depth > kMaxDepth;
        for (const QString& n : names) system = system || systemDevices.contains(n);
        QStringList here = mountPoints(o);
        const QString pk = text(o, "pkname");
        if (!pk.isEmpty())
            for (const QString& n : names) parent.insert(n, pk);
        if (depth <= kMaxDepth) {
            const QJsonValue children = o.value(QLatin1String("children"));
            if (children.isArray())
                for (const QJsonValue& c : children.toArray())
                    if (c.isObject() && visit(c.toObject(), depth + 1, here)) system = true;
        }
        for (const QString& n : names) {
            if (system) tainted.insert(n);
            mounts[n] += here;
        }
        mountsBelow += here;
        return system;
    }

    // A flat listing has partitions beside their disk: climb PKNAME to the disks.
    void climbParents() {
        QStringList work(tainted.begin(), tainted.end());
        while (!work.isEmpty()) {
            const QString p = parent.value(work.takeLast());
            if (!p.isEmpty() && !tainted.contains(p)) {
                tainted.insert(p);
                work << p;
            }
        }
        const QHash<QString, QStringList> own = mounts;
        for (auto it = own.cbegin(); it != own.cend(); ++it) {
            QString p = parent.value(it.key());
            for (int depth = 0; !p.isEmpty() && depth <= kMaxDepth; ++depth, p = parent.value(p))
                mounts[p] += it.value();
        }
    }
};

disk_policy::DiskFacts factsOf(const QJsonObject& o, const QString& id, const Walk& walk) {
    disk_policy::DiskFacts d;
    d.name = local(id);
    d.transport = local(text(o, "tran").toLower());
    d.transport_known = o.contains(QLatin1String("tran"));
    d.removable = flag(o.value(QLatin1String("rm"))) || flag(o.value(QLatin1String("hotplug")));
    for (const QString& n : namesOf(o)) {
        d.carries_system = d.carries_system || walk.tainted.contains(n);
        for (const QString& m : walk.mounts.value(n)) d.mount_points.push_back(local(m));
    }
    return d;
}

}  // namespace

QStringList arguments(bool withMountpoints) {
    const QString columns = withMountpoints
        ? QStringLiteral("NAME,KNAME,PATH,TYPE,TRAN,RM,HOTPLUG,SIZE,MODEL,VENDOR,RO,MOUNTPOINTS,MOUNTPOINT,PKNAME")
        : QStringLiteral("NAME,KNAME,TYPE,TRAN,RM,HOTPLUG,SIZE,MODEL,VENDOR,RO,MOUNTPOINT,PKNAME");
    return {QStringLiteral("--json"), QStringLiteral("--bytes"), QStringLiteral("--output"), columns};
}

bool isSystemMountPoint(const QString& m) {
    return disk_policy::classify_mount(local(m)) == disk_policy::MountUse::System;
}

bool isSafeDeviceName(const QString& name) { return disk_policy::is_safe_device_name(local(name)); }

QList<USBDrive> parseDrives(const QByteArray& json, const QSet<QString>& systemDevices) {
    const QJsonDocument doc = QJsonDocument::fromJson(json);  // skips a UTF-8 BOM itself
    if (!doc.isObject()) return {};
    const QJsonValue list = doc.object().value(QLatin1String("blockdevices"));
    if (!list.isArray()) return {};
    const QJsonArray devices = list.toArray();

    Walk walk{systemDevices, {}, {}, {}};
    for (const QJsonValue& d : devices) {
        QStringList unused;
        if (d.isObject()) walk.visit(d.toObject(), 0, unused);
    }
    walk.climbParents();

    QList<USBDrive> out;
    QSet<QString> seen;
    for (const QJsonValue& v : devices) {
        if (!v.isObject()) continue;
        const QJsonObject o = v.toObject();
        if (text(o, "type") != u"disk") continue;
        QString id = text(o, "kname");
        if (id.isEmpty()) id = text(o, "name");
        if (!isSafeDeviceName(id) || seen.contains(id)) continue;
        if (disk_policy::judge(factsOf(o, id, walk)) != disk_policy::Verdict::Writable) continue;

        QString model = trimBlanks(decodeHexEscapes(text(o, "model")));
        if (model.isEmpty()) model = trimBlanks(decodeHexEscapes(text(o, "vendor")));
        if (model.isEmpty()) model = QStringLiteral("USB drive");
        seen.insert(id);
        out.append(USBDrive{id, model, bytes(o.value(QLatin1String("size"))), QString()});
    }
    return out;
}

QList<Mount> parseMountinfo(const QByteArray& mountinfo) {
    QList<Mount> out;
    for (const disk_policy::Mount& m : disk_policy::parse_mountinfo(mountinfo.toStdString()))
        out.append(Mount{QString::fromStdString(m.major_minor), QString::fromStdString(m.mount_point),
                         QString::fromStdString(m.source)});
    return out;
}

QStringList parseSwaps(const QByteArray& procSwaps) {
    QStringList out;
    for (const std::string& name : disk_policy::parse_swaps(procSwaps.toStdString()))
        out << QString::fromStdString(name);
    return out;
}

}  // namespace lsblk
