#include "platform/LoginItem.h"

#include "Fixture.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace sd {
namespace {

TEST(LoginItem, AnAutostartEntryThatDesktopsAcceptComesAndGoes) {
    const std::string entry = platform::loginItemLocation();
    EXPECT_EQ(entry, test::fixtureHome() +
                         "/.config/autostart/org.sparrowdeck.Sparrowdeck.Companion.desktop");
    EXPECT_FALSE(platform::companionStartsAtLogin()) << "off unless turned on";
    for (const std::string program : {"/usr/bin/sparrowdeck-app", "/opt/My Apps/sparrowdeck-app"}) {
        SCOPED_TRACE(program);
        platform::setCompanionStartsAtLogin(true, program);
        EXPECT_TRUE(platform::companionStartsAtLogin());
        std::ifstream in(entry);
        std::stringstream text;
        text << in.rdbuf();
        std::string quoted =
            program.find(' ') == std::string::npos ? program : "\"" + program + "\"";
        EXPECT_NE(text.str().find("\nExec=" + quoted + " --tray\n"), std::string::npos)
            << text.str();
        if (test::haveTool("desktop-file-validate")) {
            test::CommandResult check =
                test::runShell("desktop-file-validate " + test::shellQuote(entry) + " 2>&1");
            EXPECT_EQ(check.status, 0) << check.output;
        }
    }
    platform::setCompanionStartsAtLogin(false, "");
    EXPECT_FALSE(platform::companionStartsAtLogin());
    platform::setCompanionStartsAtLogin(false, ""); // already off: nothing to do, no error
}

} // namespace
} // namespace sd
