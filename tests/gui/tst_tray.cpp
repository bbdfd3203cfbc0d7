// The notification-area icon on a real X server (Xvfb) with a real
// notification-area host (trayer). Skipped, with the reason, when either is
// not installed or the host does not come up.
#include "foundation/texts.h"
#include "gui/guitest.h"
#include "gui/pictures.h"
#include "gui/trayicon.h"

#include <QAction>
#include <QFile>
#include <QMenu>
#include <QProcess>
#include <QPushButton>
#include <QScreen>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QWindow>

#include <csignal>
#include <sys/prctl.h>

using quill::GetString;
using quill::Server;
using quill::test::Screenshot;
using quill::test::TestInstallation;
using quill::test::WindowSite;

namespace {

QString skipReason;

// A child that ends with this test program, however it ends.
std::unique_ptr<QProcess> child(const QString& program, const QStringList& args)
{
    auto p = std::make_unique<QProcess>();
    p->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    p->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p->setStandardOutputFile(QProcess::nullDevice());
    p->start(program, args);
    if (!p->waitForStarted(5000))
        return nullptr;
    return p;
}

// Xvfb on the first free display from :57, then trayer on it.
std::unique_ptr<QProcess> xserver, trayHost;

bool startDisplay()
{
    const QString xvfb = QStandardPaths::findExecutable("Xvfb");
    const QString trayer = QStandardPaths::findExecutable("trayer");
    if (xvfb.isEmpty() || trayer.isEmpty()) {
        skipReason = "needs Xvfb and trayer (make deps installs them)";
        return false;
    }
    for (int n = 57; n < 120 && !xserver; ++n) {
        if (QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(n)) ||
            QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(n)))
            continue;
        auto x = child(xvfb, {QStringLiteral(":%1").arg(n), "-screen", "0", "800x600x24", "-nolisten", "tcp"});
        if (!x)
            continue;
        const QString socket = QStringLiteral("/tmp/.X11-unix/X%1").arg(n);
        for (int i = 0; i < 100 && !QFile::exists(socket) && x->state() == QProcess::Running; ++i)
            QThread::msleep(50);
        if (x->state() != QProcess::Running || !QFile::exists(socket))
            continue; // another display took the number meanwhile
        xserver = std::move(x);
        qputenv("DISPLAY", QStringLiteral(":%1").arg(n).toUtf8());
    }
    if (!xserver) {
        skipReason = "Xvfb did not start";
        return false;
    }
    trayHost = child(trayer, {"--edge", "bottom", "--align", "right", "--widthtype", "request", "--height", "24",
                              "--transparent", "false", "--tint", "0xd0d0d0", "--SetDockType", "true"});
    if (!trayHost) {
        skipReason = "trayer did not start";
        return false;
    }
    return true;
}

} // namespace

class TstTray : public QObject {
    Q_OBJECT

    std::unique_ptr<WindowSite> s_;
    quill::TrayIcon* tray() { return s_->window->trayIcon(); }
    QAction* action(const char* name) { return s_->window->findChild<QAction*>(QLatin1String(name)); }
    QImage shown() { return tray()->icon()->icon().pixmap(22, 22).toImage(); }
    static QImage picture(bool started) { return quill::TrayPicture(started).pixmap(22, 22).toImage(); }

private slots:
    void initTestCase()
    {
        if (!skipReason.isEmpty())
            QSKIP(qPrintable(skipReason));
        if (!QTest::qWaitFor([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 10000))
            QSKIP("the notification-area host did not come up on Xvfb");
    }

    void init()
    {
        s_ = std::make_unique<WindowSite>();
        QVERIFY(s_->site.ok());
        QVERIFY(s_->site.setServer(TestInstallation::freePort(), false));
    }
    void cleanup() { s_.reset(); }

    void followsService()
    {
        QCOMPARE(s_->start(), Server::Started);
        QTRY_VERIFY(tray()->visible());
        // Until the service state changes, the tip is the window caption.
        QCOMPARE(tray()->toolTip(), s_->window->windowTitle());
        QVERIFY(!tray()->showsStarted());
        QCOMPARE(shown(), picture(false));

        QTest::mouseClick(s_->window->findChild<QPushButton*>("cmdService"), Qt::LeftButton);
        QCOMPARE(tray()->toolTip(), "Brixa - Printerserver - Startad");
        QVERIFY(tray()->showsStarted());
        QCOMPARE(shown(), picture(true));
        QVERIFY(shown() != picture(false));
        QCOMPARE(action("mnuSTPopupService")->text(), "&" + GetString(12054));

        // The icon as the desktop shows it, and its menu.
        QTest::qWait(300);
        QScreen* screen = QGuiApplication::primaryScreen();
        const QPixmap whole = screen->grabWindow(0);
        QVERIFY(whole.copy(whole.width() - 240, whole.height() - 40, 240, 40)
                    .save(quill::test::ScreenshotDir() + "/tray-xvfb.png"));
        QMenu* menu = tray()->icon()->contextMenu();
        menu->popup(QPoint(600, 480));
        QVERIFY(QTest::qWaitForWindowExposed(menu));
        QVERIFY(Screenshot(menu, "traymenu-xvfb"));
        menu->close();

        action("mnuSTPopupService")->trigger();
        QCOMPARE(tray()->toolTip(), "Brixa - Printerserver - Stoppad");
        QCOMPARE(shown(), picture(false));
    }

    // Minimising and the title bar's close hide the window in the notification
    // area; the restore entry and a double-click on the icon bring it back.
    void hideAndRestore_data()
    {
        QTest::addColumn<QString>("hideBy");
        QTest::addColumn<QString>("restoreBy");
        QTest::newRow("minimise, restore entry") << "minimise" << "menu";
        QTest::newRow("close box, restore entry") << "close" << "menu";
        QTest::newRow("minimise, double-click") << "minimise" << "double-click";
    }
    void hideAndRestore()
    {
        QFETCH(QString, hideBy);
        QFETCH(QString, restoreBy);
        QCOMPARE(s_->start(), Server::Started);
        QVERIFY(QTest::qWaitForWindowExposed(s_->window.get()));
        QTRY_VERIFY(tray()->visible());
        if (hideBy == "minimise")
            s_->window->showMinimized();
        else
            s_->window->close();
        QTRY_VERIFY_WITH_TIMEOUT(!s_->window->isVisible(), 5000);
        QCOMPARE(s_->finished, 0);

        if (restoreBy == "menu") {
            action("mnuSTPopupRestore")->trigger();
        } else {
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
        }
        QTRY_VERIFY_WITH_TIMEOUT(s_->window->isVisible(), 5000);
        QVERIFY(!s_->window->isMinimized());
    }
};

int main(int argc, char** argv)
{
    // The tray needs the X server: this test does not run offscreen.
    if (startDisplay())
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    TstTray test;
    const int rc = QTest::qExec(&test, argc, argv);
    for (auto* p : {trayHost.get(), xserver.get()}) {
        if (p) {
            p->terminate();
            p->waitForFinished(5000);
        }
    }
    return rc;
}

#include "tst_tray.moc"
