#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck measure PATH... [--json]`: allocated and freeable bytes of each path.
void addMeasureCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
