#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck disk [--json] [--budget SECONDS]`: the whole disk, row by row, with what is left
// unexplained and the system's own commands that give space back.
void addDiskCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
