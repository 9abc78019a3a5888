#include "lsblk_parser.h"

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

// The kernel writes blanks, tabs, newlines and backslashes in paths as "\ooo".
QString decodeOctalEscapes(const QByteArray& in) {
    QByteArray out;
    out.reserve(in.size());
    for (qsizetype i = 0; i < in.size(); ++i) {
        if (in[i] == '\\' && i + 3 < in.size()) {
            const char a = in[i + 1], b = in[i + 2], c = in[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out += char((a - '0') * 64 + (b - '0') * 8 + (c - '0'));
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

struct Walk {
    const QSet<QString>& systemDevices;
    QSet<QString> tainted;          // holds, or sits above, something the system uses
    QHash<QString, QString> parent; // name -> PKNAME, for the flat (--list) layout

    // True when this device or anything below it carries the system.
    bool visit(const QJsonObject& o, int depth) {
        const QStringList names = namesOf(o);
        bool system = depth > kMaxDepth;
        for (const QString& n : names) system = system || systemDevices.contains(n);
        for (const QString& m : mountPoints(o)) system = system || isSystemMountPoint(m);
        const QString pk = text(o, "pkname");
        if (!pk.isEmpty())
            for (const QString& n : names) parent.insert(n, pk);
        if (depth <= kMaxDepth) {
            const QJsonValue children = o.value(QLatin1String("children"));
            if (children.isArray())
                for (const QJsonValue& c : children.toArray())
                    if (c.isObject() && visit(c.toObject(), depth + 1)) system = true;
        }
        if (system)
            for (const QString& n : names) tainted.insert(n);
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
    }
};

bool virtualName(const QString& id) {
    for (const char* prefix : {"loop", "zram", "ram", "dm-", "md", "sr", "fd", "nbd"})
        if (id.startsWith(QLatin1String(prefix))) return true;
    return false;
}

bool isCardName(const QString& id) {
    // mmcblk0, not its mmcblk0boot0 / mmcblk0rpmb hardware partitions
    if (!id.startsWith(u"mmcblk") || id.size() == 6) return false;
    for (qsizetype i = 6; i < id.size(); ++i)
        if (id[i] < u'0' || id[i] > u'9') return false;
    return true;
}

}  // namespace

QStringList arguments(bool withMountpoints) {
    const QString columns = withMountpoints
        ? QStringLiteral("NAME,KNAME,PATH,TYPE,TRAN,RM,HOTPLUG,SIZE,MODEL,VENDOR,RO,MOUNTPOINTS,MOUNTPOINT,PKNAME")
        : QStringLiteral("NAME,KNAME,TYPE,TRAN,RM,HOTPLUG,SIZE,MODEL,VENDOR,RO,MOUNTPOINT,PKNAME");
    return {QStringLiteral("--json"), QStringLiteral("--bytes"), QStringLiteral("--output"), columns};
}

bool isSystemMountPoint(const QString& m) {
    static const QSet<QString> system = {
        QStringLiteral("/"), QStringLiteral("/boot"), QStringLiteral("/boot/efi"),
        QStringLiteral("/boot/firmware"), QStringLiteral("/usr"), QStringLiteral("/var"),
        QStringLiteral("/home"), QStringLiteral("[SWAP]"),
        // the medium a live system runs from
        QStringLiteral("/cdrom"), QStringLiteral("/run/live/medium"),
        QStringLiteral("/run/initramfs/live"), QStringLiteral("/run/archiso/bootmnt")};
    return system.contains(m);
}

bool isSafeDeviceName(const QString& name) {
    if (name.isEmpty() || name.size() > 64 || name == u"." || name == u".." || name.startsWith(u'-'))
        return false;
    for (QChar c : name) {
        const bool ok = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') ||
                        c == u'_' || c == u'-' || c == u'.' || c == u'+';
        if (!ok) return false;
    }
    return true;
}

QList<USBDrive> parseDrives(const QByteArray& json, const QSet<QString>& systemDevices) {
    const QJsonDocument doc = QJsonDocument::fromJson(json);  // skips a UTF-8 BOM itself
    if (!doc.isObject()) return {};
    const QJsonValue list = doc.object().value(QLatin1String("blockdevices"));
    if (!list.isArray()) return {};
    const QJsonArray devices = list.toArray();

    Walk walk{systemDevices, {}, {}};
    for (const QJsonValue& d : devices)
        if (d.isObject()) walk.visit(d.toObject(), 0);
    walk.climbParents();

    QList<USBDrive> out;
    QSet<QString> seen;
    for (const QJsonValue& v : devices) {
        if (!v.isObject()) continue;
        const QJsonObject o = v.toObject();
        if (text(o, "type") != u"disk") continue;
        QString id = text(o, "kname");
        if (id.isEmpty()) id = text(o, "name");
        if (!isSafeDeviceName(id) || virtualName(id) || seen.contains(id)) continue;
        bool system = false;
        for (const QString& n : namesOf(o)) system = system || walk.tainted.contains(n);
        if (system) continue;

        const QString tran = text(o, "tran").toLower();
        const bool removable = flag(o.value(QLatin1String("rm"))) || flag(o.value(QLatin1String("hotplug")));
        const bool usb = tran == u"usb";
        const bool card = isCardName(id) && (removable || tran == u"mmc");
        // An lsblk too old for the TRAN column: removable or hot-plug is all there is to go by.
        const bool noTransport = !o.contains(QLatin1String("tran")) && removable;
        if (!usb && !card && !noTransport) continue;

        QString model = trimBlanks(decodeHexEscapes(text(o, "model")));
        if (model.isEmpty()) model = trimBlanks(decodeHexEscapes(text(o, "vendor")));
        if (model.isEmpty()) model = QStringLiteral("USB drive");
        seen.insert(id);
        out.append(USBDrive{id, model, bytes(o.value(QLatin1String("size")))});
    }
    return out;
}

QList<Mount> parseMountinfo(const QByteArray& mountinfo) {
    QList<Mount> out;
    for (const QByteArray& line : mountinfo.split('\n')) {
        const QList<QByteArray> f = line.split(' ');
        // id parent major:minor root mountpoint options [optional...] - fstype source superopts
        const qsizetype sep = f.indexOf(QByteArray("-"), 6);
        if (f.size() < 10 || sep < 0 || sep + 2 >= f.size()) continue;
        out.append(Mount{QString::fromLatin1(f[2]), decodeOctalEscapes(f[4]), decodeOctalEscapes(f[sep + 2])});
    }
    return out;
}

QStringList parseSwaps(const QByteArray& procSwaps) {
    QStringList out;
    const QList<QByteArray> lines = procSwaps.split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {  // the first line is the column header
        const QByteArray first = lines[i].simplified().split(' ').value(0);
        if (!first.isEmpty()) out << decodeOctalEscapes(first);
    }
    return out;
}

}  // namespace lsblk
