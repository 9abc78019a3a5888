// Finding external disks: recorded lsblk and diskutil outputs, the system disk held back
// whatever lsblk claims, and hostile output that may only ever cost drives.
#include <gtest/gtest.h>

#include <QFile>

#include "disk_scanner.h"
#include "diskutil_parser.h"
#include "lsblk_parser.h"
#include "usb_drive.h"

namespace {

using Drives = QList<USBDrive>;

// The recorded real outputs in tests/fixtures.
QByteArray fixture(const QString& rel) {
    QFile f(QStringLiteral(QM_FIXTURES "/") + rel);
    if (!f.open(QIODevice::ReadOnly)) ADD_FAILURE() << "missing fixture " << f.fileName().toStdString();
    return f.readAll();
}

QByteArray devices(const char* entries) { return QByteArray("{\"blockdevices\":[") + entries + "]}"; }

// A binary info list {Size: 7, X: [[[...1...]]]} with `depth` arrays.
QByteArray nestedBinary(int depth) {
    const auto be32 = [](quint64 v) { return QByteArray::fromHex(QByteArray::number(v, 16).rightJustified(8, '0')); };
    QList<QByteArray> objects = {"\xd2" + be32(1) + be32(2) + be32(3) + be32(4), "\x54Size", "\x51X", {"\x10\x07", 2}};
    for (int i = 0; i < depth; ++i) objects << "\xa1" + be32(5 + i);
    objects << QByteArray("\x10\x01", 2);
    QByteArray b = "bplist00", table;
    for (const QByteArray& o : objects) table += be32(b.size()), b += o;
    const qsizetype at = b.size();
    return b + table + QByteArray(6, 0) + "\x04\x04" + QByteArray(4, 0) + be32(objects.size()) + QByteArray(12, 0) +
           be32(at);
}

const USBDrive kCruzer{"sda", "Cruzer_Fit", 15682240512};

TEST(LsblkParser, RecordedOutputs) {
    const struct { const char* file; Drives want; } cases[] = {
        {"lsblk-raspberry-pi-all-ramdisks-loops-size0-usb-stick-mmc.json", {kCruzer}},
        {"lsblk-raspberry-pi-usb-stick-and-mmc-with-tran.json", {kCruzer}},
        {"lsblk-raspberry-pi-usb-ide-adapter-ssd-rm-false.json", {{"sda", "SSD_PM830_mSATA", 128035676160}}},
        {"lsblk-raspberry-pi-argon-usb-sata-ssd-plus-usb-stick.json", {{"sdb", "Cruzer_Fit", 15682240512}}},
        {"lsblk-ubuntu-vm-snap-loops-sata-disk-cdrom.json", {}},
        {"lsblk-J-b-zram-plus-nvme-system-disk-tran-on-partitions.json", {}},
        {"lsblk-OJ-full-columns-two-sata-disks-human-sizes.json", {}},
        {"lsblk-json-old-strings-usb-stick-nvme-human-sizes.json", {{"sda", "USB drive", 0}}},
        {"lsblk-ANONYMIZED-two-empty-usb-card-readers-size0-nvme-sata.json",
         {{"sdc", "Card Reader", 0}, {"sdd", "Card Reader", 0}}},
    };
    for (const auto& c : cases) {
        const QByteArray json = fixture(QStringLiteral("lsblk/") + c.file);
        EXPECT_EQ(lsblk::parseDrives(json, {}), c.want) << c.file;
        // Cut anywhere, the output may lose drives but never invent or alter one.
        for (qsizetype n = 0; n < json.size(); n += 7)
            for (const USBDrive& d : lsblk::parseDrives(json.left(n), {})) EXPECT_TRUE(c.want.contains(d)) << c.file;
    }
}

// Each case holds a USB sda that the writer would refuse (it carries the system, or someone's
// files mounted outside the removable-media places), next to an ordinary stick sdb.
TEST(LsblkParser, DisksTheWriterRefusesNeverListed) {
    const char* stick = R"({"name":"sdb","type":"disk","tran":"usb","size":8,"mountpoints":["/media/x"]})";
    const struct { const char* sda; QSet<QString> system; } cases[] = {
        {R"({"name":"sda","type":"disk","tran":"usb","children":
            [{"name":"sda2","type":"part","mountpoints":[null,"/"]}]})", {}},
        {R"({"name":"sda","type":"disk","tran":"usb","rm":true,"mountpoint":"/boot/efi"})", {}},
        {R"({"name":"sda","type":"disk","tran":"usb","children":[{"name":"sda1","mountpoint":"[SWAP]"}]})", {}},
        {R"({"name":"sda","type":"disk","tran":"usb","children":[{"name":"sda3","type":"part"}]})", {"sda3"}},
        {R"({"name":"sda","type":"disk","tran":"usb","children":[{"name":"sda2","children":
            [{"name":"vg-root","kname":"dm-0","type":"lvm"}]}]})", {"dm-0"}},
        {R"({"name":"sda","type":"disk","tran":"usb"},{"name":"sda1","type":"part","pkname":"sda"},
            {"name":"luks","kname":"dm-1","type":"crypt","pkname":"sda1","mountpoints":["/home"]})", {}},
        {R"({"name":"sda","kname":"sda","type":"disk","tran":"usb"})", {"sda"}},
        {R"({"name":"sda","type":"disk","tran":"usb","rm":true,"children":
            [{"name":"sda1","mountpoints":["/data"]}]})", {}},
        {R"({"name":"sda","type":"disk","tran":"usb"},{"name":"sda1","type":"part","pkname":"sda",
            "mountpoint":"/media"})", {}},
        {R"({"name":"mmcblk0","type":"disk","tran":"mmc","children":
            [{"name":"mmcblk0p2","mountpoint":"/boot/firmware"}]})", {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(lsblk::parseDrives(devices((QByteArray(c.sda) + "," + stick).constData()), c.system),
                  Drives({{"sdb", "USB drive", 8}})) << c.sda;

    // Nesting too deep to be real holds the disk back instead of skipping what lies below.
    QByteArray deep = R"({"name":"sda","type":"disk","tran":"usb","children":[)";
    for (int i = 0; i < 40; ++i) deep += R"({"name":"p","children":[)";
    deep += R"({"name":"x","mountpoint":"/"})" + QByteArray(40, ']').replace("]", "]}") + "]}," + stick;
    EXPECT_EQ(lsblk::parseDrives(devices(deep.constData()), {}), Drives({{"sdb", "USB drive", 8}}));
}

