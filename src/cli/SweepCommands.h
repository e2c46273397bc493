#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck sweep [--json] [--reclaim KIND... [--yes]] [--leave-out ID] [--bring-back ID]`.
void addSweepCommand(CLI::App& app, int& exitStatus);
// `sparrowdeck clean [TARGET...] [--safe-only] [--yes] [--json]`.
void addCleanCommand(CLI::App& app, int& exitStatus);
// `sparrowdeck catalog [--store] [--json]`.
void addCatalogCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
