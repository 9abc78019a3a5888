#include "updater.h"

#include <QSettings>
#include <cstdio>

#include "update_feed.h"

namespace {
const QString kAutomaticKey = QStringLiteral("updateAutomatic");
const QString kLastCheckedKey = QStringLiteral("updateLastChecked");
const QString kSkippedKey = QStringLiteral("updateSkippedVersion");
constexpr qint64 kDaySeconds = 86'400;

bool answered(const UpdateCheck& c) { return c.kind != UpdateCheck::Kind::Failed; }
}  // namespace

namespace UpdateSettings {
bool automatic() { return QSettings().value(kAutomaticKey, true).toBool(); }
void setAutomatic(bool on) { QSettings().setValue(kAutomaticKey, on); }
std::optional<QDateTime> lastChecked() {
    QDateTime when = QSettings().value(kLastCheckedKey).toDateTime();
    return when.isValid() ? std::optional<QDateTime>(when) : std::nullopt;
}
void setLastChecked(const QDateTime& when) { QSettings().setValue(kLastCheckedKey, when); }
QString skippedVersion() { return QSettings().value(kSkippedKey).toString(); }
void setSkippedVersion(const QString& version) { QSettings().setValue(kSkippedKey, version); }
}  // namespace UpdateSettings

Updater::Updater(UpdateIdentity id, QObject* parent) : QObject(parent), id_(std::move(id)), background_(1, this) {}

Updater::~Updater() { stopping_->store(true); }

template <typename Work, typename Deliver>
void Updater::run(Work work, Deliver done) {
    background_.post(
        [work = std::move(work), id = id_, stopping = stopping_]() mutable {
            UpdateSession session(id, stopping);
            return work(session);
        },
        std::move(done));
}

void Updater::check(std::function<void(UpdateCheck)> done) {
    run([](UpdateSession& s) { return s.check(); },
        [done = std::move(done)](UpdateCheck c) {
            if (answered(c)) UpdateSettings::setLastChecked(QDateTime::currentDateTimeUtc());
            done(std::move(c));
        });
}

bool Updater::checkInBackground(std::function<void(std::optional<UpdateInfo>)> landed) {
    if (!UpdateSettings::automatic()) return false;
    std::optional<QDateTime> last = UpdateSettings::lastChecked();
    if (last && last->secsTo(QDateTime::currentDateTimeUtc()) < kDaySeconds) return false;
    check([landed = std::move(landed)](UpdateCheck c) {
        landed(c.kind == UpdateCheck::Kind::Available ? std::optional<UpdateInfo>(std::move(c.info)) : std::nullopt);
    });
    return true;
}

void Updater::download(const UpdateInfo& info, std::function<void(double)> progress, std::function<void()> verifying,
                       std::function<void(DownloadOutcome)> done) {
    BackgroundQueue* queue = &background_;
    run(
        [info, queue, progress = std::move(progress), verifying = std::move(verifying)](UpdateSession& s) {
            return s.download(
                info, [&](double f) { queue->deliver([progress, f] { progress(f); }); },
                [&] { queue->deliver(verifying); });
        },
        std::move(done));
}

void Updater::install(const UpdateInfo& info, std::shared_ptr<VerifiedArchive> archive,
                      std::function<void(InstallOutcome)> done, RestartRequest restart) {
    background_.post([id = id_, info, archive, restart] { return installBundle(id, info, *archive, restart); },
                     [archive, done = std::move(done)](InstallOutcome o) { done(std::move(o)); });
}

std::optional<QString> Updater::justUpdatedTo(const QStringList& arguments) {
    qsizetype at = arguments.indexOf(QStringLiteral("--updated"));
    if (at < 0 || at + 1 >= arguments.size()) return std::nullopt;
    return arguments.at(at + 1);
}

int Updater::runCommandLineCheck(const QStringList& arguments) {
    UpdateIdentity id = UpdateIdentity::current();
    // No key at all is a build's placeholder; a key that is there but unusable was mistyped.
    const char* keyNote = "";
    if (id.publicKeyHex.isEmpty()) keyNote = "  (PLACEHOLDER, nothing will verify)";
    else if (!UpdateFeed::hexBytes(id.publicKeyHex, 32))
        keyNote = "  (MALFORMED: not 64 hex digits, nothing will verify)";
    std::printf("platform: %s\nchannel:  %s\nversion:  %s\nserver:   %s\nkey:      %s%s\n",
                qPrintable(UpdateIdentity::kPlatform), qPrintable(id.channel), qPrintable(id.version),
                qPrintable(id.baseURL), id.publicKeyHex.isEmpty() ? "(none)" : qPrintable(id.publicKeyHex), keyNote);
    std::fflush(stdout);

    UpdateSession session(id);
    UpdateCheck c = session.check();
    if (answered(c)) UpdateSettings::setLastChecked(QDateTime::currentDateTimeUtc());
    if (c.kind == UpdateCheck::Kind::Failed) {
        std::printf("\n%s\n", qPrintable(c.message));
        return 1;
    }
    if (c.kind == UpdateCheck::Kind::UpToDate) {
        std::printf("\n%s\n", qPrintable(UpdateTexts::kUpToDate));
        return 0;
    }
    std::printf("\nupdate available: %s, %lld bytes%s\n", qPrintable(c.info.version),
                static_cast<long long>(c.info.size), c.info.mandatory ? "  (mandatory)" : "");
    if (!arguments.contains(QStringLiteral("--fetch-update"))) return 0;

    std::printf("\nfetching and verifying...\n");
    std::fflush(stdout);
    DownloadOutcome d = session.download(c.info);
    std::printf("%s\n", d.archive ? "size, SHA-256 and Ed25519 signature all passed." : qPrintable(d.failure));
    return d.archive ? 0 : 1;
}
