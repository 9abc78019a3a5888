// The history log parser on arbitrary bytes, the document name and the refs file as well, then
// every read the log leads to and one restore. The drive holds links to a secret file beside it,
// and a FIFO; nothing read may contain the secret, nothing outside the drive's own folders may
// change, and a restore that succeeds must read back as one more saved point.
// Input: the whole input is the log of a document called "doc"; or, when it holds NUL bytes,
// a flags byte, the name, NUL, the refs file, NUL, the log.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "qm_core_internal.h"

namespace {

namespace fs = std::filesystem;
const std::string kSecret = "QM-FUZZ-SECRET-7d1c4b";
enum Flags { kDocLink = 1, kRefsLink = 2, kVersionLink = 4, kLogLink = 8, kFolderLink = 16 };

struct Input {
    unsigned flags = 0;
    std::string name = "doc", refs, log;
};

Input parse(const uint8_t* data, size_t size) {
    Input in;
    std::string all(reinterpret_cast<const char*>(data), size);
    size_t a = size > 1 ? all.find('\0', 1) : std::string::npos;
    if (a == std::string::npos) {
        in.log = all;
        return in;
    }
    size_t b = all.find('\0', a + 1);
    in.flags = uint8_t(all[0]);
    in.name = all.substr(1, a - 1);
    in.refs = b == std::string::npos ? "" : all.substr(a + 1, b - a - 1);
    in.log = all.substr(b == std::string::npos ? a + 1 : b + 1);
    return in;
}

const fs::path& base() {
    static const fs::path dir = fuzz_folder("history");
    return dir;
}

void put(const fs::path& path, const std::string& data) { put_file(path, data.data(), data.size()); }

std::string get(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

bool refused_by_contract(const std::string& name) {
    for (unsigned char c : name)
        if (c < 0x20 || c == 0x7F || c == '\\') return true;
    return false;
}

// A fresh drive beside the secret: the document, its history folder with the log, refs, a
// version file, a link to the secret and a FIFO. False when the name cannot be laid out.
bool make_drive(const Input& in, const fs::path& root) {
    std::error_code ec;
    fs::remove_all(base(), ec);
    fs::create_directories(root / ".qmv");
    fs::create_directories(base() / "elsewhere");
    put(base() / "secret", kSecret);
    put(base() / "elsewhere/history.log", in.log);
    if (in.name.empty() || in.name[0] == '.' || in.name.find('/') != std::string::npos || in.name.size() > 64)
        return false;
    fs::path folder = root / ".qmv" / in.name;
    if (in.flags & kFolderLink) {
        fs::create_directory_symlink(base() / "elsewhere", folder, ec);
        return !ec;
    }
    fs::create_directory(folder);
    auto link_or_put = [&](const fs::path& p, bool link, const std::string& text) {
        if (link) fs::create_symlink(base() / "secret", p);
        else put(p, text);
    };
    link_or_put(root / in.name, in.flags & kDocLink, "current\n");
    link_or_put(folder / "refs", in.flags & kRefsLink, in.refs);
    link_or_put(folder / "v1.txt", in.flags & kVersionLink, "one\n");
    if (in.flags & kLogLink) fs::create_symlink(base() / "elsewhere/history.log", folder / "history.log");
    else put(folder / "history.log", in.log);
    fs::create_symlink(base() / "secret", folder / "secret.txt");
    if (mkfifo((folder / "fifo").c_str(), 0600) != 0) std::abort();
    return true;
}

// A read's text, checked never to hold the secret; rc < 0 gives "".
std::string checked(int32_t rc, const std::vector<uint8_t>& buf) {
    if (rc < 0) return "";
    std::string text(reinterpret_cast<const char*>(buf.data()), std::min<size_t>(size_t(rc), buf.size() - 1));
    if (text.find(kSecret) != std::string::npos) std::abort();
    return text;
}

void check_nothing_else_changed(const fs::path& root, const std::string& name) {
    if (get(base() / "secret") != kSecret || fs::is_symlink(base() / "secret")) std::abort();
    for (const auto& e : fs::directory_iterator(root))
        if (e.path().filename() != ".qmv" && e.path().filename() != name) std::abort();
    for (const auto& e : fs::directory_iterator(root / ".qmv"))
        if (e.path().filename() != name) std::abort();
}

void check_restore(const fs::path& root, const Input& in, qm_history* h) {
    int32_t n = qm_history_count(h), max_id = INT32_MIN;
    std::vector<uint8_t> buf(4096);
    qm_version_entry e;
    for (int32_t i = 0; i < n; ++i)
        if (qm_history_get(h, i, &e) == 0 && e.id > max_id) max_id = e.id;
    qm_history_get(h, 0, &e);
    std::string restored = checked(qm_version_read(h, e.id, buf.data(), int32_t(buf.size())), buf);
    int32_t rc = qm_qmv_revert(h, e.id, "2025-03-03 14:05:09");
    check_nothing_else_changed(root, in.name);
    if (rc != 0) return;
    int32_t err = 0;
    qm_history* again = qm_history_open(root.c_str(), in.name.c_str(), &err);
    if (!again || qm_history_count(again) != n + 1) std::abort();
    qm_version_entry added;
    qm_history_get(again, n, &added);
    if (added.id != (max_id < 0 ? 0 : max_id) + 1 || added.kind != 't' || added.parent != max_id) std::abort();
    check(checked(qm_version_read(again, added.id, buf.data(), int32_t(buf.size())), buf) == restored);
    check(checked(qm_doc_read(root.c_str(), in.name.c_str(), buf.data(), int32_t(buf.size())), buf) == restored);
    qm_history_close(again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in = parse(data, size);
    const fs::path root = base() / "drive";
    bool laid_out = make_drive(in, root);

    int32_t err = 0;
    qm_history* h = qm_history_open(root.c_str(), in.name.c_str(), &err);
    if (laid_out && refused_by_contract(in.name) && (h || err != QM_EARG)) std::abort();
    if (h && (in.flags & (kLogLink | kFolderLink))) std::abort();  // a log reached through a link
    std::vector<uint8_t> buf(64);
    checked(qm_doc_read(root.c_str(), in.name.c_str(), buf.data(), int32_t(buf.size())), buf);
    std::vector<char> list(4096);
    if (qm_qmv_docs(root.c_str(), list.data(), int32_t(list.size())) > 1) std::abort();
    if (!h) return 0;
    int32_t n = qm_history_count(h);
    for (int32_t i = 0; i < n; ++i) {
        qm_version_entry e;
        if (qm_history_get(h, i, &e) != 0 || e.hash != 0 || std::strlen(e.branch) > 31 || std::strlen(e.file) > 63 ||
            std::strlen(e.when) > 23 || std::strlen(e.tag) > 63)
            std::abort();
        int32_t rc = qm_version_read(h, e.id, buf.data(), int32_t(buf.size()));
        if (rc >= 0 && std::strlen(reinterpret_cast<char*>(buf.data())) >= buf.size()) std::abort();
        checked(rc, buf);
    }
    if (n > 0) check_restore(root, in, h);
    qm_history_close(h);
    return 0;
}