TEST(LsblkParser, ColumnFormsAcrossVersions) {
    const struct { const char* dev; Drives want; } cases[] = {
        {R"({"name":"sdb","type":"disk","rm":"1","size":"4096"})", {{"sdb", "USB drive", 4096}}},  // no TRAN column
        {R"({"name":"sdb","type":"disk","rm":"0","hotplug":true,"size":4096})", {{"sdb", "USB drive", 4096}}},
        {R"({"name":"sdb","type":"disk","rm":false})", {}},
        {R"({"name":"sdb","type":"disk","rm":true,"tran":"sata"})", {}},
        {R"({"name":"mmcblk0","type":"disk","rm":false,"tran":"mmc","model":"SD"})", {{"mmcblk0", "SD", 0}}},
        {R"({"name":"mmcblk1","type":"disk","rm":false,"hotplug":"1","tran":null})", {{"mmcblk1", "USB drive", 0}}},
        {R"({"name":"mmcblk0","type":"disk","rm":false,"tran":null})", {}},
        {R"({"name":"mmcblk0boot0","type":"disk","rm":true,"tran":"mmc"})", {}},
        {R"({"name":"loop0","type":"loop","tran":"usb"},{"name":"zram0","type":"disk","tran":"usb"},
            {"name":"sr0","type":"rom","tran":"usb"},{"name":"md0","type":"disk","tran":"usb"})", {}},
        {R"({"name":"x","kname":"../sda","type":"disk","tran":"usb"},{"name":"-x","type":"disk","tran":"usb"})", {}},
        {R"({"name":"sdb","type":"disk","tran":"usb"},{"name":"sdb","type":"disk","tran":"usb","model":"2nd"})",
         {{"sdb", "USB drive", 0}}},
        {R"({"name":"sdb","type":"disk","tran":"USB","model":"\\x20\tCruzer\\x20Fit\t \n"})",
         {{"sdb", "Cruzer Fit\t \n", 0}}},
        {R"({"name":"sdb","type":"disk","tran":"usb","model":" \t","vendor":"Argon   "})", {{"sdb", "Argon", 0}}},
        {R"({"name":"sdb","type":"disk","tran":"usb","children":[{"name":"sdb1","mountpoints":["/run/media/me/DECK"]},
            {"name":"sdb2","mountpoint":"/media/me/x"}]})", {{"sdb", "USB drive", 0}}},
    };
    for (const auto& c : cases) EXPECT_EQ(lsblk::parseDrives(devices(c.dev), {}), c.want) << c.dev;
    const QByteArray withBom = "\xEF\xBB\xBF" + devices(R"({"name":"sdb","type":"disk","tran":"usb"})");
    EXPECT_EQ(lsblk::parseDrives(withBom, {}).size(), 1);

    // Sizes: only whole non-negative byte counts are sizes; anything else reads as empty.
    const struct { const char* size; quint64 want; } sizes[] = {
        {"9007199254740993", 9007199254740993ull}, {"18446744073709549568", 18446744073709549568ull},
        {"\"18446744073709551615\"", 18446744073709551615ull},
        {"\"18446744073709551616\"", 0}, {"\"465.8G\"", 0}, {"-5", 0}, {"2.5", 0}, {"1e300", 0},
        {"\"-1\"", 0}, {"[1]", 0}, {"null", 0}};
    for (const auto& s : sizes) {
        const QByteArray dev = QByteArray(R"({"name":"sdb","type":"disk","tran":"usb","size":)") + s.size + "}";
        EXPECT_EQ(lsblk::parseDrives(devices(dev.constData()), {}).value(0).size, s.want) << s.size;
    }

    for (const char* junk : {"", "[]", "{\"blockdevices\":{}}", "{\"blockdevices\":[1,\"a\",null,[]]}",
                             "{\"blockdevices\":[{\"name\":\"sd\xff\xfe\",\"type\":\"disk\",\"tran\":\"usb\"}]}"})
        EXPECT_TRUE(lsblk::parseDrives(junk, {}).isEmpty()) << junk;
}

