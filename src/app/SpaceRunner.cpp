#include "app/SpaceRunner.h"

namespace sd::app {

SpaceRunner::SpaceRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &SpaceRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &SpaceRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &SpaceRunner::runningChanged);
}

void SpaceRunner::scan(std::string root, std::optional<double> budget,
                       std::optional<std::uint64_t> streamMinimumBytes) {
    auto live = std::make_shared<Live>();
    live->progress.set(0, 0, 0, "Starting the scan");
    live_ = live;
    runner_.start<SpaceScanResult>(
        [live, root = std::move(root), budget, streamMinimumBytes](const Cancellation& cancel) {
            // Hears the scan on the worker and keeps what the screen polls.
            class Callback : public SpaceScanCallback {
            public:
                Callback(Live& live, const Cancellation& cancel) : live_(live), cancel_(cancel) {}
                void onProgress(const SpaceProgressEvent& e) override {
                    if (e.kind == SpaceProgressEvent::Kind::bigItem) {
                        std::lock_guard guard(live_.lock);
                        live_.bigItems.push_back({e.path, e.bytes});
                    } else {
                        live_.progress.set(e.fraction, 0, 0, e.text);
                    }
                }
                bool isCancelled() const noexcept override { return cancel_.requested(); }

            private:
                Live& live_;
                const Cancellation& cancel_;
            } callback(*live, cancel);
            SpaceTreeScanner scanner;
            scanner.callback = &callback;
            scanner.budget = budget;
            if (streamMinimumBytes) {
                scanner.streamMinimumBytes = *streamMinimumBytes;
            }
            return scanner.scan(root);
        },
        [this](SpaceScanResult& result) { emit scanned(result); });
}

LiveProgress::Reading SpaceRunner::progress() const {
    return live_->progress.read();
}

std::vector<BigItem> SpaceRunner::takeBigItems() {
    std::lock_guard guard(live_->lock);
    return std::exchange(live_->bigItems, {});
}

} // namespace sd::app
