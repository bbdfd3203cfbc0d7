// The window's notification-area icon on a real X desktop: Xvfb, a window
// manager (openbox) and a notification-area host (trayer). Skipped, with the
// reason, when a part is not installed or does not come up.
#include "gui/guitest.h"
#include "gui/pictures.h"
#include "gui/trayicon.h"

#include <QProcess>
#include <QPushButton>
#include <QScreen>
#include <QStandardPaths>
#include <QSystemTrayIcon>

#include <csignal>
#include <sys/prctl.h>

namespace {

QString skipReason;

// A child that ends with this test program, however it ends.
std::unique_ptr<QProcess> child(const QString& program, const QStringList& args)
{
    auto p = std::make_unique<QProcess>();
    p->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    p->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p->start(program, args);
    return p->waitForStarted(5000) ? std::move(p) : nullptr;
}

// Xvfb on a free display, then openbox and trayer on it.
std::unique_ptr<QProcess> xserver, windowManager, trayHost;

// The manager owns the screen once it has set its check window on the root.
bool wmReady()
{
    QProcess p;
    p.start(QStringLiteral("xprop"), {"-root", "_NET_SUPPORTING_WM_CHECK"});
    return p.waitForFinished(5000) && p.exitCode() == 0 && p.readAllStandardOutput().contains("window id");
}

// Xvfb, openbox and trayer up; otherwise why the test is skipped.
QString startDisplay()
{
    for (const char* tool : {"Xvfb", "openbox", "trayer", "xprop"})
        if (QStandardPaths::findExecutable(tool).isEmpty())
            return "needs Xvfb, openbox, trayer and xprop (make deps installs them)";
    // Xvfb takes a free display and writes its number once it takes connections.
    // -noreset: otherwise the server resets whenever its last client leaves,
    // and a probe that leaves just before the manager connects resets it
    // from under the manager.
    xserver = child("Xvfb", {"-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp", "-noreset"});
    QByteArray display;
    while (xserver && !display.contains('\n') && xserver->waitForReadyRead(10000))
        display += xserver->readAllStandardOutput();
    if (!display.contains('\n'))
        return "Xvfb did not start";
    qputenv("DISPLAY", ":" + display.trimmed());
    // On a loaded machine the manager may take a while, or die before it
    // takes the screen.
    for (int attempt = 0; attempt < 3 && !wmReady(); ++attempt) {
        windowManager = child("openbox", {"--sm-disable"});
        for (int i = 0; i < 400 && windowManager && windowManager->state() == QProcess::Running && !wmReady(); ++i)
            QThread::msleep(50);
    }
    if (!wmReady())
        return "openbox did not take the screen";
    trayHost = child("trayer", {"--edge", "bottom", "--align", "right", "--widthtype", "request", "--height", "24",
                              "--transparent", "false", "--tint", "0xd0d0d0", "--SetDockType", "true"});
    return trayHost ? QString() : "trayer did not start";
}

} // namespace

class TstDesktop : public QObject {
    Q_OBJECT

    static QImage picture(bool started) { return quill::TrayPicture(started).pixmap(22, 22).toImage(); }

private slots:
    void initTestCase()
    {
        if (!skipReason.isEmpty())
            QSKIP(qPrintable(skipReason));
        if (!QTest::qWaitFor([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 10000))
            QSKIP("the notification-area host did not come up on Xvfb");
    }

    // The icon as the desktop shows it follows the service (its texts and
    // menu entries are the window's own test's). The title bar's close and
    // minimising hide the window in the notification area; the restore entry
    // and a double-click on the icon bring it back.
    void trayIcon()
    {
        // Gone before the X server is.
        quill::test::WindowSite s;
        QVERIFY(s.site.ok());
        QVERIFY(s.site.setServer(quill::test::TestInstallation::freePort(), false));
        QCOMPARE(s.start(), quill::Server::Started);
        QVERIFY(QTest::qWaitForWindowExposed(s.window.get()));
        quill::TrayIcon* tray = s.window->trayIcon();
        const auto shown = [tray] { return tray->icon()->icon().pixmap(22, 22).toImage(); };
        QTRY_VERIFY(tray->visible());
        QCOMPARE(shown(), picture(false));
        QVERIFY(picture(true) != picture(false));
        QUILL_PRESS(s.window->findChild<QPushButton*>("cmdService"));
        QCOMPARE(shown(), picture(true));
        QTest::qWait(300); // painted by the host
        const QPixmap whole = QGuiApplication::primaryScreen()->grabWindow(0);
        const QString file = quill::test::ScreenshotDir() + "/tray-xvfb.png";
        whole.copy(whole.width() - 240, whole.height() - 40, 240, 40).save(file);

        s.window->close();
        QTRY_VERIFY_WITH_TIMEOUT(!s.window->isVisible(), 5000);
        QCOMPARE(s.finished, 0);
        QUILL_CHOOSE(s.window.get(), "mnuSTPopupRestore");
        QTRY_VERIFY_WITH_TIMEOUT(s.window->isVisible() && !s.window->isMinimized(), 5000);
        s.window->showMinimized();
        QTRY_VERIFY_WITH_TIMEOUT(!s.window->isVisible(), 5000);
        // The icon's own widget, embedded in the host.
        QWidget* iconWidget = nullptr;
        for (QWidget* w : QApplication::allWidgets())
            if (w->isVisible() && QByteArray(w->metaObject()->className()).contains("SystemTrayIcon"))
                iconWidget = w;
        if (!iconWidget)
            QSKIP("the host gives the icon no widget of its own");
        const QPoint centre = iconWidget->rect().center();
        QTest::mouseClick(iconWidget, Qt::LeftButton, {}, centre);
        QTest::mouseDClick(iconWidget, Qt::LeftButton, {}, centre);
        QTRY_VERIFY_WITH_TIMEOUT(s.window->isVisible() && !s.window->isMinimized(), 5000);
    }
};

int main(int argc, char** argv)
{
    // The tray needs the X server: this test does not run offscreen.
    skipReason = startDisplay();
    if (skipReason.isEmpty())
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    TstDesktop test;
    const int rc = QTest::qExec(&test, argc, argv);
    // Killed and waited for, the X server last.
    trayHost.reset();
    windowManager.reset();
    xserver.reset();
    return rc;
}

#include "tst_desktop.moc"
