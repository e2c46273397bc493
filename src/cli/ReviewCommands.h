#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck duplicates [FOLDER] [--json]`: exact copies, the copy to keep marked.
void addDuplicatesCommand(CLI::App& app, int& exitStatus);
// `sparrowdeck large-old [--json] [--older-than DAYS] [--min-size BYTES]`.
void addLargeOldCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
