#include "settings_tab.h"

#include <QLabel>
#include <QVBoxLayout>

#include "backup_settings.h"
#include "labels.h"
#include "update_section.h"

SettingsTab::SettingsTab(SettingsModel* settings, BackupModel* backup, QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(10);
    layout->addWidget(Labels::title(tr("Settings")));
    QLabel* header = Labels::caption(tr("Everything that stays set. The buttons that do something live on their own "
                                        "tabs; what they do it to is chosen here."),
                                     font().pointSize());
    header->setWordWrap(true);
    layout->addWidget(header);
    layout->addSpacing(8);
    update_ = new UpdateSettingsSection(settings);
    layout->addWidget(update_);
    layout->addSpacing(12);
    backup_ = new BackupSettingsSection(backup);
    layout->addWidget(backup_);
    layout->addStretch();
}
