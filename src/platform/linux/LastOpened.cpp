#include "platform/LastOpened.h"

#include "base/UniqueFd.h"
#include "platform/Dirs.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <sys/statvfs.h>
#include <unistd.h>
#include <unordered_map>

namespace sd::platform {
namespace {

// A file this large is not a list of recently opened files; reading it would only cost memory.
constexpr size_t largestRecord = 64u << 20;

std::string readWholeFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    std::string text;
    if (!fd) {
        return text;
    }
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0 || text.size() + static_cast<size_t>(n) > largestRecord) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

std::optional<double> later(std::optional<double> a, std::optional<double> b) {
    if (!a) {
        return b;
    }
    if (!b) {
        return a;
    }
    return std::max(*a, *b);
}

std::optional<double> secondsOf(GDateTime* moment) {
    if (moment == nullptr) {
        return std::nullopt;
    }
    return static_cast<double>(g_date_time_to_unix(moment)) +
           g_date_time_get_microsecond(moment) / 1e6;
}

// GLib's allocations, released on every path.
struct BookmarkFile {
    GBookmarkFile* file = g_bookmark_file_new();
    ~BookmarkFile() { g_bookmark_file_free(file); }
    BookmarkFile() = default;
    BookmarkFile(const BookmarkFile&) = delete;
    BookmarkFile& operator=(const BookmarkFile&) = delete;
};

struct Strings {
    gchar** list = nullptr;
    ~Strings() { g_strfreev(list); }
};

// The local path a bookmark's URI names, or nothing for another machine's file or a web page.
std::optional<std::string> localPath(const char* uri) {
    gchar* host = nullptr;
    GError* error = nullptr;
    gchar* path = g_filename_from_uri(uri, &host, &error);
    std::optional<std::string> out;
    if (path != nullptr && (host == nullptr || std::string_view(host) == "localhost")) {
        out = path;
    }
    g_free(path);
    g_free(host);
    g_clear_error(&error);
    return out;
}

using RecordTable = std::unordered_map<std::string, LastOpenedRecord>;

// Every local file the desktop's recently-used list knows, with the latest moment any
// application recorded opening it. The list is read by GLib, which writes it for every GTK and
// GNOME application, so whatever it accepts is read as the desktop meant it. A list GLib cannot
// read gives no records, and the search falls back on access times.
RecordTable loadRecentlyUsed(const std::string& file) {
    RecordTable table;
    std::string text = readWholeFile(file);
    if (text.empty()) {
        return table;
    }
    BookmarkFile bookmarks;
    GError* error = nullptr;
    if (!g_bookmark_file_load_from_data(bookmarks.file, text.data(), text.size(), &error)) {
        g_clear_error(&error);
        return table;
    }
    gsize count = 0;
    Strings uris{g_bookmark_file_get_uris(bookmarks.file, &count)};
    table.reserve(count);
    for (gsize i = 0; i < count; ++i) {
        const char* uri = uris.list[i];
        std::optional<std::string> path = localPath(uri);
        if (!path) {
            continue;
        }
        LastOpenedRecord record;
        record.indexed = true;
        record.dateAdded =
            secondsOf(g_bookmark_file_get_added_date_time(bookmarks.file, uri, nullptr));
        record.lastOpened =
            later(secondsOf(g_bookmark_file_get_visited_date_time(bookmarks.file, uri, nullptr)),
                  secondsOf(g_bookmark_file_get_modified_date_time(bookmarks.file, uri, nullptr)));
        gsize apps = 0;
        Strings names{g_bookmark_file_get_applications(bookmarks.file, uri, &apps, nullptr)};
        for (gsize a = 0; a < apps; ++a) {
            GDateTime* stamp = nullptr;
            if (g_bookmark_file_get_application_info(bookmarks.file, uri, names.list[a], nullptr,
                                                     nullptr, &stamp, nullptr)) {
                record.lastOpened = later(record.lastOpened, secondsOf(stamp));
            }
        }
        auto [slot, fresh] = table.try_emplace(std::move(*path), record);
        if (!fresh) {
            slot->second.lastOpened = later(slot->second.lastOpened, record.lastOpened);
            slot->second.dateAdded = later(slot->second.dateAdded, record.dateAdded);
        }
    }
    return table;
}

// Whether a device's mount records reads at all. "noatime" never does; "relatime" records the
// first read after each change, and "strictatime" every read.
class AccessTimeMounts {
public:
    bool keepsAccessTimes(const std::string& path, std::uint64_t device) {
        std::lock_guard guard(lock_);
        if (auto found = known_.find(device); found != known_.end()) {
            return found->second;
        }
        struct statvfs fs {};
        if (::statvfs(path.c_str(), &fs) != 0) {
            return false; // unknown: trust no access time
        }
        bool keeps = (fs.f_flag & ST_NOATIME) == 0;
        known_.emplace(device, keeps);
        return keeps;
    }

private:
    std::mutex lock_;
    std::unordered_map<std::uint64_t, bool> known_;
};

} // namespace

std::vector<ApplicationUse> recentApplicationUses(const std::string& file) {
    std::vector<ApplicationUse> uses;
    std::string text = readWholeFile(file);
    if (text.empty()) {
        return uses;
    }
    BookmarkFile bookmarks;
    GError* error = nullptr;
    if (!g_bookmark_file_load_from_data(bookmarks.file, text.data(), text.size(), &error)) {
        g_clear_error(&error);
        return uses;
    }
    gsize count = 0;
    Strings uris{g_bookmark_file_get_uris(bookmarks.file, &count)};
    for (gsize i = 0; i < count; ++i) {
        const char* uri = uris.list[i];
        gsize apps = 0;
        Strings names{g_bookmark_file_get_applications(bookmarks.file, uri, &apps, nullptr)};
        for (gsize a = 0; a < apps; ++a) {
            gchar* exec = nullptr;
            GDateTime* stamp = nullptr;
            if (!g_bookmark_file_get_application_info(bookmarks.file, uri, names.list[a], &exec,
                                                      nullptr, &stamp, nullptr)) {
                continue;
            }
            std::string command = exec != nullptr ? exec : "";
            g_free(exec);
            std::optional<double> when = secondsOf(stamp);
            if (!when) {
                continue;
            }
            std::string name = names.list[a];
            auto same = std::find_if(uses.begin(), uses.end(), [&](const ApplicationUse& use) {
                return use.name == name && use.exec == command;
            });
            if (same == uses.end()) {
                uses.push_back({name, command, *when});
            } else {
                same->lastUsed = std::max(same->lastUsed, *when);
            }
        }
    }
    return uses;
}

LastOpenedReader systemLastOpenedReader() {
    auto records =
        std::make_shared<const RecordTable>(loadRecentlyUsed(dataHome() + "/recently-used.xbel"));
    auto mounts = std::make_shared<AccessTimeMounts>();
    return [records, mounts](const std::string& path, const FileTimes& times) {
        if (auto found = records->find(path); found != records->end()) {
            return found->second;
        }
        LastOpenedRecord record;
        // An access time later than both change times means someone read the file after its
        // last change: the kernel moved it forward on that read.
        if (times.accessed > times.modified && times.accessed > times.changed &&
            mounts->keepsAccessTimes(path, times.device)) {
            record.lastOpened = times.accessed;
        }
        return record;
    };
}

} // namespace sd::platform
