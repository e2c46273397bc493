#include "app/OnboardingPage.h"

#include "app/Widgets.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace sd::app {

OnboardingPage::OnboardingPage(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("page"));
    auto* outer = new QVBoxLayout(this);
    outer->addStretch(1);
    auto* row = new QHBoxLayout;
    row->addStretch(1);
    auto* card = new QFrame;
    card->setObjectName(QStringLiteral("card"));
    card->setMaximumWidth(620);
    auto* layout = new QVBoxLayout(card);
    layout->setContentsMargins(40, 34, 40, 30);
    layout->setSpacing(14);
    auto* title = new QLabel(QStringLiteral("Welcome to Sparrowdeck"));
    title->setObjectName(QStringLiteral("pageTitle"));
    layout->addWidget(title);
    layout->addWidget(paragraph(
        QStringLiteral("Sparrowdeck shows what fills your disk, explains it in plain words, and "
                       "gives space back safely."),
        "pageExplanation"));
    layout->addSpacing(6);

    const char* const promises[][2] = {
        {"It never deletes anything.",
         "What you reclaim is moved to the Trash. Every move is written down in Activity, and "
         "each item can be put back exactly where it was until you empty the Trash yourself."},
        {"Nothing moves until you choose.",
         "Sweeps and measurements only read sizes. Each item is checked again right before it "
         "moves; anything that changed since it was measured stays where it is."},
        {"Your own files are never offered for removal.",
         "Documents, photos, mail, keys, cloud folders and work tracked by Git are shown, never "
         "ticked for you. Show them in Files and decide by hand."},
        {"Nothing leaves this computer.",
         "Sparrowdeck has no network code. Every number it shows is measured on your disk."},
    };
    for (const auto& promise : promises) {
        auto* head = new QLabel(QString::fromUtf8(promise[0]));
        head->setStyleSheet(QStringLiteral("font-weight: 600; font-size: 14px;"));
        layout->addWidget(head);
        layout->addWidget(paragraph(QString::fromUtf8(promise[1]), "muted"));
    }
    layout->addSpacing(8);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    start_ = new QPushButton(QStringLiteral("Get Started"));
    start_->setProperty("primary", true);
    start_->setMinimumWidth(140);
    buttons->addWidget(start_);
    layout->addLayout(buttons);
    row->addWidget(card, 3);
    row->addStretch(1);
    outer->addLayout(row);
    outer->addStretch(1);
    pressOnReturn(this, [this] { return start_; });
    setFocusProxy(start_);
    connect(start_, &QPushButton::clicked, this, &OnboardingPage::finished);
}

} // namespace sd::app
