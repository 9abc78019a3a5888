// qm-release as a developer runs it: the key pair, the archive of a bundle read back entry by
// entry, a description the service's feed accepts, and refusals that leave nothing half written.
// (That the app verifies what it signs, and nothing signed for another release, is tested with
// the updater.)
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <map>

#include "json.h"
#include "release_feed.h"
#include "temp_dir.h"

namespace {

struct Ran {
    int status;
    std::string out, err;
};

unsigned mode_of(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? unsigned(st.st_mode & 07777) : 0u;
}

std::vector<std::string> listing(const std::string& dir) {
    std::vector<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

struct Item {
    char type;  // 'd', 'f' or 'l'
    unsigned perm;
    std::string data;  // a file's contents or a link's target
    bool operator==(const Item&) const = default;
    friend std::ostream& operator<<(std::ostream& o, const Item& i) {
        return o << i.type << std::oct << i.perm << " " << i.data.size();
    }
};

std::map<std::string, Item> read_zip(const std::string& path) {
    std::map<std::string, Item> items;
    setlocale(LC_CTYPE, "C.UTF-8");  // names are UTF-8 in the archive; the C locale cannot hold them
    std::unique_ptr<archive, int (*)(archive*)> a(archive_read_new(), archive_read_free);
    archive_read_support_format_zip(a.get());
    EXPECT_EQ(archive_read_open_filename(a.get(), path.c_str(), 64 * 1024), ARCHIVE_OK) << path;
    archive_entry* e;
    while (archive_read_next_header(a.get(), &e) == ARCHIVE_OK) {
        std::string name = archive_entry_pathname_utf8(e);
        if (name.back() == '/') name.pop_back();
        Item item{'f', unsigned(archive_entry_perm(e)), ""};
        if (archive_entry_filetype(e) == AE_IFDIR) item.type = 'd';
        if (archive_entry_filetype(e) == AE_IFLNK) item = {'l', 0, archive_entry_symlink_utf8(e)};
        char buf[64 * 1024];
        for (la_ssize_t n; item.type == 'f' && (n = archive_read_data(a.get(), buf, sizeof buf)) > 0;)
            item.data.append(buf, size_t(n));
        items[name] = item;
    }
    return items;
}

class QmRelease : public ::testing::Test {
protected:
    // Runs the tool in the work folder; args are shell words.
    Ran run(const std::string& args) {
        std::string cmd = "cd '" + work_.path() + "' && '" QM_RELEASE_PATH "' " + args + " >'" + (logs_ / "out") +
                          "' 2>'" + (logs_ / "err") + "'";
        int s = std::system(cmd.c_str());
        return Ran{WIFEXITED(s) ? WEXITSTATUS(s) : -1, slurp(logs_ / "out"), slurp(logs_ / "err")};
    }
    std::string at(const std::string& rel) const { return work_ / rel; }

    // A bundle as the packaging installs it (under a umask that lets the group write), with the
    // modes the archive must keep.
    void make_bundle(const std::string& app = "Quillmate Flasher.app") {
        std::string b = at(app);
        spit(b + "/bin/quillmate-flasher", "#!/bin/sh\n");
        spit(b + "/bundle.json", "{\"version\":\"1.4.0\",\"update_public_key\":\"" + std::string(64, 'c') + "\"}");
        spit(b + "/lib/libqm.so.1", std::string(1024 * 1024, '\0'));
        spit(b + "/share/\xc3\x9c" "bersicht.txt", "\xc3\xbc");
        std::filesystem::create_directories(b + "/share/empty");
        ASSERT_EQ(symlink("libqm.so.1", (b + "/lib/libqm.so").c_str()), 0);
        ASSERT_EQ(symlink("../lib", (b + "/share/current").c_str()), 0);
        for (auto [rel, mode] : {std::pair{"", 0755}, {"/bin", 0755}, {"/bin/quillmate-flasher", 0755},
                                 {"/bundle.json", 0664}, {"/lib", 0755}, {"/lib/libqm.so.1", 0600}, {"/share", 0775},
                                 {"/share/empty", 0700}, {"/share/\xc3\x9c" "bersicht.txt", 0644}})
            ASSERT_EQ(chmod((b + rel).c_str(), mode_t(mode)), 0) << rel;
    }

    TempDir work_, logs_;
};

TEST_F(QmRelease, KeygenWritesAPrivateKeyWithItsPublicHalfAndNeverReplacesEither) {
    mode_t old = umask(0);  // the key's mode must not depend on the user's umask
    Ran r = run("keygen --out k");
    umask(old);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "k.key\nk.pub\n");
    EXPECT_EQ(mode_of(at("k.key")), 0600u);
    // That the public half verifies what the private one signs is the updater tests' good path.
    const std::string secret = slurp(at("k.key"));

    Ran again = run("keygen --out k");
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("qm-release: cannot create k.key: it exists already"), std::string::npos) << again.err;
    EXPECT_EQ(slurp(at("k.key")), secret);
    spit(at("j.pub"), "someone else's\n");
    EXPECT_EQ(run("keygen --out j").status, 1);
    EXPECT_EQ(mode_of(at("j.key")), 0u) << "a key written beside another key's public half";
}

