#include "platform/LoginItem.h"

#include "base/CleanerError.h"

#import <ServiceManagement/ServiceManagement.h>

namespace sd::platform {

std::string loginItemLocation() {
    return "Login Items in System Settings";
}

bool companionStartsAtLogin() {
    return SMAppService.mainAppService.status == SMAppServiceStatusEnabled;
}

void setCompanionStartsAtLogin(bool on, const std::string&) {
    NSError* error = nil;
    BOOL done = on ? [SMAppService.mainAppService registerAndReturnError:&error]
                   : [SMAppService.mainAppService unregisterAndReturnError:&error];
    if (!done) {
        throw CleanerError(CleanerError::Kind::ioError,
                           std::string("The login item could not be changed: ") +
                               error.localizedDescription.UTF8String);
    }
}

} // namespace sd::platform
