#include "history.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
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

// The core only says that a read failed; the file itself tells why. A name that would lead out
// of its folder is not looked at.
TextRead failed_read(const QString& folder, const QString& name) {
    struct stat st {};
    const bool plain = !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
                       !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\'));
    if (!plain) return {};
    if (::lstat(QFile::encodeName(folder + QLatin1Char('/') + name).constData(), &st) != 0)
        return {std::nullopt, errno == ENOENT ? ReadProblem::missing : ReadProblem::unreadable};
    if (S_ISREG(st.st_mode) && st.st_size > QM_TEXT_LIMIT) return {std::nullopt, ReadProblem::tooLarge};
    return {};
}

TextRead read_result(int32_t n, const QByteArray& buf, const QString& folder, const QString& name) {
    return n >= 0 ? TextRead{text_up_to_nul(buf)} : failed_read(folder, name);
}

}  // namespace

std::unique_ptr<History> History::open(const QString& root, const QString& doc, QmError* error) {
    int32_t code = 0;
    qm_history* h = qm_history_open(root.toUtf8().constData(), doc.toUtf8().constData(), &code);
    if (!h) {
        if (error) *error = qmErrorOrIo(code);
        return nullptr;
    }
    if (error) *error = QmError::ok;
    return std::unique_ptr<History>(new History(h, root, doc));
}

History::History(qm_history* handle, const QString& root, const QString& doc)
    : handle_(handle), root_(root), doc_(doc) {
    int32_t n = qm_history_count(handle_);
    for (int32_t i = 0; i < n; ++i) {
        qm_version_entry e;
        if (qm_history_get(handle_, i, &e) == 0) versions_.append(version_of(e));
    }
}

History::~History() { qm_history_close(handle_); }

TextRead History::read(int32_t version) const {
    QByteArray buf(kTextCapacity, '\0');
    int32_t n = qm_version_read(handle_, version, reinterpret_cast<uint8_t*>(buf.data()), kTextCapacity);
    auto v = std::find_if(versions_.begin(), versions_.end(), [&](const DocVersion& e) { return e.id == version; });
    return read_result(n, buf, root_ + QStringLiteral("/.qmv/") + doc_, v == versions_.end() ? QString() : v->file);
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

TextRead History::liveDocument(const QString& root, const QString& doc) {
    QByteArray buf(kTextCapacity, '\0');
    int32_t n = qm_doc_read(root.toUtf8().constData(), doc.toUtf8().constData(),
                            reinterpret_cast<uint8_t*>(buf.data()), kTextCapacity);
    return read_result(n, buf, root, doc);
}

std::optional<QList<DiffRow>> History::diff(const QString& a, const QString& b) {
    QByteArray ab = a.toUtf8(), bb = b.toUtf8();
    if (ab.size() > kTextCapacity || bb.size() > kTextCapacity) return std::nullopt;
    int32_t alen = int32_t(ab.size()), blen = int32_t(bb.size());
    size_t scratch = qm_diff_scratch_size(ab.constData(), alen, bb.constData(), blen);
    if (scratch > QM_DIFF_SCRATCH_SIZE) return std::nullopt;
    std::vector<unsigned char> area(scratch);
    std::vector<qm_diff_row> rows(kDiffRows);
    int32_t n = qm_diff_with_scratch(ab.constData(), alen, bb.constData(), blen, rows.data(), kDiffRows, area.data(),
                                     area.size());
    if (n < 0) return std::nullopt;
    QList<DiffRow> out;
    for (int32_t i = 0; i < n; ++i) {
        DiffOp op = rows[i].op >= 0 && rows[i].op <= 3 ? DiffOp(rows[i].op) : DiffOp::equal;
        out.append(DiffRow{op, rows[i].a_line, rows[i].b_line});
    }
    return out;
}