TEST(LsblkParser, ProcMountinfoAndSwaps) {
    const auto mounts = lsblk::parseMountinfo(
        "25 1 8:2 / / rw,relatime shared:1 master:2 - ext4 /dev/sda2 rw\n"
        "30 25 0:40 / /media/my\\040stick rw - vfat /dev/sdb1 rw\nshort line\n");
    ASSERT_EQ(mounts.size(), 2);
    EXPECT_EQ(mounts[0].majorMinor, "8:2");
    EXPECT_EQ(mounts[0].source, "/dev/sda2");
    EXPECT_EQ(mounts[1].mountPoint, "/media/my stick");
    EXPECT_EQ(lsblk::parseSwaps("Filename\tType\tSize\tUsed\tPriority\n/dev/sda3  partition\t8 0 -2\n"
                                "/swap\\040file file 1 0 -3\n"),
              QStringList({"/dev/sda3", "/swap file"}));
}

TEST(DiskutilParser, RecordedOutputs) {
    const QStringList disk2{"disk2"}, three{"disk0", "disk1", "disk2"};
    const struct { const char* file; QStringList want; } lists[] = {
        {"list-external-usb-stick-superfloppy.plist", disk2},
        {"list-external-usb-ide-adapter-ssd-mbr-fat32.plist", disk2},
        {"list-external-usb-stick-mbr-fat32.plist", disk2}, {"list-all-apfs-mac-plus-usb-stick.plist", three},
        {"list-all-corestorage-mac-plus-external-ntfs-hdd.plist", three}};
    for (const auto& l : lists) EXPECT_EQ(diskutil::wholeDisks(fixture(QStringLiteral("diskutil/") + l.file)), l.want);

    const USBDrive cruzer{"disk2", "Cruzer Fit", 15682240512};
    const struct { const char* file; std::optional<USBDrive> want; } infos[] = {
        {"info-builtin-sd-reader-old-mac-no-size-key.plist", std::nullopt},  // Internal true
        {"info-internal-macintosh-hd-corestorage.plist", std::nullopt},
        {"info-internal-nvme-intel-ssd-disk0.plist", std::nullopt},
        {"info-usb-stick-sandisk-cruzer-fit-superfloppy-fat32.plist", cruzer},  // Size, not the volume's TotalSize
        {"info-usb-stick-sandisk-cruzer-fit-mbr-unmounted.plist", cruzer},
        {"info-usb-ide-adapter-samsung-msata-ssd.plist", USBDrive{"disk2", "SSD PM830 mSATA", 128035676160}}};
    for (const auto& i : infos) {
        const QByteArray xml = fixture(QStringLiteral("diskutil/") + i.file);
        EXPECT_EQ(diskutil::driveFromInfo("disk2", xml), i.want) << i.file;
        for (qsizetype n = 0; n < xml.size(); n += 11) diskutil::driveFromInfo("disk2", xml.left(n));
    }
}

