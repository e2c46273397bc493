#pragma once

#include <QAbstractItemView>
#include <QFrame>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QString>
#include <QStyledItemDelegate>
#include <QWidget>
#include <functional>

class QApplication;
class QVBoxLayout;

namespace sd::app {

// The look of the whole app: one palette and one style sheet.
void applyStyle(QApplication& app);

// Opens the file manager with `path` selected: org.freedesktop.FileManager1.ShowItems over the
// session bus, else the folder that holds it. When neither answers, FileManagerNotices says so.
void showInFiles(const QString& path);
// The same for several items at once, as one request; without a file manager on the bus, the
// folder of the first is opened.
void showInFiles(const QStringList& paths);

// Where the window hears that no file manager answered "Show in Files", to tell the person
// instead of failing silently.
class FileManagerNotices : public QObject {
    Q_OBJECT

public:
    static FileManagerNotices& instance();

signals:
    void unanswered(const QString& path);
};

// Return or Enter that nothing focused took presses the screen's default button, `button()`,
// when it is shown and enabled.
void pressOnReturn(QWidget* page, std::function<QPushButton*()> button);
// Return or Enter on a focused push button anywhere in `area` presses that button, as in a
// dialog.
void returnPressesFocusedButtons(QWidget* area);
// "Show in Files" on Linux: the platform's word for revealing an item.
QString revealText();

// Asks before something moves. Returns true only for the accepting button.
bool confirm(QWidget* parent, const QString& title, const QString& text, const QString& acceptText,
             const QString& detail = {});

// The title, the one-line explanation under it and a place for the screen's content.
QVBoxLayout* pageLayout(QWidget* page, const QString& title, const QString& explanation);
QLabel* sectionLabel(const QString& text);
// A label that wraps, styled by `objectName` ("muted", …) when one is given.
QLabel* paragraph(const QString& text, const char* objectName = nullptr);

// Rows tall enough to read and to hit with a pointer, whatever a cell holds.
class RoomyDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    explicit RoomyDelegate(int rowHeight, QObject* parent = nullptr)
        : QStyledItemDelegate(parent), rowHeight_(rowHeight) {}
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

private:
    int rowHeight_;
};

// A button label that shows an ampersand as itself rather than as a shortcut marker.
inline QString buttonText(QString text) {
    return text.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

// A line of news for the person: what happened, in a tinted box, with optional actions.
class Banner : public QFrame {
    Q_OBJECT

public:
    enum class Tone { info, success, warning };

    explicit Banner(QWidget* parent = nullptr);
    void show(const QString& text, Tone tone, const QString& detail = {});
    QPushButton* addAction(const QString& text);
    QString text() const { return text_->text(); }
    QString detail() const { return detail_->text(); }

private:
    QLabel* text_;
    QLabel* detail_;
    QWidget* actions_;
};

// A progress bar with its message and a Stop button, shown only while something runs.
class ProgressStrip : public QWidget {
    Q_OBJECT

public:
    explicit ProgressStrip(QWidget* parent = nullptr);
    // A fraction below 0 shows a busy bar.
    void update(double fraction, const QString& message);
    void setRunning(bool running);
    QPushButton* stopButton() const { return stop_; }
    QString message() const { return message_->text(); }

signals:
    void stopRequested();

private:
    QProgressBar* bar_;
    QLabel* message_;
    QPushButton* stop_;
};

} // namespace sd::app
