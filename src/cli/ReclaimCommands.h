#pragma once

namespace CLI {
class App;
}

namespace sd::cli {

// `sparrowdeck trash PATH... [--yes] [--json]`: plan, confirm, move through the vault, journal.
void addTrashCommand(CLI::App& app, int& exitStatus);
// `sparrowdeck activity [--json]`: the journal, newest first.
void addActivityCommand(CLI::App& app, int& exitStatus);
// `sparrowdeck put-back ENTRY [--group G] [--json]`.
void addPutBackCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
