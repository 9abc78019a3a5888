#include "running_work.h"

#include <QStringList>

#include "backup_model.h"
#include "flash_model.h"
#include "history_model.h"
#include "settings_model.h"

std::optional<RunningWork::QuitWarning> RunningWork::quitWarning(const FlashModel& flash, const BackupModel& backup,
                                                                 const HistoryModel& history) {
    struct Work {
        bool running;
        const char* question;
        const char* text;
    };
    const Work works[] = {
        {flash.busy(), "Quit while the drive is being written?",
         "Quillmate is being written to the drive. If you quit, the write goes on unseen and you will not be told "
         "when it ends or whether it worked. A drive removed before then is unusable until it is written again."},
        {flash.keeper().working(), "Quit while your writing is being put back?",
         "Your writing is being put back on the new stick. If you quit, it finishes unseen; if the stick is "
         "removed first, the kept copies stay on this computer and can be put back later."},
        {history.restoring(), "Quit while a version is being restored?",
         "A version is being put back on the drive. If you quit, it finishes unseen; removing the drive before "
         "then can damage the document."},
        {backup.running(), "Quit while a backup is running?",
         "Your writing is being copied to the backup folder. If you quit, the copy finishes unseen; if the "
         "drive is removed first, the next backup finishes the job."},
    };
    std::optional<QuitWarning> warning;
    QStringList texts;
    for (const Work& w : works) {
        if (!w.running) continue;
        if (!warning) warning = QuitWarning{QString::fromUtf8(w.question), {}};
        texts << QString::fromUtf8(w.text);
    }
    if (warning) warning->text = texts.join(QStringLiteral("\n\n"));
    return warning;
}

void RunningWork::keepUpdatesOffWrites(FlashModel& flash, SettingsModel& settings) {
    settings.setRestartHold([&flash] { return flash.busy(); });
    QObject::connect(&flash, &FlashModel::finished, &settings, &SettingsModel::holdReleased);
    flash.setStartGate([&settings]() -> std::optional<QString> {
        if (!settings.installing()) return std::nullopt;
        return QStringLiteral("An update is being installed; the app restarts in a moment.");
    });
}
