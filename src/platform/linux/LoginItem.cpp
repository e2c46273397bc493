#include "platform/LoginItem.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "platform/Dirs.h"

#include <cerrno>
#include <unistd.h>

namespace sd::platform {
namespace {

std::string entryText(const std::string& program) {
    // Exec quotes the program as the desktop entry rules ask when its path holds a blank.
    std::string exec = program.find(' ') == std::string::npos ? program : "\"" + program + "\"";
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Sparrowdeck companion\n"
           "Comment=Watches free space and tells you before the disk fills up\n"
           "Exec=" +
           exec +
           " --tray\n"
           "Icon=org.sparrowdeck.Sparrowdeck\n"
           "Terminal=false\n"
           "NoDisplay=true\n"
           "X-GNOME-Autostart-enabled=true\n";
}

} // namespace

std::string loginItemLocation() {
    return configHome() + "/autostart/org.sparrowdeck.Sparrowdeck.Companion.desktop";
}

bool companionStartsAtLogin() {
    return ::access(loginItemLocation().c_str(), F_OK) == 0;
}

void setCompanionStartsAtLogin(bool on, const std::string& program) {
    const std::string file = loginItemLocation();
    if (on) {
        makeDirectories(file.substr(0, file.rfind('/')), 0700);
        replaceFileAtomically(file, entryText(program));
        return;
    }
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
        throw makeCoreError(operation::removing, file, errno);
    }
}

} // namespace sd::platform
