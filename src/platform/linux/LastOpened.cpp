#include "platform/LastOpened.h"

#include "base/PercentEncoding.h"
#include "base/UniqueFd.h"
#include "platform/Dirs.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <mutex>
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

std::string xmlUnescape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '&') {
            out.push_back(text[i]);
            continue;
        }
        size_t end = text.find(';', i);
        if (end == std::string_view::npos) {
            out.append(text.substr(i));
            break;
        }
        std::string_view entity = text.substr(i + 1, end - i - 1);
        if (entity == "amp") {
            out.push_back('&');
        } else if (entity == "lt") {
            out.push_back('<');
        } else if (entity == "gt") {
            out.push_back('>');
        } else if (entity == "quot") {
            out.push_back('"');
        } else if (entity == "apos") {
            out.push_back('\'');
        } else if (entity.size() > 1 && entity[0] == '#') {
            // Numeric references name characters a path may hold; only ASCII ones are expected.
            unsigned long code =
                entity[1] == 'x' ? std::strtoul(std::string(entity.substr(2)).c_str(), nullptr, 16)
                                 : std::strtoul(std::string(entity.substr(1)).c_str(), nullptr, 10);
            if (code == 0 || code > 0x7F) {
                return {};
            }
            out.push_back(static_cast<char>(code));
        } else {
            return {};
        }
        i = end;
    }
    return out;
}

// The value of `name="..."` inside one tag's text, unescaped; empty when it is absent.
std::optional<std::string> attribute(std::string_view tag, std::string_view name) {
    size_t at = 0;
    while ((at = tag.find(name, at)) != std::string_view::npos) {
        bool startsWord = at > 0 && (tag[at - 1] == ' ' || tag[at - 1] == '\t' ||
                                     tag[at - 1] == '\n' || tag[at - 1] == '\r');
        size_t eq = at + name.size();
        if (startsWord && eq + 1 < tag.size() && tag[eq] == '=' &&
            (tag[eq + 1] == '"' || tag[eq + 1] == '\'')) {
            char quote = tag[eq + 1];
            size_t close = tag.find(quote, eq + 2);
            if (close == std::string_view::npos) {
                return std::nullopt;
            }
            return xmlUnescape(tag.substr(eq + 2, close - eq - 2));
        }
        at = eq;
    }
    return std::nullopt;
}

// "2024-01-02T10:00:00Z", with or without a fraction of a second, always UTC as GLib writes it.
std::optional<double> parseDate(const std::optional<std::string>& text) {
    if (!text || text->size() < 20) {
        return std::nullopt;
    }
    std::tm parts{};
    const char* rest = ::strptime(text->c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) {
        return std::nullopt;
    }
    double fraction = 0;
    if (*rest == '.') {
        double scale = 0.1;
        for (++rest; *rest >= '0' && *rest <= '9'; ++rest, scale /= 10) {
            fraction += (*rest - '0') * scale;
        }
    }
    if (*rest != 'Z') {
        return std::nullopt;
    }
    return static_cast<double>(::timegm(&parts)) + fraction;
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

using RecordTable = std::unordered_map<std::string, LastOpenedRecord>;

// Every local file the desktop's recently-used list knows, with the latest moment any
// application recorded opening it.
RecordTable loadRecentlyUsed(const std::string& file) {
    RecordTable table;
    std::string text = readWholeFile(file);
    std::string_view xml(text);
    size_t at = 0;
    while ((at = xml.find("<bookmark", at)) != std::string_view::npos) {
        size_t nameEnd = at + 9;
        if (nameEnd >= xml.size() || (xml[nameEnd] != ' ' && xml[nameEnd] != '\t' &&
                                      xml[nameEnd] != '\n' && xml[nameEnd] != '\r')) {
            at = nameEnd; // "<bookmark:…" and the like belong to an entry's body
            continue;
        }
        size_t tagEnd = xml.find('>', nameEnd);
        if (tagEnd == std::string_view::npos) {
            break;
        }
        std::string_view tag = xml.substr(nameEnd, tagEnd - nameEnd);
        size_t bodyEnd = tag.ends_with("/") ? tagEnd : xml.find("</bookmark>", tagEnd);
        if (bodyEnd == std::string_view::npos) {
            bodyEnd = xml.size();
        }
        std::string_view body = xml.substr(tagEnd, bodyEnd - tagEnd);
        at = bodyEnd;

        std::optional<std::string> href = attribute(tag, "href");
        if (!href || !href->starts_with("file://")) {
            continue;
        }
        std::string_view location = std::string_view(*href).substr(7);
        if (location.starts_with("localhost/")) {
            location.remove_prefix(9);
        }
        if (!location.starts_with("/")) {
            continue; // another machine's file
        }
        std::optional<std::string> path = percentDecode(location);
        if (!path) {
            continue;
        }
        LastOpenedRecord record;
        record.indexed = true;
        record.dateAdded = parseDate(attribute(tag, "added"));
        record.lastOpened =
            later(parseDate(attribute(tag, "visited")), parseDate(attribute(tag, "modified")));
        for (size_t app = 0;
             (app = body.find("<bookmark:application", app)) != std::string_view::npos;) {
            size_t appEnd = body.find('>', app);
            if (appEnd == std::string_view::npos) {
                break;
            }
            std::string_view appTag = body.substr(app, appEnd - app);
            record.lastOpened = later(record.lastOpened, parseDate(attribute(appTag, "modified")));
            // Older GTK versions wrote seconds since 1970 instead.
            if (std::optional<std::string> stamp = attribute(appTag, "timestamp")) {
                char* end = nullptr;
                double seconds = std::strtod(stamp->c_str(), &end);
                if (end != stamp->c_str() && seconds >= 1) {
                    record.lastOpened = later(record.lastOpened, seconds);
                }
            }
            app = appEnd;
        }
        auto [slot, fresh] = table.try_emplace(*path, record);
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
    std::string text = readWholeFile(file);
    std::string_view xml(text);
    std::vector<ApplicationUse> uses;
    constexpr std::string_view opening = "<bookmark:application";
    for (size_t at = 0; (at = xml.find(opening, at)) != std::string_view::npos;) {
        size_t end = xml.find('>', at);
        if (end == std::string_view::npos) {
            break;
        }
        std::string_view tag = xml.substr(at + opening.size(), end - at - opening.size());
        at = end;
        std::optional<std::string> name = attribute(tag, "name");
        std::optional<std::string> exec = attribute(tag, "exec");
        std::optional<double> when = parseDate(attribute(tag, "modified"));
        if (std::optional<std::string> stamp = attribute(tag, "timestamp"); stamp && !when) {
            char* stop = nullptr;
            double seconds = std::strtod(stamp->c_str(), &stop);
            if (stop != stamp->c_str() && seconds >= 1) {
                when = seconds;
            }
        }
        if (!name || !when) {
            continue;
        }
        std::string command = exec.value_or("");
        auto same = std::find_if(uses.begin(), uses.end(), [&](const ApplicationUse& use) {
            return use.name == *name && use.exec == command;
        });
        if (same == uses.end()) {
            uses.push_back({*name, command, *when});
        } else {
            same->lastUsed = std::max(same->lastUsed, *when);
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
