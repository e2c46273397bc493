#pragma once

#include "app/Workers.h"
#include "space/SpaceTreeScanner.h"

#include <QObject>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sd::app {

// A big item the scan streamed before it finished.
struct BigItem {
    std::string path;
    std::uint64_t bytes = 0;
};

// The home space-tree scan on a worker thread. Progress and the big items streamed while it runs
// are polled; the finished tree arrives whole.
class SpaceRunner : public QObject {
    Q_OBJECT

public:
    explicit SpaceRunner(QObject* parent = nullptr);

    // Scans `root` with `budget` seconds (the scanner's default when none), streaming items of
    // `streamMinimumBytes` and more (the scanner's default when none) while it runs.
    void scan(std::string root, std::optional<double> budget = std::nullopt,
              std::optional<std::uint64_t> streamMinimumBytes = std::nullopt);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }
    LiveProgress::Reading progress() const;
    // The big items streamed since the last call.
    std::vector<BigItem> takeBigItems();

signals:
    void progressChanged();
    void scanned(const sd::SpaceScanResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    struct Live {
        LiveProgress progress;
        std::mutex lock;
        std::vector<BigItem> bigItems;
    };

    TaskRunner runner_;
    std::shared_ptr<Live> live_ = std::make_shared<Live>();
};

} // namespace sd::app
