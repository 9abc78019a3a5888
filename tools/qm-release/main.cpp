// qm-release: makes the update-signing key, packs an installed app bundle into a release archive
// and signs the archive's description for the account service's release feed.
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "release_tool.h"

namespace {

const char kUsage[] =
    "usage: qm-release keygen --out NAME\n"
    "       qm-release pack BUNDLE.app [--out DIR]\n"
    "       qm-release sign --key NAME.key --archive FILE.zip --platform P --channel C --url URL\n"
    "                       [--version V] [--notes-file F] [--mandatory] [--out FILE.json]\n"
    "       qm-release --help\n"
    "\n"
    "keygen  writes the signing key NAME.key (mode 0600; keep it off shared machines) and NAME.pub,\n"
    "        the 64 hex digits that go into the app's update_public_key. Never replaces a file.\n"
    "pack    zips the bundle folder (which holds bundle.json) into DIR/QuillmateFlasher-VERSION.zip,\n"
    "        VERSION from bundle.json; DIR (made when missing) is the current folder by default. Keeps\n"
    "        permissions, less write access for group and others, and links inside the bundle;\n"
    "        refuses links out of it and anything but files, folders, links.\n"
    "sign    writes the release description the service's --releases folder serves: size, SHA-256\n"
    "        and the Ed25519 signature of the archive for one platform and channel. VERSION comes\n"
    "        from the archive's name unless --version is given; the notes file is UTF-8 text.\n"
    "        By default the description goes beside the archive as FILE-P-C.json.\n"
    "\n"
    "Exit status: 0 done, 1 failed (one line on standard error says why), 2 bad command line.\n";

struct UsageError {
    std::string message;
};

struct CommandLine {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    std::set<std::string> flags;
};

// Options that take a value and options that do not, for one command; anything else is refused.
CommandLine parse(int argc, char** argv, const std::set<std::string>& with_value, const std::set<std::string>& flags) {
    CommandLine c;
    for (int i = 2; i < argc; ++i) {
        std::string s = argv[i];
        if (with_value.count(s)) {
            if (i + 1 >= argc) throw UsageError{s + " needs a value"};
            if (!c.values.emplace(s, argv[++i]).second) throw UsageError{s + " is given twice"};
        } else if (flags.count(s)) {
            c.flags.insert(s);
        } else if (s.size() > 1 && s[0] == '-') {
            throw UsageError{"unknown option " + s};
        } else {
            c.positional.push_back(s);
        }
    }
    return c;
}

std::string required(const CommandLine& c, const std::string& option) {
    auto it = c.values.find(option);
    if (it == c.values.end() || it->second.empty()) throw UsageError{option + " is required"};
    return it->second;
}

std::optional<std::string> optional_value(const CommandLine& c, const std::string& option) {
    auto it = c.values.find(option);
    return it == c.values.end() ? std::nullopt : std::optional<std::string>(it->second);
}

int run(int argc, char** argv) {
    if (argc < 2) throw UsageError{"no command"};
    std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "keygen") {
        CommandLine c = parse(argc, argv, {"--out"}, {});
        if (!c.positional.empty()) throw UsageError{"unexpected argument " + c.positional[0]};
        release::KeyPaths paths = release::keygen(required(c, "--out"));
        std::printf("%s\n%s\n", paths.secret.c_str(), paths.pub.c_str());
        return 0;
    }
    if (command == "pack") {
        CommandLine c = parse(argc, argv, {"--out"}, {});
        if (c.positional.size() != 1) throw UsageError{"pack takes one bundle folder"};
        std::printf("%s\n", release::pack(c.positional[0], optional_value(c, "--out").value_or(".")).c_str());
        return 0;
    }
    if (command == "sign") {
        CommandLine c =
            parse(argc, argv,
                  {"--key", "--archive", "--platform", "--channel", "--url", "--version", "--notes-file", "--out"},
                  {"--mandatory"});
        if (!c.positional.empty()) throw UsageError{"unexpected argument " + c.positional[0]};
        release::SignOptions o;
        o.key = required(c, "--key");
        o.archive = required(c, "--archive");
        o.platform = required(c, "--platform");
        o.channel = required(c, "--channel");
        o.url = required(c, "--url");
        o.version = optional_value(c, "--version");
        o.notes_file = optional_value(c, "--notes-file");
        o.out = optional_value(c, "--out").value_or("");
        o.mandatory = c.flags.count("--mandatory") > 0;
        std::printf("%s\n", release::sign(o).c_str());
        return 0;
    }
    throw UsageError{"unknown command " + command};
}

}  // namespace

int main(int argc, char** argv) {
    if (sodium_init() < 0) {
        std::fprintf(stderr, "qm-release: libsodium could not start\n");
        return 1;
    }
    try {
        return run(argc, argv);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "qm-release: %s\n%s", e.message.c_str(), kUsage);
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qm-release: %s\n", e.what());
        return 1;
    }
}
