#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck apps [--json] [--sort size|used]` and `sparrowdeck apps show ID [--json]`.
void addAppsCommand(CLI::App& app, int& exitStatus);
// `sparrowdeck uninstall ID [--data all|none|PATH...] [--yes] [--json]`.
void addUninstallCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
