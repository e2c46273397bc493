#pragma once

#include <QPushButton>
#include <QWidget>

namespace sd::app {

// The first screen of a first start: what the app does and what it never does.
class OnboardingPage : public QWidget {
    Q_OBJECT

public:
    explicit OnboardingPage(QWidget* parent = nullptr);
    QPushButton* startButton() const noexcept { return start_; }

signals:
    void finished();

private:
    QPushButton* start_;
};

} // namespace sd::app
