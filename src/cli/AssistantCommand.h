#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck assistant status|test|explain PATH|ask QUESTION [--provider claude|codex]
// [--show-facts] [--json]`.
void addAssistantCommand(CLI::App& app, int& exitStatus);

// `sparrowdeck snapshots [--json]` and
// `sparrowdeck snapshots delete STAMP... --acknowledge-irreversible [--json]`.
void addSnapshotsCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
