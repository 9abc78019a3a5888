#include "settings_model.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QFileInfo>
#include <QLocale>
#include <QUrl>
#include <utility>

#include "restart_state.h"

const QString SettingsModel::kWaitingForWrite =
    QStringLiteral("The update will be installed when the drive has been written.");

SettingsModel::SettingsModel(QObject* parent)
    : SettingsModel(UpdateIdentity::current(), Updater::justUpdatedTo(QCoreApplication::arguments()), parent) {
    restartArguments_ = RestartState::carriedArguments(QCoreApplication::arguments());
}

SettingsModel::SettingsModel(UpdateIdentity id, std::optional<QString> justUpdatedTo, QObject* parent)
    : QObject(parent),
      automatic_(UpdateSettings::automatic()),
      justUpdatedTo_(std::move(justUpdatedTo)),
      exit_([] { QCoreApplication::exit(0); }),
      updater_(std::move(id)) {
    status_ = idleStatus();
}

QString SettingsModel::idleStatus() const {
    if (justUpdatedTo_) return tr("Updated to version %1.").arg(*justUpdatedTo_);
    std::optional<QDateTime> last = UpdateSettings::lastChecked();
    if (!last) return tr("Not checked yet.");
    return tr("Last checked %1.").arg(QLocale().toString(last->toLocalTime(), QLocale::ShortFormat));
}

void SettingsModel::setAutomatic(bool on) {
    if (on == automatic_) return;
    automatic_ = on;
    UpdateSettings::setAutomatic(on);
    emit changed();
}

void SettingsModel::dismissBanner() {
    bannerDismissed_ = true;
    emit changed();
}

void SettingsModel::setShowingNotes(bool on) {
    if (on == showingNotes_) return;
    showingNotes_ = on;
    emit changed();
}

// A new find shows the banner again, even after an earlier one was closed.
void SettingsModel::offer(const UpdateInfo& info) {
    found_ = info;
    bannerDismissed_ = false;
    installProblem_.clear();
    status_ = tr("Version %1 is available.").arg(info.version);
}

void SettingsModel::checkOnLaunch() {
    launchCheck_ = updater_.checkInBackground([this](std::optional<UpdateInfo> info) {
        launchCheck_ = false;
        if (info && !busy_ && info->version != UpdateSettings::skippedVersion()) offer(*info);
        else if (!found_ && !busy_) status_ = idleStatus();
        emit changed();
    });
}

// The user's own check says what the server answered, a skipped version included.
void SettingsModel::checkNow() {
    if (busy_) return;
    busy_ = true;
    status_ = tr("Asking the server...");
    emit changed();
    updater_.check([this](UpdateCheck c) {
        busy_ = false;
        if (c.kind == UpdateCheck::Kind::Available) {
            offer(c.info);
        } else if (c.kind == UpdateCheck::Kind::UpToDate) {
            found_.reset();
            status_ = UpdateTexts::kUpToDate;
        } else {
            status_ = c.message;
        }
        emit changed();
    });
}

void SettingsModel::skip() {
    if (!found_ || busy_) return;
    UpdateSettings::setSkippedVersion(found_->version);
    found_.reset();
    showingNotes_ = false;
    status_ = tr("Skipped. This version will not be mentioned again; the next one will.");
    emit changed();
}

void SettingsModel::fail(const QString& message) {
    busy_ = false;
    installing_ = false;
    status_ = message;
    installProblem_ = message;
    emit changed();
}

void SettingsModel::updateNow() {
    if (!found_ || busy_) return;
    UpdateInfo info = *found_;
    busy_ = true;
    showingNotes_ = false;
    installProblem_.clear();
    status_ = tr("Downloading version %1... %2%").arg(info.version).arg(0);
    emit changed();
    updater_.download(
        info,
        [this, version = info.version](double fraction) {
            status_ = tr("Downloading version %1... %2%").arg(version).arg(int(fraction * 100));
            emit changed();
        },
        [this] {
            status_ = tr("Checking what arrived...");
            emit changed();
        },
        [this, info](DownloadOutcome d) {
            if (!d.archive) return fail(d.failure);
            install(info, std::move(d.archive));
        });
}

// Restarting under a write would leave the writer running with nobody to report to.
void SettingsModel::install(const UpdateInfo& info, std::shared_ptr<VerifiedArchive> archive) {
    if (hold_ && hold_()) {
        waiting_ = [this, info, archive] { install(info, archive); };
        status_ = kWaitingForWrite;
        emit changed();
        return;
    }
    installing_ = true;
    status_ = tr("Replacing the app and restarting...");
    emit changed();
    RestartRequest restart{restartArguments_, place_ ? place_() : QString()};
    updater_.install(
        info, std::move(archive),
        [this](InstallOutcome o) {
            if (o.reveal) QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(*o.reveal).absolutePath()));
            if (o.failure) return fail(*o.failure);
            exit_();
        },
        std::move(restart));
}

void SettingsModel::holdReleased() {
    if (std::function<void()> next = std::exchange(waiting_, nullptr)) next();
}