// Modes travel without write access for group or others; the output folder is made as needed.
TEST_F(QmRelease, PackKeepsTheBundleItsModesAndTheLinksInsideIt) {
    make_bundle();
    Ran r = run("pack 'Quillmate Flasher.app/' --out out/new/");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "out/new/QuillmateFlasher-1.4.0.zip\n");
    EXPECT_EQ(listing(at("out/new")), std::vector<std::string>{"QuillmateFlasher-1.4.0.zip"});
    EXPECT_EQ(run("pack 'Quillmate Flasher.app' --out 'Quillmate Flasher.app/out'").status, 1);
    EXPECT_FALSE(std::filesystem::exists(at("Quillmate Flasher.app/out"))) << "a folder made inside the bundle";

    const std::string top = "Quillmate Flasher.app";
    std::map<std::string, Item> expected = {
        {top, {'d', 0755, ""}},
        {top + "/bin", {'d', 0755, ""}},
        {top + "/bin/quillmate-flasher", {'f', 0755, "#!/bin/sh\n"}},
        {top + "/bundle.json", {'f', 0644, slurp(at(top + "/bundle.json"))}},
        {top + "/lib", {'d', 0755, ""}},
        {top + "/lib/libqm.so", {'l', 0, "libqm.so.1"}},
        {top + "/lib/libqm.so.1", {'f', 0600, std::string(1024 * 1024, '\0')}},
        {top + "/share", {'d', 0755, ""}},
        {top + "/share/current", {'l', 0, "../lib"}},
        {top + "/share/empty", {'d', 0700, ""}},
        {top + "/share/\xc3\x9c" "bersicht.txt", {'f', 0644, "\xc3\xbc"}},
    };
    EXPECT_EQ(read_zip(at("out/new/QuillmateFlasher-1.4.0.zip")), expected);
    EXPECT_LT(std::filesystem::file_size(at("out/new/QuillmateFlasher-1.4.0.zip")), 64u * 1024) << "not compressed";
}

TEST_F(QmRelease, PackRefusesWhatCannotShipAndLeavesNoArchive) {
    const std::string b = "Quillmate Flasher.app";
    struct Case {
        const char* what;
        std::function<void()> spoil;
        std::string said;
    } cases[] = {
        {"absolute link", [&] { symlink("/etc/passwd", at(b + "/bin/passwd").c_str()); }, "points outside the bundle"},
        {"link out", [&] { symlink("../../elsewhere", at(b + "/bin/x").c_str()); }, "points outside the bundle"},
        // Lexically inside; through the link "here" it ends above the bundle.
        {"link out through a link",
         [&] { symlink(".", at(b + "/here").c_str()), symlink("../here/..", at(b + "/bin/up").c_str()); },
         "points outside the bundle"},
        {"dangling link", [&] { symlink("nothing", at(b + "/bin/y").c_str()); }, "points to nothing"},
        {"fifo", [&] { mkfifo(at(b + "/bin/pipe").c_str(), 0644); }, "neither a file, a folder nor a link"},
        {"no version", [&] { spit(at(b + "/bundle.json"), "{\"update_public_key\":\"\"}"); },
         "no text field \"version\""},
        {"version with a slash", [&] { spit(at(b + "/bundle.json"), "{\"version\":\"../1\"}"); },
         "the version \"../1\""},
        {"no bundle.json", [&] { unlink(at(b + "/bundle.json").c_str()); }, "cannot read"},
        {"not a bundle", [&] { std::filesystem::rename(at(b), at("Quillmate Flasher")); }, "is not an app bundle"},
    };
    for (const Case& c : cases) {
        std::filesystem::remove_all(at(b));
        std::filesystem::remove_all(at("Quillmate Flasher"));
        std::filesystem::remove_all(at("out"));
        std::filesystem::create_directories(at("out"));
        make_bundle();
        c.spoil();
        Ran r = run("pack '" + std::string(std::filesystem::exists(at(b)) ? b : "Quillmate Flasher") + "' --out out");
        EXPECT_EQ(r.status, 1) << c.what;
        EXPECT_EQ(r.err.rfind("qm-release: ", 0), 0u) << c.what << ": " << r.err;
        EXPECT_NE(r.err.find(c.said), std::string::npos) << c.what << ": " << r.err;
        EXPECT_EQ(listing(at("out")), std::vector<std::string>{}) << c.what;
    }
}

