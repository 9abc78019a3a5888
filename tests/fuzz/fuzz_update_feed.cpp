// The release feed's answer as arbitrary bytes from a hostile server. Beyond not crashing: an
// offered release is always newer than the running copy, carries a hash and a signature of the
// right shape, a URL this copy may fetch from, and a file name that stays in its folder.
#include <QByteArray>
#include <QString>
#include <cstdint>
#include <cstdlib>

#include "fuzz_support.h"
#include "qm_core.h"
#include "update_feed.h"

namespace {

const QString kBase = QStringLiteral("http://127.0.0.1:8080");
const QString kCurrent = QStringLiteral("1.2.3");

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray body(reinterpret_cast<const char*>(data), qsizetype(size));
    UpdateCheck c = UpdateFeed::read(200, body, kCurrent, kBase);
    if (c.kind == UpdateCheck::Kind::Failed) check(!c.message.isEmpty());
    if (c.kind != UpdateCheck::Kind::Available) return 0;
    const UpdateInfo& i = c.info;
    QByteArray theirs = i.version.toUtf8(), ours = kCurrent.toUtf8();
    check(qm_version_compare(theirs.constData(), ours.constData()) > 0);
    check(i.size >= 0);
    check(UpdateFeed::hexBytes(i.sha256, 32).has_value());
    check(UpdateFeed::hexBytes(i.signature, 64).has_value());
    check(i.url.startsWith(QLatin1String("https://")) || i.url.startsWith(kBase + QLatin1Char('/')));
    check(UpdateFeed::plainFileName(i.filename) && !i.filename.contains(QLatin1Char('/')));
    for (QChar ch : i.version) check(ch.unicode() >= 0x20 && ch.unicode() != 0x7f);
    return 0;
}
