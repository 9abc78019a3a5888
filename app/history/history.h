// One opened document history, owned for the length of one operation, and the static
// helpers for listing documents, reading the current text and comparing texts.
#pragma once
#include <QList>
#include <QString>
#include <memory>
#include <optional>

#include "qm_core.h"
#include "qm_error.h"

struct DocVersion {
    int32_t id = 0;
    int32_t parent = 0;
    QChar kind;
    uint32_t length = 0;
    QString file;
    QString when;
    QString tag;
    bool operator==(const DocVersion&) const = default;
};

// Why a version's text or the document could not be read.
enum class ReadProblem { missing, tooLarge, unreadable };

// A text read from the drive, or why it could not be read (an empty text is a text).
struct TextRead {
    std::optional<QString> text;
    ReadProblem problem = ReadProblem::unreadable;  // when there is no text
    explicit operator bool() const { return text.has_value(); }
};

enum class DiffOp : int32_t { equal = 0, change = 1, del = 2, add = 3 };

struct DiffRow {
    DiffOp op = DiffOp::equal;
    int32_t aLine = -1;
    int32_t bLine = -1;
};

class History {
public:
    static constexpr int kTextCapacity = QM_TEXT_LIMIT;
    static constexpr int kDiffRows = 8192;

    // Opens the history of doc on the drive at root; null and an error when it does not open.
    static std::unique_ptr<History> open(const QString& root, const QString& doc, QmError* error);
    ~History();
    History(const History&) = delete;
    History& operator=(const History&) = delete;

    const QList<DocVersion>& versions() const { return versions_; }
    // The version's text, or why its file cannot be read.
    TextRead read(int32_t version) const;
    // Adds a saved point holding that version's text, stamped with the local time now.
    QmError revert(int32_t version) const;

    static QStringList documents(const QString& root);
    // The document's text on the drive now.
    static TextRead liveDocument(const QString& root, const QString& doc);
    // The rows pairing the lines of a and b, or none when the texts are too large to compare
    // (more scratch than the core's 4 MiB, or more than kDiffRows rows). Reentrant.
    static std::optional<QList<DiffRow>> diff(const QString& a, const QString& b);

private:
    History(qm_history* handle, const QString& root, const QString& doc);
    qm_history* handle_;
    QString root_, doc_;
    QList<DocVersion> versions_;
};
