#include "diskutil_parser.h"

#include <plist/plist.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

namespace diskutil {
namespace {

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// The library parses nested containers recursively without a limit: a hostile list could run
// the stack out. Real diskutil output nests a few levels and holds a few hundred objects.
constexpr int kMaxDepth = 64;
constexpr quint64 kMaxObjects = 1 << 18;
constexpr qsizetype kMaxBytes = 16 << 20;

bool startsWithTag(const char* at, const char* end, const char* name) {
    for (; *name; ++name, ++at)
        if (at == end || (*at | 0x20) != *name) return false;
    return true;
}

// Counts opening and closing container tags; over-counting (comments, CDATA) only rejects.
bool shallowXml(const QByteArray& x) {
    const char* const end = x.constData() + x.size();
    int depth = 0;
    for (const char* c = x.constData(); c != end; ++c) {
        if (*c != '<' || c + 1 == end) continue;
        if (c[1] == '/') {
            if ((startsWithTag(c + 2, end, "dict") || startsWithTag(c + 2, end, "array") ||
                 startsWithTag(c + 2, end, "plist")) && depth > 0)
                --depth;
            continue;
        }
        if (!startsWithTag(c + 1, end, "dict") && !startsWithTag(c + 1, end, "array") &&
            !startsWithTag(c + 1, end, "plist"))
            continue;
        const char* close = std::find(c, end, '>');
        if (close != end && close[-1] == '/') continue;  // <dict/>
        if (++depth > kMaxDepth) return false;
    }
    return true;
}

// Walks the object graph of a binary list without recursion: its depth and size must stay
// within bounds, and every offset and reference inside the data.
bool shallowBinary(const QByteArray& b) {
    const auto* p = reinterpret_cast<const unsigned char*>(b.constData());
    const quint64 n = quint64(b.size());
    if (n < 8 + 32) return false;
    const quint64 body = n - 32;  // the trailer follows the objects and the offset table
    const auto be = [p](quint64 at, quint64 width) {
        quint64 v = 0;
        for (quint64 i = 0; i < width; ++i) v = v << 8 | p[at + i];
        return v;
    };
    const quint64 offSize = p[n - 26], refSize = p[n - 25];
    const quint64 count = be(n - 24, 8), top = be(n - 16, 8), table = be(n - 8, 8);
    if (offSize < 1 || offSize > 8 || refSize < 1 || refSize > 8 || count == 0 || count > body || top >= count ||
        table > body || count > (body - table) / offSize)
        return false;
    struct Item {
        quint64 object;
        int depth;
    };
    std::vector<Item> stack{{top, 1}};
    quint64 pushed = 1;
    while (!stack.empty()) {
        const Item it = stack.back();
        stack.pop_back();
        if (it.depth > kMaxDepth) return false;
        const quint64 at = be(table + it.object * offSize, offSize);
        if (at >= body) return false;
        const unsigned kind = p[at] >> 4;
        if (kind != 0xA && kind != 0xC && kind != 0xD) continue;  // array, set, dict
        quint64 items = p[at] & 0xF, refs = at + 1;
        if (items == 0xF) {  // the count follows as an integer object
            if (refs >= body || (p[refs] >> 4) != 1) return false;
            const quint64 width = quint64(1) << (p[refs] & 0xF);
            if (width > 8 || width > body - refs - 1) return false;
            items = be(refs + 1, width);
            refs += 1 + width;
        }
        if (kind == 0xD) items = items > body ? items : items * 2;  // keys, then values
        if (items > body || items * refSize > body - refs) return false;
        pushed += items;
        if (pushed > kMaxObjects) return false;
        for (quint64 i = 0; i < items; ++i) {
            const quint64 child = be(refs + i * refSize, refSize);
            if (child >= count) return false;
            stack.push_back({child, it.depth + 1});
        }
    }
    return true;
}

// plist_from_memory changed its signature between library versions; these two did not.
Plist parse(const QByteArray& bytes) {
    if (bytes.isEmpty() || bytes.size() > kMaxBytes) return nullptr;
    plist_t root = nullptr;
    const auto len = static_cast<uint32_t>(bytes.size());
    if (bytes.startsWith("bplist00")) {
        if (shallowBinary(bytes)) plist_from_bin(bytes.constData(), len, &root);
    } else if (shallowXml(bytes)) {
        plist_from_xml(bytes.constData(), len, &root);
    }
    return Plist(root);
}

QString stringOf(plist_t node) {
    uint64_t len = 0;
    const char* s = plist_get_string_ptr(node, &len);
    if (!s || len > uint64_t(INT32_MAX)) return {};
    return QString::fromUtf8(s, qsizetype(len));
}

// A size in bytes, or none. Values of 2^63 and up are no disk's size; older libplist also
// hands negative integers back that way. A real counts when it is a whole, in-range number.
std::optional<quint64> sizeOf(plist_t dict, const char* key) {
    plist_t n = plist_dict_get_item(dict, key);
    if (!n) return std::nullopt;
    if (plist_get_node_type(n) == PLIST_UINT) {
        uint64_t v = 0;
        plist_get_uint_val(n, &v);
        if (v < (uint64_t(1) << 63)) return v;
    } else if (plist_get_node_type(n) == PLIST_REAL) {
        double d = 0;
        plist_get_real_val(n, &d);
        if (d >= 0 && d < 9223372036854775808.0) return quint64(std::trunc(d));
    }
    return std::nullopt;
}

std::optional<QString> nameOf(plist_t dict, const char* key) {
    plist_t n = plist_dict_get_item(dict, key);
    if (!n || plist_get_node_type(n) != PLIST_STRING) return std::nullopt;
    return stringOf(n);
}

QString trimBlanks(const QString& s) {
    qsizetype b = 0, e = s.size();
    while (b < e && (s[b] == u' ' || s[b] == u'\t')) ++b;
    while (e > b && (s[e - 1] == u' ' || s[e - 1] == u'\t')) --e;
    return s.mid(b, e - b);
}

// The id goes on diskutil's command line and after "/dev/": a plain name, never an option.
bool isSafeId(const QString& id) {
    if (id.isEmpty() || id.size() > 64 || id.startsWith(u'-') || id == u"." || id == u"..") return false;
    for (QChar c : id)
        if (!((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_' ||
              c == u'-' || c == u'.'))
            return false;
    return true;
}

}  // namespace

QStringList wholeDisks(const QByteArray& bytes) {
    const Plist root = parse(bytes);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return {};
    plist_t disks = plist_dict_get_item(root.get(), "WholeDisks");
    if (!disks || plist_get_node_type(disks) != PLIST_ARRAY) return {};
    QStringList out;
    const uint32_t n = plist_array_get_size(disks);
    for (uint32_t i = 0; i < n; ++i) {
        plist_t item = plist_array_get_item(disks, i);
        if (!item || plist_get_node_type(item) != PLIST_STRING) continue;
        const QString id = stringOf(item);
        if (isSafeId(id) && !out.contains(id)) out << id;
    }
    return out;
}

std::optional<USBDrive> driveFromInfo(const QString& id, const QByteArray& bytes) {
    if (!isSafeId(id)) return std::nullopt;
    const Plist root = parse(bytes);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
    plist_t dict = root.get();

    plist_t internal = plist_dict_get_item(dict, "Internal");
    if (internal && plist_get_node_type(internal) == PLIST_BOOLEAN) {
        uint8_t b = 0;
        plist_get_bool_val(internal, &b);
        if (b) return std::nullopt;
    }
    // Size is the device; TotalSize is sometimes only the volume on it, so it comes second.
    const quint64 size = sizeOf(dict, "Size").value_or(sizeOf(dict, "TotalSize").value_or(0));
    // An empty MediaName still wins: that is what the disk calls itself.
    const QString model = trimBlanks(
        nameOf(dict, "MediaName").value_or(nameOf(dict, "IORegistryEntryName").value_or(QStringLiteral("USB drive"))));
    return USBDrive{id, model, size};
}

}  // namespace diskutil
