#pragma once
// Helpers for the window tests: answering message boxes as they come up (the
// real QMessageBox of the window's sink, found as the active modal widget),
// the whole server with its window over a throw-away installation, and
// screenshots into build/screenshots/.
#include "foundation/texts.h"
#include "gui/mainwindow.h"
#include "gui/messagebox.h"
#include "shell/operator.h"
#include "shell/server.h"
#include "support/installation.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QRadioButton>
#include <QStyle>
#include <QStyleOptionButton>
#include <QDir>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <deque>
#include <functional>
#include <memory>

namespace quill::test {

// Presses the queued buttons in the boxes that come up, one box each, and
// remembers their texts. A box beyond the queue is answered with its escape
// (negative) button.
class BoxAnswerer : public QObject {
public:
    BoxAnswerer()
    {
        timer_.callOnTimeout(this, &BoxAnswerer::poll);
        timer_.start(20);
    }
    void answer(std::initializer_list<QMessageBox::StandardButton> buttons)
    {
        queue_.insert(queue_.end(), buttons);
    }
    QStringList texts;
    QList<QWidget*> parents;
    // Called with each box before it is answered.
    std::function<void(QMessageBox*)> onBox;

private:
    void poll()
    {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || !box->isVisible() || box == last_)
            return;
        last_ = box;
        texts << box->text();
        parents << box->parentWidget();
        if (onBox)
            onBox(box);
        QAbstractButton* button = box->escapeButton() ? box->escapeButton() : box->defaultButton();
        if (!queue_.empty()) {
            button = box->button(queue_.front());
            queue_.pop_front();
        }
        if (button)
            button->click();
        else
            box->reject();
    }
    QTimer timer_;
    std::deque<QMessageBox::StandardButton> queue_;
    // Cleared when the box is deleted: the next box may get its address.
    QPointer<QMessageBox> last_;
};

// Presses a button as a person does: a mouse click at the centre of what is
// visible of it. Fails, saying why, when the button is hidden, has no size or
// is covered there by another widget.
inline QString PressFailure(QAbstractButton* b)
{
    if (!b)
        return QStringLiteral("no such button");
    const QString name = b->objectName();
    if (!b->isVisible())
        return name + QStringLiteral(" is not visible");
    // A check or radio button takes clicks on its mark and caption only.
    QRect active = b->rect();
    QStyleOptionButton option;
    option.initFrom(b);
    option.text = b->text();
    option.icon = b->icon();
    option.iconSize = b->iconSize();
    if (qobject_cast<QRadioButton*>(b))
        active = b->style()->subElementRect(QStyle::SE_RadioButtonClickRect, &option, b);
    else if (qobject_cast<QCheckBox*>(b))
        active = b->style()->subElementRect(QStyle::SE_CheckBoxClickRect, &option, b);
    const QRegion seen = b->visibleRegion().intersected(active);
    if (b->width() <= 0 || b->height() <= 0 || seen.isEmpty())
        return name + QStringLiteral(" has no visible area");
    const QPoint centre = seen.boundingRect().center();
    QWidget* top = b->window();
    QWidget* hit = top->childAt(b->mapTo(top, centre));
    if (hit != b && !b->isAncestorOf(hit))
        return name + QStringLiteral(" is covered by ") + (hit ? hit->objectName() : QStringLiteral("nothing"));
    QTest::mouseClick(b, Qt::LeftButton, Qt::NoModifier, centre);
    return {};
}
#define QUILL_PRESS(button)                                                                                        \
    do {                                                                                                           \
        const QString why_ = quill::test::PressFailure(button);                                                   \
        QVERIFY2(why_.isEmpty(), qPrintable(why_));                                                                \
    } while (false)

// A key pressed and released on whatever has the keyboard focus now.
#define QUILL_KEY(...)                                                                                             \
    do {                                                                                                           \
        QWidget* focus_ = QApplication::focusWidget();                                                             \
        QVERIFY2(focus_, "no widget has the focus");                                                               \
        QTest::keyClick(focus_, __VA_ARGS__);                                                                      \
    } while (false)

// The popup menu shown now, or null.
inline QMenu* Popup()
{
    return qobject_cast<QMenu*>(QApplication::activePopupWidget());
}

// Clicks a menu's entry (or submenu), given by object name, where the menu
// shows it.
inline QString ClickEntryFailure(QMenu* menu, const QString& name)
{
    if (!menu)
        return QStringLiteral("no menu is open");
    for (QAction* a : menu->actions()) {
        if (a->objectName() != name && !(a->menu() && a->menu()->objectName() == name))
            continue;
        const QRect r = menu->actionGeometry(a);
        if (!a->isVisible() || r.isEmpty())
            return name + QStringLiteral(" has no area in the menu");
        QTest::mouseClick(menu, Qt::LeftButton, Qt::NoModifier, r.center());
        return {};
    }
    return name + QStringLiteral(" is not in the menu");
}
#define CLICK_ENTRY(menu, name)                                                                                    \
    do {                                                                                                           \
        const QString why_ = quill::test::ClickEntryFailure(menu, QStringLiteral(name));                           \
        QVERIFY2(why_.isEmpty(), qPrintable(why_));                                                                \
    } while (false)

