#include "app/Widgets.h"

#include "platform/Words.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMessageBox>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>

// Resources of a static library must be registered by name, outside any namespace.
static void registerAppResources() {
    Q_INIT_RESOURCE(app);
}

namespace sd::app {

namespace {

const char* const styleSheetText = R"(
QWidget { color: #1f2328; }
QMainWindow, #page { background: #f6f7f9; }
#sidebar { background: #eceef3; border: none; border-right: 1px solid #dde1e7; }
#sidebar QListWidget { background: transparent; border: none; outline: none; font-size: 14px; }
#sidebar QListWidget::item { padding: 7px 12px; border-radius: 7px; margin: 1px 8px; }
#sidebar QListWidget::item:selected { background: #dbe5fb; color: #1742a8; }
#sidebar QListWidget::item:hover:!selected { background: #e3e7ee; }
#brand { font-size: 17px; font-weight: 600; padding: 18px 20px 10px 20px; color: #1f2328; }
#brandNote { color: #6b7280; font-size: 11px; padding: 0 20px 14px 20px; }
#sidebar QListWidget::item:disabled { color: #6b7280; background: transparent; }
#pageTitle { font-size: 24px; font-weight: 600; }
#pageExplanation { color: #5b6470; font-size: 13px; }
#section { color: #5b6470; font-size: 11px; font-weight: 600; letter-spacing: 1px; }
#muted { color: #6b7280; }
#bigNumber { font-size: 30px; font-weight: 600; color: #1f2328; }
QPushButton { background: #ffffff; border: 1px solid #cfd5dd; border-radius: 7px;
              padding: 6px 16px; min-height: 20px; }
QPushButton:hover { background: #f1f4f8; }
QPushButton:disabled { color: #a0a7b1; background: #f4f5f7; border-color: #e1e4e8; }
QPushButton[primary="true"] { background: #2563eb; border-color: #1f55c9; color: #ffffff;
                              font-weight: 600; }
QPushButton[primary="true"]:hover { background: #1f55c9; }
QPushButton[primary="true"]:disabled { background: #a9c0f3; border-color: #a9c0f3;
                                       color: #f4f7fe; }
QPushButton[link="true"] { background: transparent; border: none; color: #1f55c9; padding: 2px 4px; }
QPushButton[link="true"]:hover { text-decoration: underline; }
QProgressBar { background: #e4e8ee; border: none; border-radius: 4px; max-height: 8px;
               text-align: center; }
QProgressBar::chunk { background: #2563eb; border-radius: 4px; }
QTreeView, QListView { background: #ffffff; border: 1px solid #e0e4ea; border-radius: 10px;
                       alternate-background-color: #fafbfc; outline: none; }
QTreeView::item:selected, QListView::item:selected { background: #e3ebfc; color: #1f2328; }
QTreeView::item:selected:active, QListView::item:selected:active { background: #d8e4fb; }
QScrollBar:vertical { background: transparent; width: 12px; margin: 2px 2px 2px 0; }
QScrollBar:horizontal { background: transparent; height: 12px; margin: 0 2px 2px 2px; }
QScrollBar::handle { background: #c4cad3; border-radius: 4px; }
QScrollBar::handle:vertical { min-height: 32px; margin: 0 2px; }
QScrollBar::handle:horizontal { min-width: 32px; margin: 2px 0; }
QScrollBar::handle:hover { background: #a7afba; }
QScrollBar::handle:pressed { background: #8b94a1; }
QScrollBar::add-line, QScrollBar::sub-line { width: 0; height: 0; border: none; background: none; }
QScrollBar::add-page, QScrollBar::sub-page { background: none; }
QHeaderView::section { background: #ffffff; border: none; border-bottom: 1px solid #e6e9ee;
                       padding: 6px 4px; color: #5b6470; font-weight: 600; }
QComboBox { background: #ffffff; border: 1px solid #cfd5dd; border-radius: 7px;
            padding: 4px 10px; min-height: 20px; }
QComboBox::drop-down { border: none; width: 26px; }
QComboBox::down-arrow { image: url(:/sparrowdeck/chevron.svg); width: 12px; height: 12px; }
QComboBox QAbstractItemView { background: #ffffff; border: 1px solid #cfd5dd;
                              selection-background-color: #e3ebfc; selection-color: #1f2328; }
QTreeView::indicator, QListView::indicator, QCheckBox::indicator {
    width: 14px; height: 14px; border: 1px solid #9aa3af; border-radius: 4px; background: #ffffff; }
QTreeView::indicator:checked, QListView::indicator:checked, QCheckBox::indicator:checked {
    background: #2563eb; border-color: #2563eb; image: url(:/sparrowdeck/check.svg); }
QTreeView::indicator:indeterminate, QListView::indicator:indeterminate {
    background: #2563eb; border-color: #2563eb; image: url(:/sparrowdeck/partial.svg); }
QTreeView::indicator:disabled, QListView::indicator:disabled {
    background: #f1f3f6; border-color: #d5dae1; }
QTreeView::indicator:checked:disabled, QTreeView::indicator:indeterminate:disabled {
    background: #b9cbf3; border-color: #b9cbf3; }
#banner { border-radius: 10px; }
#banner[tone="info"] { background: #eef3fd; border: 1px solid #d5e1fa; }
#banner[tone="success"] { background: #e9f6ee; border: 1px solid #cbe8d5; }
#banner[tone="warning"] { background: #fdf4e4; border: 1px solid #f3dfb8; }
#bannerText { font-weight: 600; }
#bannerDetail { color: #4b5563; }
#card { background: #ffffff; border: 1px solid #e0e4ea; border-radius: 12px; }
QToolTip { background: #1f2328; color: #ffffff; border: none; padding: 4px 8px; }
QPushButton:focus { border: 2px solid #2563eb; padding: 5px 15px; }
QPushButton[primary="true"]:focus { border: 2px solid #0b2f86; }
QPushButton[link="true"]:focus { border: 1px dashed #1f55c9; padding: 1px 3px; }
QTreeView:focus, QListView:focus { border-color: #2563eb; }
QComboBox:focus { border: 2px solid #2563eb; padding: 3px 9px; }
QCheckBox:focus { color: #1742a8; }
QCheckBox::indicator:focus { border: 2px solid #2563eb; }
#sidebar QListWidget::item:focus { border: 2px solid #2563eb; }
)";

} // namespace

void applyStyle(QApplication& app) {
    registerAppResources();
    app.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette palette = app.palette();
    palette.setColor(QPalette::Window, QColor(0xf6, 0xf7, 0xf9));
    palette.setColor(QPalette::Base, Qt::white);
    palette.setColor(QPalette::Highlight, QColor(0x25, 0x63, 0xeb));
    palette.setColor(QPalette::Text, QColor(0x1f, 0x23, 0x28));
    palette.setColor(QPalette::WindowText, QColor(0x1f, 0x23, 0x28));
    app.setPalette(palette);
    QFont font = app.font();
    font.setPixelSize(13);
    app.setFont(font);
    app.setStyleSheet(QString::fromLatin1(styleSheetText));
}

QString revealText() {
    return QString::fromUtf8(platform::revealActionText().data(),
                             static_cast<qsizetype>(platform::revealActionText().size()));
}

FileManagerNotices& FileManagerNotices::instance() {
    static FileManagerNotices notices;
    return notices;
}

void showInFiles(const QString& path) {
    showInFiles(QStringList{path});
}

void showInFiles(const QStringList& paths) {
    if (paths.isEmpty()) {
        return;
    }
    const QString& path = paths.front();
    QString folder = QFileInfo(path).absolutePath();
    auto openFolder = [folder, path] {
        if (!QDesktopServices::openUrl(QUrl::fromLocalFile(folder))) {
            emit FileManagerNotices::instance().unanswered(path);
        }
    };
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openFolder();
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    QStringList uris;
    for (const QString& p : paths) {
        uris << QUrl::fromLocalFile(p).toString();
    }
    call << uris << QString();
    // Asynchronous: a file manager that takes its time to start never holds up the window.
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [openFolder](QDBusPendingCallWatcher* w) {
                         if (w->isError()) {
                             openFolder();
                         }
                         w->deleteLater();
                     });
}

namespace {

bool isPlainReturn(QEvent* event) {
    if (event->type() != QEvent::KeyPress) {
        return false;
    }
    auto* key = static_cast<QKeyEvent*>(event);
    return (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) &&
           (key->modifiers() & ~Qt::KeypadModifier) == Qt::NoModifier;
}

bool press(QPushButton* button) {
    if (button == nullptr || !button->isVisible() || !button->isEnabled()) {
        return false;
    }
    button->click();
    return true;
}

// Sees Return only when the focused widget left it unused, because filters on a parent hear a
// key after the widgets inside it.
class DefaultButtonPresser : public QObject {
public:
    DefaultButtonPresser(QWidget* page, std::function<QPushButton*()> button)
        : QObject(page), button_(std::move(button)) {}

protected:
    bool eventFilter(QObject*, QEvent* event) override {
        // A focused button is the one Return means; the window presses it.
        return isPlainReturn(event) &&
               qobject_cast<QPushButton*>(QApplication::focusWidget()) == nullptr &&
               press(button_());
    }

private:
    std::function<QPushButton*()> button_;
};

class FocusedButtonPresser : public QObject {
public:
    using QObject::QObject;

protected:
    bool eventFilter(QObject*, QEvent* event) override {
        return isPlainReturn(event) &&
               press(qobject_cast<QPushButton*>(QApplication::focusWidget()));
    }
};

} // namespace

void pressOnReturn(QWidget* page, std::function<QPushButton*()> button) {
    page->installEventFilter(new DefaultButtonPresser(page, std::move(button)));
}

void returnPressesFocusedButtons(QWidget* area) {
    area->installEventFilter(new FocusedButtonPresser(area));
}

bool confirm(QWidget* parent, const QString& title, const QString& text, const QString& acceptText,
             const QString& detail) {
    QMessageBox box(parent);
    box.setWindowTitle(title);
    box.setIcon(QMessageBox::NoIcon);
    box.setText(text);
    box.setInformativeText(detail);
    QPushButton* accept = box.addButton(acceptText, QMessageBox::AcceptRole);
    QPushButton* cancel = box.addButton(QMessageBox::Cancel);
    cancel->setIcon(QIcon());
    box.setStyleSheet(
        QStringLiteral("QLabel { min-width: 340px; } QMessageBox QLabel#qt_msgbox_label "
                       "{ font-weight: 600; font-size: 14px; }"));
    accept->setProperty("primary", true);
    box.setDefaultButton(cancel);
    box.exec();
    return box.clickedButton() == accept;
}

QVBoxLayout* pageLayout(QWidget* page, const QString& title, const QString& explanation) {
    page->setObjectName(QStringLiteral("page"));
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(32, 26, 32, 22);
    layout->setSpacing(12);
    auto* heading = new QLabel(title);
    heading->setObjectName(QStringLiteral("pageTitle"));
    auto* note = new QLabel(explanation);
    note->setObjectName(QStringLiteral("pageExplanation"));
    note->setWordWrap(true);
    layout->addWidget(heading);
    layout->addWidget(note);
    layout->addSpacing(4);
    return layout;
}

QSize RoomyDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const {
    QSize size = QStyledItemDelegate::sizeHint(option, index);
    return {size.width(), std::max(size.height(), rowHeight_)};
}

QLabel* paragraph(const QString& text, const char* objectName) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    if (objectName != nullptr) {
        label->setObjectName(QString::fromLatin1(objectName));
    }
    return label;
}

QLabel* sectionLabel(const QString& text) {
    auto* label = new QLabel(text.toUpper());
    label->setObjectName(QStringLiteral("section"));
    return label;
}

Banner::Banner(QWidget* parent) : QFrame(parent) {
    setObjectName(QStringLiteral("banner"));
    setProperty("tone", "info");
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(14, 10, 10, 10);
    auto* texts = new QVBoxLayout;
    texts->setSpacing(2);
    text_ = new QLabel;
    text_->setObjectName(QStringLiteral("bannerText"));
    text_->setWordWrap(true);
    detail_ = new QLabel;
    detail_->setObjectName(QStringLiteral("bannerDetail"));
    detail_->setWordWrap(true);
    detail_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    texts->addWidget(text_);
    texts->addWidget(detail_);
    layout->addLayout(texts, 1);
    actions_ = new QWidget;
    auto* actionLayout = new QHBoxLayout(actions_);
    actionLayout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(actions_, 0, Qt::AlignVCenter);
    hide();
}

void Banner::show(const QString& text, Tone tone, const QString& detail) {
    static const char* const tones[] = {"info", "success", "warning"};
    setProperty("tone", tones[static_cast<int>(tone)]);
    style()->unpolish(this);
    style()->polish(this);
    text_->setText(text);
    detail_->setText(detail);
    detail_->setVisible(!detail.isEmpty());
    QFrame::show();
}

QPushButton* Banner::addAction(const QString& text) {
    auto* button = new QPushButton(text);
    actions_->layout()->addWidget(button);
    return button;
}

ProgressStrip::ProgressStrip(QWidget* parent) : QWidget(parent) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(12);
    auto* column = new QVBoxLayout;
    column->setSpacing(5);
    message_ = new QLabel;
    message_->setObjectName(QStringLiteral("muted"));
    message_->setMinimumWidth(100);
    bar_ = new QProgressBar;
    bar_->setRange(0, 1000);
    bar_->setTextVisible(false);
    column->addWidget(message_);
    column->addWidget(bar_);
    layout->addLayout(column, 1);
    stop_ = new QPushButton(QStringLiteral("Stop"));
    layout->addWidget(stop_, 0, Qt::AlignBottom);
    connect(stop_, &QPushButton::clicked, this, &ProgressStrip::stopRequested);
    hide();
}

void ProgressStrip::update(double fraction, const QString& message) {
    if (fraction < 0) {
        bar_->setRange(0, 0);
    } else {
        bar_->setRange(0, 1000);
        bar_->setValue(static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 1000));
    }
    // Long paths are cut in the middle so the strip never grows.
    message_->setText(
        message_->fontMetrics().elidedText(message, Qt::ElideMiddle, message_->width()));
    message_->setToolTip(message);
}

void ProgressStrip::setRunning(bool running) {
    setVisible(running);
    stop_->setEnabled(running);
    if (running) {
        update(0, QString());
    }
}

} // namespace sd::app
