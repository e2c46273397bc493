#include "AppTestMain.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"

#include <QApplication>
#include <QTest>
#include <cstdlib>

namespace sd::test {
namespace {
std::string root;
std::string home;
} // namespace

const std::string& fixtureRoot() {
    return root;
}
const std::string& fixtureHome() {
    return home;
}

std::vector<std::function<std::unique_ptr<QObject>()>>& appTestClasses() {
    static std::vector<std::function<std::unique_ptr<QObject>()>> classes;
    return classes;
}

const std::vector<FixtureCache>& fixtureCaches() {
    static const std::vector<FixtureCache> caches{
        {"python_tools",
         ".cache/pip",
         {{"http-v2/a/b/c/1f2e3d", 1'400'000},
          {"wheels/ab/cd/numpy-1.26.4-cp311-cp311-linux_x86_64.whl", 2'600'000},
          {"selfcheck.json", 400}}},
        {"javascript_tools",
         ".npm/_cacache",
         {{"content-v2/sha512/ab/cd/ef0123", 1'100'000}, {"index-v5/12/34/abcd", 2'000}}},
        {"rust_go", ".cache/go-build", {{"00/0012ab-d", 800'000}, {"ff/ffee01-a", 300'000}}},
        {"browser_caches",
         ".cache/google-chrome",
         {{"Default/Cache/Cache_Data/data_1", 3'200'000},
          {"Default/Cache/Cache_Data/f_000001", 900'000}}},
        {"browser_caches",
         ".cache/mozilla/firefox/k3x9.default-release/cache2",
         {{"entries/0A1B2C3D", 1'700'000}, {"index", 12'000}}},
        {"ide_caches", ".config/Code/CachedData", {{"1a2b3c/chrome/js/main.code", 2'100'000}}},
        {"ml_framework_caches",
         ".cache/huggingface/hub",
         {{"models--org--tiny-llm/blobs/9f8e7d6c", 5'300'000},
          {"models--org--tiny-llm/refs/main", 41}}},
    };
    return caches;
}

void writeFixtureCaches(const std::string& at) {
    char fill = 'a';
    for (const FixtureCache& c : fixtureCaches()) {
        for (const auto& [file, bytes] : c.files) {
            std::string path = at + "/" + c.folder + "/" + file;
            makeDirs(path.substr(0, path.rfind('/')));
            writeFilledFile(path, bytes, fill);
            fill = fill == 'z' ? 'a' : static_cast<char>(fill + 1);
        }
    }
}

std::string checksums(const std::vector<std::string>& folders) {
    std::string list;
    for (const std::string& f : folders) {
        list += " " + shellQuote(f);
    }
    return runShell("find" + list + " -type f -exec sha256sum {} + 2>/dev/null | sort").output;
}

} // namespace sd::test

int main(int argc, char** argv) {
    // Every test runs against a fixture home in an owned temporary root, never the real one; the
    // core reads these once, so they are set before anything asks.
    sd::test::root = sd::MockRoots::create();
    sd::test::home = sd::test::root + "/home";
    sd::test::makeDirs(sd::test::home);
    ::setenv("SPARROWDECK_HOME", sd::test::home.c_str(), 1);
    ::setenv("XDG_DATA_HOME", (sd::test::home + "/.local/share").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (sd::test::home + "/.config").c_str(), 1);
    if (sd::homeDirectory() != sd::test::home) {
        std::fprintf(stderr, "fixture home was not taken: %s\n", sd::homeDirectory().c_str());
        return 1;
    }
    QApplication app(argc, argv);
    int status = 0;
    for (const auto& make : sd::test::appTestClasses()) {
        std::unique_ptr<QObject> tests = make();
        status |= QTest::qExec(tests.get(), argc, argv);
    }
    try {
        sd::MockRoots::tearDown(sd::test::root);
    } catch (const sd::CleanerError& e) {
        std::fprintf(stderr, "The fixture root could not be removed: %s\n", e.what());
        return 1;
    }
    return status;
}
