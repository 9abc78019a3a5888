#include "history_model.h"

#include "volumes.h"

const QString HistoryModel::kNoDriveStatus = QStringLiteral("Plug in a Quillmate drive and press Refresh.");
const QString HistoryModel::kNoHistoryStatus = QStringLiteral(
    "No snapshot history on this drive yet. Save a named document on the deck and it will start keeping one.");
const QString HistoryModel::kTooLargeStatus = QStringLiteral("These versions are too large to compare here.");

namespace {

using State = HistoryModel::State;

// Checked only after a failure: a removed or unmounted drive looks like any missing file.
bool drive_gone(const QString& root) { return Volumes::classify({Volumes::Mount{root, QString()}}).isEmpty(); }

QString count_text(qsizetype n, const char* what) {
    return QStringLiteral("%1 %2%3").arg(n).arg(QLatin1String(what)).arg(n == 1 ? "" : "s");
}

// Comparison lines of old against now, and the status that counts them.
void fill_comparison(State& s, const QString& old, const QString& now) {
    auto lines = [](QString t) { return t.replace(QStringLiteral("\r\n"), QStringLiteral("\n")).split('\n'); };
    QStringList a = lines(old), b = lines(now);
    auto line = [](const QStringList& l, int32_t i) { return i >= 0 && i < l.size() ? l[i] : QString(); };
    std::optional<QList<DiffRow>> rows = History::diff(old, now);
    if (!rows) {
        s.status = HistoryModel::kTooLargeStatus;
        return;
    }
    int differences = 0;
    for (const DiffRow& r : *rows) {
        if (r.op == DiffOp::equal) {
            s.diffLines.append({QStringLiteral("  ") + line(a, r.aLine), DiffOp::equal});
            continue;
        }
        ++differences;
        if (r.op == DiffOp::change || r.op == DiffOp::del)
            s.diffLines.append({QStringLiteral("- ") + line(a, r.aLine), DiffOp::del});
        if (r.op == DiffOp::change || r.op == DiffOp::add)
            s.diffLines.append({QStringLiteral("+ ") + line(b, r.bLine), DiffOp::add});
    }
    s.status = differences == 0
                   ? QStringLiteral("This version is identical to the document on the drive now.")
                   : count_text(differences, "line") + QStringLiteral(" differ from the document on the drive now.");
}

// Why a text cannot be read, as the end of a sentence about a version's file or the document.
QString why(ReadProblem problem, bool versionFile) {
    switch (problem) {
    case ReadProblem::missing:
        return versionFile ? QStringLiteral("its file is missing") : QStringLiteral("it is missing");
    case ReadProblem::tooLarge: return QStringLiteral("it is larger than 4 MB");
    case ReadProblem::unreadable: break;
    }
    return versionFile ? QStringLiteral("its file could not be opened") : QStringLiteral("it could not be opened");
}

State with_shown(const QString& root, State s) {
    s.diffLines.clear();
    s.text.clear();
    if (!s.document || !s.selected) return s;
    std::unique_ptr<History> h = History::open(root, *s.document, nullptr);
    if (!h) {
        s.driveGone = drive_gone(root);
        return s;  // the status is left as it is
    }
    const bool aboutShownBefore = s.statusAboutShown;
    s.statusAboutShown = true;  // a failure or a comparison below says something about this version
    TextRead old = h->read(*s.selected);
    if (!old) {
        s.status = QStringLiteral("Version %1 cannot be read: %2.").arg(*s.selected).arg(why(old.problem, true));
        s.driveGone = drive_gone(root);
        return s;
    }
    if (s.showingDiff) {
        TextRead now = History::liveDocument(root, *s.document);
        if (!now) {
            s.status = QStringLiteral("The document on the drive cannot be read: %1.").arg(why(now.problem, false));
            s.driveGone = drive_gone(root);
            return s;
        }
        fill_comparison(s, *old.text, *now.text);
        return s;
    }
    s.text = *old.text;
    // Reading leaves the status alone, except one about what was shown before: a comparison or
    // a failed read no longer holds beside another text.
    if (aboutShownBefore) s.status = count_text(s.versions.size(), "version") + QLatin1Char('.');
    s.statusAboutShown = false;
    return s;
}

State with_versions(const QString& root, State s) {
    s.versions.clear();
    s.selected.reset();  // an id means nothing in another document's history
    s.text.clear();
    s.diffLines.clear();
    if (!s.document) return s;
    QmError error = QmError::ok;
    std::unique_ptr<History> h = History::open(root, *s.document, &error);
    if (!h) {
        s.status = qmErrorMessage(error);
        s.driveGone = drive_gone(root);
        return s;
    }
    const QList<DocVersion>& log = h->versions();
    s.versions = QList<DocVersion>(log.rbegin(), log.rend());
    if (!s.versions.isEmpty()) s.selected = s.versions.first().id;
    s.status = count_text(s.versions.size(), "version") + QLatin1Char('.');
    s.statusAboutShown = false;
    s.showingDiff = false;
    return with_shown(root, std::move(s));
}

State with_documents(const QString& root, State s) {
    s.documents = History::documents(root);
    s.document = s.documents.isEmpty() ? std::nullopt : std::optional<QString>(s.documents.first());
    s = with_versions(root, std::move(s));
    if (s.documents.isEmpty()) {
        s.status = HistoryModel::kNoHistoryStatus;
        s.driveGone = drive_gone(root);
    }
    return s;
}

State after_revert(const QString& root, State s) {
    if (!s.document || !s.selected) return s;
    QmError opened = QmError::ok;
    std::unique_ptr<History> h = History::open(root, *s.document, &opened);
    if (!h) {
        s.status = QStringLiteral("Could not restore: ") + qmErrorMessage(opened);
        s.driveGone = drive_gone(root);
        return s;
    }
    const int32_t restored = *s.selected;
    QString when;
    for (const DocVersion& v : s.versions)
        if (v.id == restored) when = v.when;
    QmError result = h->revert(restored);
    // The version's own file, rather than the drive, is the usual reason a restore fails.
    TextRead version = result == QmError::ok ? TextRead{QString()} : h->read(restored);
    h.reset();
    const QString doc = *s.document;
    s = with_versions(root, std::move(s));
    // A success reads as the new count, with what came back beside it; a failure keeps saying
    // what went wrong.
    if (!version)
        s.status = QStringLiteral("Could not restore version %1: %2.").arg(restored).arg(why(version.problem, true));
    else if (result != QmError::ok)
        s.status = QStringLiteral("Could not restore: ") + qmErrorMessage(result);
    else if (!s.versions.isEmpty())
        s.notice = QStringLiteral("Restored version %1 of “%2”, saved %3; it is now version %4. Eject the drive before "
                                  "unplugging it.")
                       .arg(restored)
                       .arg(doc, when)
                       .arg(s.versions.first().id);
    if (result != QmError::ok) s.driveGone = s.driveGone || drive_gone(root);
    return s;
}

}  // namespace

