#include "history.h"

#include <QByteArray>
#include <QDateTime>
#include <vector>

namespace {

DocVersion version_of(const qm_version_entry& e) {
    return DocVersion{e.id,
                      e.parent,
                      QChar(char16_t(uint8_t(char(e.kind)))),
                      e.length,
                      QString::fromUtf8(e.file),
                      QString::fromUtf8(e.when),
                      QString::fromUtf8(e.tag)};
}

QString text_up_to_nul(const QByteArray& buf) { return QString::fromUtf8(buf.constData()); }

}  // namespace

std::unique_ptr<History> History::open(const QString& root, const QString& doc, QmError* error) {
    int32_t code = 0;
    qm_history* h = qm_history_open(root.toUtf8().constData(), doc.toUtf8().constData(), &code);
    if (!h) {
        if (error) *error = qmErrorOrIo(code);
        return nullptr;
    }
    if (error) *error = QmError::ok;
    return std::unique_ptr<History>(new History(h));
}

History::History(qm_history* handle) : handle_(handle) {
    int32_t n = qm_history_count(handle_);
    for (int32_t i = 0; i < n; ++i) {
        qm_version_entry e;
        if (qm_history_get(handle_, i, &e) == 0) versions_.append(version_of(e));
    }
}

History::~History() { qm_history_close(handle_); }

QString History::read(int32_t version) const {
    QByteArray buf(kTextCapacity, '\0');
    int32_t n = qm_version_read(handle_, version, reinterpret_cast<uint8_t*>(buf.data()), kTextCapacity);
    return n >= 1 ? text_up_to_nul(buf) : QString();
}

QmError History::revert(int32_t version) const {
    QByteArray stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")).toUtf8();
    return qmErrorOrIo(qm_qmv_revert(handle_, version, stamp.constData()));
}

QStringList History::documents(const QString& root) {
    QByteArray buf(65536, '\0');
    if (qm_qmv_docs(root.toUtf8().constData(), buf.data(), int32_t(buf.size())) < 1) return {};
    return text_up_to_nul(buf).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString History::liveDocument(const QString& root, const QString& doc) {
    QByteArray buf(kTextCapacity, '\0');
    int32_t n = qm_doc_read(root.toUtf8().constData(), doc.toUtf8().constData(),
                            reinterpret_cast<uint8_t*>(buf.data()), kTextCapacity);
    return n > 0 ? text_up_to_nul(buf) : QString();
}

std::optional<QList<DiffRow>> History::diff(const QString& a, const QString& b) {
    QByteArray ab = a.toUtf8(), bb = b.toUtf8();
    if (ab.size() > kTextCapacity || bb.size() > kTextCapacity) return std::nullopt;
    int32_t alen = int32_t(ab.size()), blen = int32_t(bb.size());
    size_t scratch = diff_scratch_needed(diff_count_lines(ab.constData(), alen), diff_count_lines(bb.constData(), blen));
    if (scratch > QM_DIFF_SCRATCH_SIZE) return std::nullopt;
    std::vector<unsigned char> area(scratch);
    std::vector<qm_diff_row> rows(kDiffRows);
    int32_t n = diff_lines(ab.constData(), alen, bb.constData(), blen, rows.data(), kDiffRows, area.data(), area.size());
    if (n < 0) return std::nullopt;
    QList<DiffRow> out;
    for (int32_t i = 0; i < n; ++i) {
        DiffOp op = rows[i].op >= 0 && rows[i].op <= 3 ? DiffOp(rows[i].op) : DiffOp::equal;
        out.append(DiffRow{op, rows[i].a_line, rows[i].b_line});
    }
    return out;
}