// The hash, size and signature are checked where the app downloads what this signs.
TEST_F(QmRelease, SignWritesADescriptionTheFeedServes) {
    ASSERT_EQ(run("keygen --out k").status, 0);
    spit(at("QuillmateFlasher-2.0.0.zip"), "zip");
    const std::string notes = "Fixed \"Install\" \\ stalls.\nNew: \xc3\x9c" "bersicht \xe2\x9c\x93\ttab\x01";
    spit(at("notes.txt"), notes);
    const std::string url = " --url https://example.org/releases/QuillmateFlasher-2.0.0.zip";
    Ran r = run("sign --key k.key --archive QuillmateFlasher-2.0.0.zip --platform macos --channel beta --notes-file "
                "notes.txt --mandatory" + url);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "./QuillmateFlasher-2.0.0-macos-beta.json\n");

    std::string text = slurp(at("QuillmateFlasher-2.0.0-macos-beta.json"));
    auto doc = json::parse(text);
    ASSERT_TRUE(doc) << text;
    EXPECT_EQ(doc->members.size(), 10u) << text;  // the feed's fields and nothing else
    auto read = read_release(text);
    ASSERT_TRUE(std::holds_alternative<Release>(read)) << std::get<std::string>(read);
    const Release& rel = std::get<Release>(read);
    EXPECT_EQ(rel.version, "2.0.0");
    EXPECT_EQ(rel.notes, notes);
    EXPECT_EQ(rel.filename, "QuillmateFlasher-2.0.0.zip");
    EXPECT_TRUE(rel.mandatory);

    // An archive not named by its version, with the version and the place given.
    std::filesystem::rename(at("QuillmateFlasher-2.0.0.zip"), at("release.zip"));
    ASSERT_EQ(run("sign --key k.key --archive release.zip --platform linux --channel stable --version 2.0.1 "
                  "--out plain.json" + url).status, 0);
    auto plain = json::parse(slurp(at("plain.json")));
    EXPECT_EQ(plain->string_at("version"), "2.0.1");
    EXPECT_EQ(plain->string_at("notes"), "");
    EXPECT_EQ(plain->find("mandatory")->boolean, false);
}

TEST_F(QmRelease, SignRefusesWhatWouldNotMakeAnInstallableRelease) {
    ASSERT_EQ(run("keygen --out k").status, 0);
    spit(at("QuillmateFlasher-2.0.0.zip"), "zip");
    spit(at("release.zip"), "zip");
    spit(at("bad-notes.txt"), "caf\xe9");
    std::filesystem::copy_file(at("k.key"), at("open.key"));
    chmod(at("open.key").c_str(), 0640);
    const std::string zip = "--archive QuillmateFlasher-2.0.0.zip";
    const std::string rest = " --platform macos --channel stable --url https://example.org/r.zip";
    struct Case {
        std::string args;
        int status;
        std::string said;
    } cases[] = {
        {"--key open.key " + zip + rest, 1, "the key open.key is open to group or others (mode 0640)"},
        {"--key missing.key " + zip + rest, 1, "cannot read the key missing.key: "},
        {"--key k.key --archive QuillmateFlasher-9.zip" + rest, 1, "cannot read the archive QuillmateFlasher-9.zip: "},
        {"--key k.key " + zip + " --notes-file bad-notes.txt" + rest, 1, "the notes bad-notes.txt are not valid UTF-8"},
        {"--key k.key --archive release.zip" + rest, 1, "cannot tell the version from the archive's name release.zip"},
        {"--key k.key " + zip + " --platform 'mac\nos' --channel stable --url https://e/r.zip", 1, "the platform"},
        {"--key k.key " + zip + " --platform macos --channel stable", 2, "--url is required\nusage:"},
        {"--key k.key " + zip + " --signed" + rest, 2, "unknown option --signed\nusage:"},
    };
    for (const Case& c : cases) {
        Ran r = run("sign " + c.args);
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_NE(r.err.find("qm-release: " + c.said), std::string::npos) << c.args << "\n" << r.err;
    }
    for (const std::string& name : listing(work_.path()))
        EXPECT_EQ(name.find(".json"), std::string::npos) << name << " written by a refused signing";
}

}  // namespace