HistoryModel::HistoryModel(DriveSelection* selection, QObject* parent) : QObject(parent), selection_(selection) {
    connect(selection_, &DriveSelection::changed, this, &HistoryModel::loadDocuments);
}


void HistoryModel::rescan() { selection_->rescan(); }

std::optional<DocVersion> HistoryModel::selectedVersion() const {
    for (const DocVersion& v : state_.versions)
        if (state_.selected == v.id) return v;
    return std::nullopt;
}

void HistoryModel::loadDocuments() {
    if (!root()) {
        ++generation_;  // whatever was on its way belonged to a drive that is gone
        state_ = State{};
        if (selection_->gone()) state_.status = DriveSelection::goneText(*selection_->gone());
        updateLists();
        emit changed();
        return;
    }
    run(with_documents);
}

void HistoryModel::selectDocument(const QString& doc) {
    if (state_.document == doc) return;
    state_.document = doc;
    run(with_versions);
}

void HistoryModel::selectVersion(int32_t id) {
    if (state_.selected == id) return;
    state_.selected = id;
    run(with_shown);
}

void HistoryModel::show(bool asDiff) {
    state_.showingDiff = asDiff;
    run(with_shown);
}

void HistoryModel::revert() {
    if (root() && state_.document && state_.selected) run(after_revert, true);
}

void HistoryModel::run(Step step, bool restore) {
    int generation = ++generation_;
    if (!restore) state_.notice.clear();  // it spoke of what was shown before this choice
    ++pending_;
    if (restore) ++restoring_;
    emit changed();  // busy, and any choice made just now
    background_.post([step, root = root().value_or(QString()), state = state_] { return step(root, state); },
                     [this, generation, restore](State state) {
                         --pending_;
                         if (restore) --restoring_;
                         apply(std::move(state), generation);
                     });
}

void HistoryModel::apply(State state, int generation) {
    if (generation == generation_ && state.driveGone) {
        // Nothing of a drive that has gone stays on show; the selection confirms it is gone and
        // says so to every tab, or finds it back and the documents load again.
        std::optional<QmVolume> volume = selection_->volume();
        state = State{};
        state.status = DriveSelection::goneText(volume ? volume->name : root().value_or(QString()));
        selection_->rescan();
    }
    if (generation == generation_) {
        state_ = std::move(state);
        updateLists();
    }
    emit changed();
    if (generation == generation_) emit settled();
}

void HistoryModel::updateLists() {
    // The lists of another drive or document are other lists: nothing of them stays, not even a
    // view's selection.
    if (root() != listedRoot_) {
        documentRows_.reset(state_.documents);
        listedRoot_ = root();
    } else {
        documentRows_.sync(state_.documents, [](const QString& doc) { return doc; });
    }
    if (state_.document != versionsOf_) {
        versionRows_.reset(state_.versions);
        versionsOf_ = state_.document;
    } else {
        versionRows_.sync(state_.versions, [](const DocVersion& v) { return v.id; });
    }
    diffRows_.replace(state_.diffLines);
}
