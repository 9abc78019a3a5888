// The public page as a real browser renders it: headless Chromium loads it from the test service.
#include <unistd.h>

#include <cstdio>

#include "profile_page.h"
#include "service_fixture.h"

namespace {

std::string chromium_path() {
    for (const char* p : {"/usr/bin/chromium", "/usr/bin/chromium-browser", "/usr/bin/google-chrome"})
        if (access(p, X_OK) == 0) return p;
    return "";
}

std::string run(const std::string& cmd) {
    std::string out;
    FILE* f = popen(cmd.c_str(), "r");
    if (!f) return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    pclose(f);
    return out;
}

using PageInBrowser = ServiceFixture;

TEST_F(PageInBrowser, ShowsThePublishedTotalsAndTheHeatMap) {
    std::string browser = chromium_path();
    if (browser.empty()) GTEST_SKIP() << "SKIPPED: Chromium is not installed (Debian package chromium)";
    DeckDrive drive;
    std::string token = sign_in("owner@example.org");
    ASSERT_EQ(register_drive(drive, token).status, 200);
    ASSERT_EQ(publish(drive, token, drive.export_json()).status, 200);

    // No sandbox: test machines often run as root, where Chromium refuses to start with one.
    std::string dom = run(browser + " --headless --no-sandbox --disable-gpu --no-first-run --user-data-dir=" +
                          (dir_ / "chromium") + " --dump-dom " + base_ + "/d/" + drive.id() + " 2>/dev/null");
    ASSERT_NE(dom.find("Writing statistics"), std::string::npos) << dom.substr(0, 400);
    qm_summary s = drive.summary();
    EXPECT_NE(dom.find("<td>" + grouped(s.words) + "</td>"), std::string::npos);
    EXPECT_NE(dom.find("<td>" + duration_text(s.write_secs) + "</td>"), std::string::npos);
    EXPECT_NE(dom.find("<svg"), std::string::npos);
    EXPECT_NE(dom.find("<rect"), std::string::npos);
}

}  // namespace