// Chooses a window's menu entry as a person does: the menu bar's title, each
// submenu and the entry, clicked where they show. An entry of a menu outside
// the bar (the notification icon's) is chosen from that menu popped up at
// the window's centre, as the desktop shows it on a right click.
inline QString ChooseFailure(QWidget* window, const char* name)
{
    auto* entry = window->findChild<QAction*>(QLatin1String(name));
    if (!entry)
        return QStringLiteral("no entry ") + QLatin1String(name);
    const auto menuOf = [](QAction* a) -> QMenu* {
        for (QObject* o : a->associatedObjects())
            if (auto* m = qobject_cast<QMenu*>(o))
                return m;
        return nullptr;
    };
    QList<QMenu*> path;
    for (QMenu* m = menuOf(entry); m; m = menuOf(m->menuAction()))
        path.prepend(m);
    if (path.isEmpty())
        return QLatin1String(name) + QStringLiteral(" is in no menu");
    const auto opened = [](QMenu* m) { return QTest::qWaitFor([m] { return Popup() == m && m->isVisible(); }, 5000); };
    auto* bar = window->findChild<QMenuBar*>();
    if (bar && bar->actions().contains(path.first()->menuAction())) {
        const QRect r = bar->actionGeometry(path.first()->menuAction());
        if (!bar->isVisible() || r.isEmpty())
            return path.first()->objectName() + QStringLiteral(" has no area in the menu bar");
        QTest::mouseClick(bar, Qt::LeftButton, Qt::NoModifier, r.center());
    } else {
        path.first()->popup(window->mapToGlobal(window->rect().center()));
    }
    if (!opened(path.first()))
        return path.first()->objectName() + QStringLiteral(" did not open");
    for (int i = 1; i < path.size(); ++i) {
        const QString why = ClickEntryFailure(path[i - 1], path[i]->objectName());
        if (!why.isEmpty())
            return why;
        if (!opened(path[i]))
            return path[i]->objectName() + QStringLiteral(" did not open");
    }
    return ClickEntryFailure(path.last(), QLatin1String(name));
}
#define QUILL_CHOOSE(window, name)                                                                                 \
    do {                                                                                                           \
        const QString why_ = quill::test::ChooseFailure(window, name);                                             \
        QVERIFY2(why_.isEmpty(), qPrintable(why_));                                                                \
    } while (false)

// The widget's window active and the keyboard focus in the widget, as a
// person's click would leave them.
inline bool FocusOn(QWidget* w)
{
    w->window()->activateWindow();
    if (!QTest::qWaitForWindowActive(w->window()))
        return false;
    w->setFocus(Qt::TabFocusReason);
    return QTest::qWaitFor([w] { return QApplication::focusWidget() == w; });
}

// An open top-level window (a dialog) by its object name.
template <typename T = QWidget>
T* TopLevel(const char* name)
{
    for (QWidget* w : QApplication::topLevelWidgets())
        if (w->objectName() == QLatin1String(name) && w->isVisible())
            return qobject_cast<T*>(w);
    return nullptr;
}

inline QString ScreenshotDir()
{
    const QString dir = QStringLiteral(QUILL_BIN_DIR "/../screenshots");
    QDir().mkpath(dir);
    return QDir(dir).absolutePath();
}

// A picture for a person to look at (build/screenshots/), not a check.
inline bool Screenshot(QWidget* w, const QString& name)
{
    return w->grab().save(ScreenshotDir() + QLatin1Char('/') + name + QStringLiteral(".png"));
}

// The server, its command surface and its window over one installation.
// Language, silent mode and the printers are arranged before start().
struct WindowSite {
    WindowSite()
    {
        ResetLanguage();
        SetSilentMode(false);
    }
    ~WindowSite()
    {
        window.reset();
        if (server)
            server->shutdown();
        server.reset();
    }

    Server::StartResult start()
    {
        // The periodic status pass ten minutes apart: none comes during a test.
        server = std::make_unique<Server>(Server::Options{600000, false});
        window = std::make_unique<MainWindow>(server->commands());
        QObject::connect(window.get(), &MainWindow::finished, [this] { ++finished; });
        return window->start();
    }

    // Started, the window shown and the start-up's status pass over.
    bool startSettled()
    {
        if (start() != Server::Started || !QTest::qWaitForWindowExposed(window.get()))
            return false;
        return QTest::qWaitFor(
            [this] {
                for (int n = 1; n <= 5; ++n)
                    if (server->printers().SrvPrinterExists(n) && slot(n).status == StatusChecking)
                        return false;
                return true;
            },
            20000);
    }
    const PrinterSlot& slot(int n) const { return server->printers().at(n); }

    PrinterSite site;
    WidgetMessageSink sink;
    std::unique_ptr<Server> server;
    std::unique_ptr<MainWindow> window;
    int finished = 0;
};

} // namespace quill::test