TEST(DiskutilParser, FallbacksAndHostileValues) {
    const QByteArray reader = fixture("diskutil/info-builtin-sd-reader-old-mac-no-size-key.plist");
    // Size 15682240512 here is the device, TotalSize 15665463296 only its volume.
    const QByteArray stick = fixture("diskutil/info-usb-stick-sandisk-cruzer-fit-superfloppy-fat32.plist");
    const USBDrive total{"disk2", "Cruzer Fit", 15665463296};
    const auto edit = [](QByteArray x, const char* from, const char* to) { return x.replace(from, to); };
    const QByteArray external = edit(reader, "<true/>", "<false/>");
    const QByteArray noSize = edit(stick, "<key>Size</key>", "<key>S</key>");
    const QByteArray noSizes = edit(noSize, "<key>TotalSize</key>", "<key>T</key>");
    const auto sized = [&](const char* v) {
        const QByteArray to = QByteArray("<key>Size</key>") + v;
        return edit(stick, "<key>Size</key>\n\t<integer>15682240512</integer>", to.constData());
    };
    const QByteArray noMedia = edit(stick, "<key>MediaName</key>", "<key>M</key>");
    const auto media = [&](const char* v) { return edit(stick, "<string>Cruzer Fit</string>", v); };
    const struct { QByteArray info; std::optional<USBDrive> want; } cases[] = {
        {external, USBDrive{"disk2", "APPLE SD Card Reader Media", 3980394496}},  // TotalSize fallback
        {edit(reader, "<true/>", "<string>true</string>"), USBDrive{"disk2", "APPLE SD Card Reader Media", 3980394496}},
        {noSizes, USBDrive{"disk2", "Cruzer Fit", 0}},
        {noSize, total},
        {sized("<real>4096.9</real>"), USBDrive{"disk2", "Cruzer Fit", 4096}},
        {sized("<integer>-1</integer>"), total},
        {sized("<integer>18446744073709551615</integer>"), total},
        {sized("<string>8</string>"), total},
        {noMedia, USBDrive{"disk2", "SanDisk' Cruzer Fit Media", 15682240512}},
        {edit(noMedia, "<key>IORegistryEntryName</key>", "<key>I</key>"), USBDrive{"disk2", "USB drive", 15682240512}},
        {media("<integer>7</integer>"), USBDrive{"disk2", "SanDisk' Cruzer Fit Media", 15682240512}},
        {media("<string> \tCruzer Fit\n\t </string>"), USBDrive{"disk2", "Cruzer Fit\n", 15682240512}},
        {media("<string> \t</string>"), USBDrive{"disk2", "", 15682240512}},
        {"<plist><array/></plist>", std::nullopt}, {"", std::nullopt}, {"\xff\xfe<dict>", std::nullopt},
        {QByteArray(20000, '<'), std::nullopt},
        // Nesting the parser would recurse through until the stack runs out.
        {"<plist><dict><key>a</key>" + QByteArray("<array>").repeated(200000), std::nullopt},
        {nestedBinary(3), USBDrive{"disk2", "USB drive", 7}}, {nestedBinary(200000), std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(diskutil::driveFromInfo("disk2", c.info), c.want) << c.info.left(300).toStdString();
    EXPECT_EQ(diskutil::driveFromInfo("../disk2", stick), std::nullopt);

    for (const char* junk : {"<plist><dict><key>WholeDisks</key><string>disk2</string></dict></plist>",
                             "<plist><array><string>disk2</string></array></plist>", "bplist00\xd1\x01"})
        EXPECT_TRUE(diskutil::wholeDisks(junk).isEmpty()) << junk;
    EXPECT_EQ(diskutil::wholeDisks("<plist><dict><key>WholeDisks</key><array><integer>2</integer><string>-rf</string>"
                                   "<string>a/b</string><string>disk5</string><dict/></array></dict></plist>"),
              QStringList{"disk5"});
}

TEST(DiskScanner, DriveLineFormatting) {
    EXPECT_EQ(driveLine({"sdb", "Cruzer Fit", 16000000000}), "Cruzer Fit  (14.9 GB)   [sdb]");
    EXPECT_EQ(driveLine({"disk4", "%2 %1", 0}), "%2 %1  (0.0 GB)   [disk4]");
}

TEST(DiskScanner, ThisMachineListsOnlyPlainDevices) {
    const auto scanner = DiskScanner::platform();
    for (const USBDrive& d : scanner->externalDrives())
        EXPECT_TRUE(lsblk::isSafeDeviceName(d.id)) << d.id.toStdString();
    EXPECT_EQ(scanner->wholeDiskPath("sdb"), "/dev/sdb");
    EXPECT_FALSE(scanner->unmountDisk("/dev/../etc"));
}

}  // namespace
