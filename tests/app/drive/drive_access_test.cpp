// The owning drive handle, error mapping and which mounted volumes count as drives.
#include <gtest/gtest.h>

#include <QDir>
#include <QTest>

#include "deck_drive.h"
#include "drive.h"
#include "drive_selection.h"
#include "volumes.h"

namespace {

TEST(QmErrorMapping, CodesInsideTheTableMapAndOthersReadAsDriveFailures) {
    EXPECT_EQ(qmErrorOrIo(-4), QmError::noStatistics);
    EXPECT_EQ(qmErrorOrIo(-9), QmError::noHistory);
    EXPECT_EQ(qmErrorOrIo(-12), QmError::io);
    EXPECT_EQ(qmErrorOrIo(1), QmError::io);
    EXPECT_FALSE(qmErrorFromCode(-12).has_value());
}

TEST(DriveHandle, OpensWithSummaryAndDaysOrFailsWithTheCoreCase) {
    TempDir good, keyOnly, noKey;
    QmError e = QmError::ok;
    auto drive = Drive::open(deckDrive(good, deck::StatsState::Normal), &e);
    ASSERT_TRUE(drive);
    EXPECT_EQ(e, QmError::ok);
    EXPECT_EQ(uint32_t(drive->days().size()), drive->summary().n_days);
    for (int i = 1; i < drive->days().size(); ++i) EXPECT_LT(drive->days()[i - 1].day, drive->days()[i].day);
    std::optional<QString> json = drive->exportJSON();
    ASSERT_TRUE(json);
    EXPECT_TRUE(json->startsWith("{\"format\":2,\"drive_id\":\"" + drive->driveIdHex() + "\""));
    EXPECT_EQ(drive->uploadKeyHex().size(), 64);
    std::optional<QString> sig = drive->signUpload("0", QByteArray());
    ASSERT_TRUE(sig);
    EXPECT_EQ(sig->size(), 64);
    EXPECT_NE(*sig, *drive->signUpload("1", QByteArray()));

    EXPECT_FALSE(Drive::open(deckDrive(keyOnly, deck::StatsState::KeyOnly), &e));
    EXPECT_EQ(e, QmError::noStatistics);
    EXPECT_FALSE(Drive::open(deckDrive(noKey, deck::StatsState::NoKey), &e));
    EXPECT_EQ(e, QmError::notADrive);
    EXPECT_EQ(Drive::provision(q(keyOnly), false), QmError::alreadyHasKey);
}

TEST(VolumeScan, KeepsDrivesAndUsedVolumesInOrderAndNamesThem) {
    TempDir keyed, statsOnly, fonts, plain;
    deckDrive(keyed, deck::StatsState::KeyOnly);
    spit(statsOnly / "stats.db", "x");
    QDir().mkpath(q(fonts / "fonts"));
    spit(fonts / "fonts.txt", "not a folder of fonts");
    spit(plain / "notes.txt", "hello");
    QList<QmVolume> found = Volumes::classify({{q(plain), "PLAIN"},
                                               {q(statsOnly) + "/", ""},
                                               {q(keyed), "DECK"},
                                               {q(fonts), "FONTS"}});
    // No name given: the last path component.
    EXPECT_EQ(found, (QList<QmVolume>{{q(statsOnly) + "/", QDir(q(statsOnly)).dirName(), false},
                                      {q(keyed), "DECK", true},
                                      {q(fonts), "FONTS", false}}));
}

TEST(DriveSelection, PinnedDriveIsTestedOffTheMainThreadAndSurvivesRescans) {
    TempDir dir;
    QString root = deckDrive(dir, deck::StatsState::Normal);
    DriveSelection drives;
    int changes = 0;
    QObject::connect(&drives, &DriveSelection::changed, [&] { ++changes; });
    drives.pin(root, "DECK");
    EXPECT_TRUE(drives.scanning());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !drives.scanning(); }, 20000));
    EXPECT_EQ(drives.volumes(), (QList<QmVolume>{{root, "DECK", true}}));
    EXPECT_EQ(drives.path(), root);
    drives.rescan();  // pinned: the same folder looked at again, off the main thread
    ASSERT_TRUE(QTest::qWaitFor([&] { return !drives.scanning(); }, 20000));
    EXPECT_EQ(drives.path(), root);
    EXPECT_FALSE(drives.gone());
    EXPECT_EQ(changes, 2);
    drives.select("/elsewhere");
    EXPECT_FALSE(drives.volume());
}

}  // namespace
