// The release notes of the update found: plain text only (notes come from a server and are
// never read as rich text or HTML), the mandatory line when it applies, install or close.
#pragma once
#include <QDialog>

class QLabel;
class QPlainTextEdit;
class SettingsModel;

class UpdateNotes : public QDialog {
    Q_OBJECT
public:
    explicit UpdateNotes(SettingsModel* model, QWidget* parent = nullptr);
    QPlainTextEdit* notesView() const { return notes_; }

private:
    void refreshFromModel();

    SettingsModel* model_;
    QLabel* title_;
    QPlainTextEdit* notes_;
    QLabel* mandatory_;
};
