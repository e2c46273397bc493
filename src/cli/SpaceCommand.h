#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck space [PATH] [--json] [--budget SECONDS] [--depth N]`: what fills the home folder
// (or a folder in it), as a tree of the biggest folders and files.
void addSpaceCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
