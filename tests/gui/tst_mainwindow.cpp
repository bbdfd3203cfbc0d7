// The operator's window over the whole server (offscreen): the widgets are
// found by their names and driven as the operator would, boxes are answered as
// they come up, printers are emulated where their answers matter.
#include "database/jobstore.h"
#include "foundation/cp1252.h"
#include "foundation/texts.h"
#include "gui/guitest.h"
#include "gui/pictures.h"
#include "gui/trayicon.h"
#include "service/printerlistmodel.h"
#include "service/printservice.h"
#include "support/dbfixture.h"

#include <QAction>
#include <QDialog>
#include <QElapsedTimer>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QStatusBar>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTreeView>

#include <algorithm>

using quill::GetString;
using quill::Operator;
using quill::Server;
using quill::dbtest::JobText;
using quill::test::BoxAnswerer;
using quill::test::Screenshot;
using quill::test::TestInstallation;
using quill::test::WindowSite;
using Btn = QMessageBox::StandardButton;

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

class TstMainWindow : public QObject {
    Q_OBJECT

    std::unique_ptr<WindowSite> s_;
    quint16 port_ = 0;

    quill::test::PrinterSite& inst() { return s_->site; }
    quill::MainWindow& win() { return *s_->window; }
    template <typename T = QWidget>
    T* find(const char* name) { return s_->find<T>(name); }
    QAction* action(const char* name) { return find<QAction>(name); }
    QString text(const char* label) { return find<QLabel>(label)->text(); }
    const quill::PrinterSlot& slot(int n) { return s_->server->printers().at(n); }
    quill::PrinterListModel& printerList() { return s_->server->printService().printerList(); }
    quill::JobListModel& jobList() { return s_->server->jobs().jobList(); }

    QStringList jobCaptions()
    {
        QStringList out;
        for (int r = 0; r < jobList().count(); ++r)
            out << jobList().rowAt(r).text.section(QLatin1Char(' '), 1);
        return out;
    }
    int storedJobs() { return inst().scalar("SELECT COUNT(*) FROM tbJob").toInt(); }

    // Jobs queued before the start, for a printer that never prints them.
    void queueJobs(const QStringList& captions, int printer = 4)
    {
        for (const QString& c : captions)
            QVERIFY(inst().sql("INSERT INTO tbJob (PrinterId, Job) VALUES (?, ?)",
                               {printer, JobText(printer, 1, "2", "KASSA1", "Anna", c)}));
    }
    // Printers without an emulator: 3 and 5 answer nothing (Error), 4 is passive.
    void addQuietPrinters(bool withFive = true)
    {
        QVERIFY(inst().addNetworkPrinter(3, "Entré", TestInstallation::freePort()));
        QVERIFY(inst().addNetworkPrinter(4, "Lager", TestInstallation::freePort(), true));
        if (withFive)
            QVERIFY(inst().addNetworkPrinter(5, "Shop", TestInstallation::freePort()));
    }
    void useEnglish()
    {
        inst().setMachineValue(QString(), "tLanguage", "UK", false);
        inst().setMachineValue(QString(), "dwCountryNo", 44, true);
    }
    bool startWindow()
    {
        if (s_->start() != Server::Started)
            return false;
        return QTest::qWaitForWindowExposed(&win()) || win().isMinimized();
    }
    // Waits until the start-up's status pass has its answers.
    bool settled()
    {
        return QTest::qWaitFor(
            [&] {
                for (int n = 1; n <= 5; ++n)
                    if (s_->server->printers().SrvPrinterExists(n) && slot(n).status == quill::StatusChecking)
                        return false;
                return true;
            },
            20000);
    }
    // changed: the service state changed since the start (until then the
    // notification-area tip is the window caption).
    void checkServiceShown(bool running, bool changed = true)
    {
        QCOMPARE(find<QPushButton>("cmdService")->text(), GetString(running ? 12054 : 12053));
        QCOMPARE(action("mnuSTPopupService")->text(), "&" + GetString(running ? 12054 : 12053));
        QCOMPARE(text("panSBStatusText"), GetString(running ? 12084 : 12085));
        QCOMPARE(find<QLabel>("panSBStatusPicture")->property("started").toBool(), running);
        QCOMPARE(win().trayIcon()->toolTip(),
                 changed ? GetString(running ? 12058 : 12057, GetString(9003)) : win().windowTitle());
        QCOMPARE(win().trayIcon()->showsStarted(), running);
        QCOMPARE(find<QPushButton>("cmdDeleteJob")->isEnabled(), !running);
        QCOMPARE(find<QPushButton>("cmdDeleteAllJob")->isEnabled(), !running);
        QCOMPARE(s_->op->serviceRunning(), running);
    }
    void selectJob(int row)
    {
        auto* view = find<QTreeView>("lvwJob");
        view->setCurrentIndex(view->model()->index(row, 0));
    }
    int selectedJob()
    {
        const QModelIndex i = find<QTreeView>("lvwJob")->currentIndex();
        return i.isValid() ? i.row() : -1;
    }
    void selectPrinter(int id)
    {
        auto* view = find<QTreeView>("lvwPrinter");
        view->setCurrentIndex(view->model()->index(printerList().rowOf(id), 0));
    }

private slots:
    void init()
    {
        s_ = std::make_unique<WindowSite>();
        QVERIFY(inst().ok());
        port_ = TestInstallation::freePort();
        QVERIFY(inst().setServer(port_, false));
        inst().setUserSwitch("dwUseLog", 1);
    }

    void cleanup() { s_.reset(); }

    // Every element the service state drives, from the start-up's state on;
    // without a listener the service cannot be started from the window.
    void serviceToggle_data()
    {
        QTest::addColumn<bool>("autoStart");
        QTest::addColumn<bool>("listener");
        QTest::newRow("stopped at start") << false << true;
        QTest::newRow("auto-started") << true << true;
        QTest::newRow("port taken") << true << false;
    }
    void serviceToggle()
    {
        QFETCH(bool, autoStart);
        QFETCH(bool, listener);
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::Any, 0));
        QVERIFY(inst().setServer(listener ? port_ : squatter.serverPort(), autoStart));
        BoxAnswerer boxes;
        boxes.answer({Btn::Ok});
        QVERIFY(startWindow());
        QCOMPARE(boxes.texts, listener ? QStringList{} : QStringList{GetString(12014)});
        QCOMPARE(find<QPushButton>("cmdService")->isEnabled(), listener);
        QCOMPARE(action("mnuSTPopupService")->isEnabled(), listener);
        checkServiceShown(autoStart && listener, autoStart && listener);
        if (!listener)
            return;
        QUILL_PRESS(find<QPushButton>("cmdService"));
        checkServiceShown(!autoStart);
        action("mnuSTPopupService")->trigger();
        checkServiceShown(autoStart);
    }

    // The delete commands reach the core with the selected job; the selection
    // stays on the same row (or the last one).
    void deleteJobs_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("select");
        QTest::addColumn<bool>("running");
        QTest::addColumn<QStringList>("boxes");
        QTest::addColumn<QStringList>("remaining");
        QTest::addColumn<int>("selected");
        const QStringList abc{"A", "B", "C"};
        QTest::newRow("button") << "button" << 1 << false << QStringList{"Vill du radera utskriftsjobbet '2 B' ?"}
                                << QStringList{"A", "C"} << 1;
        QTest::newRow("button, last row") << "button" << 2 << false
                                          << QStringList{"Vill du radera utskriftsjobbet '3 C' ?"} << QStringList{"A", "B"} << 1;
        QTest::newRow("delete key, service running") << "key" << 1 << true << QStringList{} << abc << 1;
        QTest::newRow("shift+delete") << "shift key" << 1 << false << QStringList{} << abc << 1;
    }
    void deleteJobs()
    {
        QFETCH(QString, command);
        QFETCH(int, select);
        QFETCH(bool, running);
        QFETCH(QStringList, boxes);
        QFETCH(QStringList, remaining);
        QFETCH(int, selected);
        addQuietPrinters(false);
        queueJobs({"A", "B", "C"});
        QVERIFY(startWindow());
        if (running)
            QUILL_PRESS(find<QPushButton>("cmdService"));
        selectJob(select);
        BoxAnswerer answers;
        answers.answer({Btn::Yes});
        if (command == "button")
            QUILL_PRESS(find<QPushButton>("cmdDeleteJob"));
        else if (quill::test::FocusOn(find<QTreeView>("lvwJob")))
            QUILL_KEY(Qt::Key_Delete, command == "key" ? Qt::NoModifier : Qt::ShiftModifier);
        else
            QFAIL("the job list takes no focus");
        QCOMPARE(answers.texts, boxes);
        QCOMPARE(answers.unexpected, 0);
        if (!boxes.isEmpty()) {
            QCOMPARE(answers.icons.first(), QMessageBox::Question);
            QCOMPARE(answers.titles.first(), GetString(9003));
            QCOMPARE(answers.parents.first(), &win());
        }
        QCOMPARE(jobCaptions(), remaining);
        QCOMPARE(storedJobs(), remaining.size());
        QCOMPARE(selectedJob(), selected);
    }

    // A question answered, the focus is back where it was: the next Delete
    // acts on the job list again, not on the printer list.
    void deleteKeyAfterAnswer()
    {
        addQuietPrinters(false);
        queueJobs({"A", "B", "C"});
        QVERIFY(startWindow());
        win().activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&win()));
        // Activated: the printer list has the focus; a click moves it to the jobs.
        QTRY_COMPARE(QApplication::focusWidget(), find<QWidget>("lvwPrinter"));
        auto* jobs = find<QTreeView>("lvwJob");
        QTest::mouseClick(jobs->viewport(), Qt::LeftButton, {}, jobs->visualRect(jobs->model()->index(0, 0)).center());
        QTRY_COMPARE(QApplication::focusWidget(), jobs);

        const int printers = printerList().rowCount();
        BoxAnswerer boxes;
        boxes.answer({Btn::Yes, Btn::No});
        QUILL_KEY(Qt::Key_Delete);
        QTRY_COMPARE(boxes.texts.size(), 1);
        QTRY_VERIFY(QApplication::activeWindow() == &win());
        QTRY_COMPARE(QApplication::focusWidget(), jobs);
        QUILL_KEY(Qt::Key_Delete);
        QTRY_COMPARE(boxes.texts, (QStringList{boxes.texts.first(), "Vill du radera utskriftsjobbet '2 B' ?"}));
        QCOMPARE(boxes.unexpected, 0);
        QCOMPARE(printerList().rowCount(), printers);
    }

    // The columns share the lists' width at any window size (maximised too).
    void columnsFollowWidth()
    {
        QVERIFY(startWindow());
        for (const QSize size : {QSize(700, 480), QSize(1400, 900)}) {
            win().resize(size);
            for (const auto& [name, share] : {std::pair{"lvwPrinter", 0.7}, std::pair{"lvwJob", 0.3}}) {
                auto* view = find<QTreeView>(name);
                QTRY_VERIFY(qAbs(view->columnWidth(0) - view->viewport()->width() * share) <= 2);
                auto covered = [view] {
                    int sum = 0;
                    for (int c = 0; c < view->model()->columnCount(); ++c)
                        sum += view->columnWidth(c);
                    return sum;
                };
                QTRY_VERIFY2(covered() == view->viewport()->width(),
                             qPrintable(QStringLiteral("%1: %2 of %3").arg(name).arg(covered()).arg(view->viewport()->width())));
            }
        }
        Screenshot(&win(), "mainwindow-wide");

        // The operator drags the job list's first divider to half the width;
        // the column keeps that share when the window is made smaller.
        auto* jobs = find<QTreeView>("lvwJob");
        QHeaderView* header = jobs->header();
        const int divider = header->sectionViewportPosition(0) + header->sectionSize(0) - 1;
        const int half = jobs->viewport()->width() / 2;
        const int y = header->height() / 2;
        QTest::mousePress(header->viewport(), Qt::LeftButton, {}, QPoint(divider, y));
        QTest::mouseMove(header->viewport(), QPoint((divider + half) / 2, y));
        QTest::mouseMove(header->viewport(), QPoint(half, y));
        QTest::mouseRelease(header->viewport(), Qt::LeftButton, {}, QPoint(half, y));
        QTRY_VERIFY2(qAbs(jobs->columnWidth(0) - half) <= 3, qPrintable(QString::number(jobs->columnWidth(0))));
        win().resize(700, 480);
        QTRY_VERIFY2(qAbs(jobs->columnWidth(0) - jobs->viewport()->width() / 2) <= 3,
                     qPrintable(QStringLiteral("%1 of %2").arg(jobs->columnWidth(0)).arg(jobs->viewport()->width())));
    }

    // A burst of printer changes reaches the view as at most one repaint now and
    // one when the tenth of a second is up, covering the changed row.
    void printerChangesPaced()
    {
        addQuietPrinters(false);
        QVERIFY(startWindow());
        QVERIFY(settled());
        QAbstractItemModel* shown = find<QTreeView>("lvwPrinter")->model();
        QSignalSpy told(shown, &QAbstractItemModel::dataChanged);
        const qint32 id = printerList().printerAt(printerList().rowCount() - 1);
        const int changed = printerList().rowOf(id);
        quill::PrinterListModel& source = printerList();
        for (int i = 0; i < 50; ++i)
            emit source.dataChanged(source.index(changed, 0), source.index(changed, source.columnCount() - 1));
        QVERIFY2(told.size() <= 1, qPrintable(QString::number(told.size())));
        QTRY_VERIFY(told.size() >= 1);
        QTest::qWait(300);
        QVERIFY(told.size() <= 2);
        const auto last = told.last();
        const int row = printerList().rowOf(id);
        QVERIFY(last.at(0).toModelIndex().row() <= row && last.at(1).toModelIndex().row() >= row);
    }

    // The job list under a stream of changes repaints at most about ten times a
    // second, and shows the last state once the stream stops.
    void jobListRepaintsPaced()
    {
        queueJobs({"A", "B", "C"});
        QVERIFY(startWindow());
        QVERIFY(QTest::qWaitForWindowExposed(&win()));
        QWidget* viewport = find<QTreeView>("lvwJob")->viewport();
        QElapsedTimer clock;
        clock.start();
        struct PaintCounter : QObject {
            explicit PaintCounter(const QElapsedTimer& c) : clock(c) {}
            const QElapsedTimer& clock;
            int paints = 0;
            qint64 lastPaint = -1;
            bool eventFilter(QObject*, QEvent* e) override
            {
                if (e->type() == QEvent::Paint) {
                    ++paints;
                    lastPaint = clock.elapsed();
                }
                return false;
            }
        } counter(clock);
        viewport->installEventFilter(&counter);
        QAbstractItemModel& jobs = s_->server->jobs().jobList();
        QTest::qWait(200);
        counter.paints = 0;
        const qint64 start = clock.elapsed();
        qint64 lastChange = 0;
        for (int i = 0; i < 60; ++i) {
            lastChange = clock.elapsed();
            emit jobs.dataChanged(jobs.index(0, 0), jobs.index(0, jobs.columnCount() - 1));
            QTest::qWait(5);
        }
        const qint64 ms = clock.elapsed() - start;
        QVERIFY2(counter.paints >= 1 && counter.paints <= ms / 100 + 2,
                 qPrintable(QStringLiteral("%1 repaints in %2 ms").arg(counter.paints).arg(ms)));
        QTRY_VERIFY(viewport->updatesEnabled() && counter.lastPaint >= lastChange);
    }

    // The printer list's commands reach the core: the dialogs open (an edited
    // printer Configuring meanwhile, its status back after Cancel), a deletion
    // asks first.
    void printerCommands_data()
    {
        QTest::addColumn<QString>("trigger");
        QTest::addColumn<QString>("question"); // empty: the printer dialog opens
        const QString q = "Vill du ta bort skrivaren '3 Entré på 127.0.0.1' ?";
        QTest::newRow("new, menu") << "mnuPrinterNew" << "";
        QTest::newRow("edit, enter") << "enter" << "";
        QTest::newRow("edit, double-click") << "double-click" << "";
        QTest::newRow("delete, key") << "delete" << q;
        QTest::newRow("delete, menu") << "mnuPrinterDelete" << q;
    }
    void printerCommands()
    {
        QFETCH(QString, trigger);
        QFETCH(QString, question);
        addQuietPrinters(false);
        QVERIFY(startWindow());
        QVERIFY(settled());
        selectPrinter(3);
        const int status = slot(3).status;
        QList<int> seen;
        connect(&printerList(), &QAbstractItemModel::dataChanged, this, [&] { seen << slot(3).status; });
        BoxAnswerer boxes;
        boxes.answer({Btn::Yes});
        auto* view = find<QTreeView>("lvwPrinter");
        const QPoint row = view->visualRect(view->currentIndex()).center();
        if (trigger == "enter" || trigger == "delete") {
            QVERIFY(quill::test::FocusOn(view));
            QUILL_KEY(trigger == "enter" ? Qt::Key_Return : Qt::Key_Delete);
        } else if (trigger == "double-click") {
            QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, row);
            QTest::mouseDClick(view->viewport(), Qt::LeftButton, {}, row);
        } else {
            action(trigger.toLatin1())->trigger();
        }
        QCOMPARE(boxes.texts, question.isEmpty() ? QStringList{} : QStringList{question});
        QList<int> printers;
        for (int r = 0; r < printerList().rowCount(); ++r)
            printers << printerList().printerAt(r);
        QCOMPARE(printers, (question.isEmpty() ? QList<int>{3, 4} : QList<int>{4}));
        QCOMPARE(inst().scalar("SELECT COUNT(*) FROM tbPrinter").toInt(), printers.size());
        if (!question.isEmpty())
            return;
        auto* dialog = quill::test::TopLevel("frmSrvPrinter");
        QVERIFY(dialog);
        QVERIFY(!win().isEnabled());
        const bool edit = trigger != "mnuPrinterNew";
        QCOMPARE(seen.contains(quill::StatusConfiguring), edit);
        QCOMPARE(dialog->findChild<QLineEdit*>("txtPrinterName")->text(), edit ? "Entré" : "");
        QUILL_PRESS(dialog->findChild<QPushButton*>("cmdCancel"));
        QCOMPARE(slot(3).status, status);
        QVERIFY(!s_->op->printerDialogOpen());
        QTRY_VERIFY(win().isEnabled());
    }

    // Both refresh commands reach their pass; the busy pointer shows while it runs.
    void refresh_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("refresh") << "mnuPrinterUpdateAll";
        QTest::newRow("full refresh") << "mnuPrinterUpdateAllFull";
    }
    void refresh()
    {
        QFETCH(QString, command);
        QVERIFY2(inst().start(), qPrintable(inst().errorText()));
        QVERIFY(startWindow());
        QVERIFY(settled());
        s_->server->printers().SrvSetPrinterStatus(1, quill::StatusError, "Papper slut");
        QList<int> cursors;
        connect(&printerList(), &QAbstractItemModel::dataChanged, this, [&] {
            cursors << (QApplication::overrideCursor() ? int(QApplication::overrideCursor()->shape()) : -1);
        });
        action(command.toLatin1())->trigger();
        QVERIFY(!cursors.isEmpty());
        QCOMPARE(cursors.first(), int(Qt::WaitCursor));
        // The full refresh's serial lines are set on the worker: busy until then.
        QTRY_COMPARE_WITH_TIMEOUT(QApplication::overrideCursor(), nullptr, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(slot(1).status, int(quill::StatusReady), 20000);
    }

    // The exit commands ask the quit question when it is on; the session's end
    // never asks and is never refused. Closing from the title bar keeps the
    // server running (no notification area offscreen: the window is minimised
    // instead of hidden).
    void exitCommands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("question");
        QTest::addColumn<Btn>("answer");
        QTest::addColumn<int>("finished");
        QTest::newRow("menu, question, Cancel") << "mnuExit" << true << Btn::Cancel << 0;
        QTest::newRow("tray menu, question, OK") << "mnuSTPopupExit" << true << Btn::Ok << 1;
        QTest::newRow("escape, no question") << "escape" << false << Btn::NoButton << 1;
        QTest::newRow("session ends, printer working") << "session" << true << Btn::NoButton << 1;
        QTest::newRow("title bar, question") << "close" << true << Btn::NoButton << 0;
    }
    void exitCommands()
    {
        QFETCH(QString, command);
        QFETCH(bool, question);
        QFETCH(Btn, answer);
        QFETCH(int, finished);
        inst().setUserSwitch("dwQuitQuestion", question ? 1 : 0);
        addQuietPrinters(false);
        QVERIFY(startWindow());
        BoxAnswerer boxes;
        if (answer != Btn::NoButton)
            boxes.answer({answer});
        if (command == "escape") {
            QVERIFY(quill::test::FocusOn(find<QWidget>("lvwPrinter")));
            QUILL_KEY(Qt::Key_Escape);
        } else if (command == "session") {
            QVERIFY(settled());
            s_->server->printers().SrvSetPrinterStatus(3, quill::StatusWorking, GetString(12077));
            win().endSession();
        } else if (command == "close") {
            QVERIFY(!win().close());
            QTRY_VERIFY(win().isMinimized());
        } else {
            action(command.toLatin1())->trigger();
        }
        const QStringList expected =
            answer != Btn::NoButton ? QStringList{"Vill du avsluta Brixa - Printerserver?"} : QStringList{};
        QCOMPARE(boxes.texts, expected);
        QCOMPARE(boxes.unexpected, 0);
        QCOMPARE(s_->finished, finished);
        QCOMPARE(inst().log().contains("Quillbase terminated."), finished == 1);
        if (finished == 0) {
            QVERIFY(win().isVisible());
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, port_);
            QVERIFY(client.waitForConnected(5000));
        }
    }

    // The window is up, in its language and with the busy pointer, while the
    // start-up's status pass asks the printers.
    void shownWhileStarting()
    {
        addQuietPrinters(false);
        s_->build();
        bool seen = false, visible = false;
        QString title;
        int cursor = -1;
        connect(&s_->server->printers(), &quill::PrinterSlots::statusChanged, this, [&](qint32 n) {
            if (seen || !s_->server->starting() || slot(n).status != quill::StatusChecking)
                return;
            seen = true;
            visible = win().isVisible();
            title = win().windowTitle();
            cursor = QApplication::overrideCursor() ? int(QApplication::overrideCursor()->shape()) : -1;
        });
        QCOMPARE(s_->start(), Server::Started);
        QVERIFY(seen);
        QVERIFY(visible);
        QCOMPARE(title, " Brixa - Printerserver");
        QCOMPARE(cursor, int(Qt::WaitCursor));
        QCOMPARE(QApplication::overrideCursor(), nullptr);
    }

    void startMinimised_data()
    {
        QTest::addColumn<bool>("minimised");
        QTest::newRow("normal") << false;
        QTest::newRow("minimised") << true;
    }
    void startMinimised()
    {
        QFETCH(bool, minimised);
        QVERIFY(inst().sql("UPDATE tbServer SET StartMinimized = ?", {minimised ? 1 : 0}));
        QCOMPARE(s_->start(), Server::Started);
        // No notification area offscreen: minimised stays on the taskbar.
        QVERIFY(!quill::TrayIcon::available());
        QTRY_COMPARE(win().isMinimized(), minimised);
        QVERIFY(win().isVisible());
        QCOMPARE(inst().log().count("No notification area"), 1);
    }

    // A real client's request lights the traffic panel; a second later it is dark again.
    void trafficPanel_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("state");
        QTest::newRow("print request") << quill::ToCp1252(JobText(3, 1, "1", "KASSA1", "Anna", "Greenfee"))
                                       << int(quill::TrafficIndicator::ReceivingJob);
        QTest::newRow("other request") << QByteArray("HELLO") << int(quill::TrafficIndicator::OtherTraffic);
    }
    void trafficPanel()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, state);
        QVERIFY(inst().setServer(port_, true));
        addQuietPrinters(false);
        QVERIFY(startWindow());
        QVERIFY(settled());
        auto* panel = find<QLabel>("panSBTrafficPicture");
        QCOMPARE(panel->property("trafficState").toInt(), int(quill::TrafficIndicator::NoTraffic));
        QCOMPARE(panel->toolTip(), GetString(12140));

        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, port_);
        QVERIFY(client.waitForConnected(5000));
        client.write(request);
        // Shown for a second (within a tenth of one of the change).
        QTRY_COMPARE_WITH_TIMEOUT(panel->property("trafficState").toInt(), state, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(panel->property("trafficState").toInt(), int(quill::TrafficIndicator::NoTraffic), 5000);
        QCOMPARE(panel->toolTip(), GetString(12140));
    }

    // Captions, headers and status texts in Swedish and with the UK language
    // file in English; screenshots of both, service stopped and started, with
    // printers in every status and jobs queued.
    void captions_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<bool>("silent");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("sv") << "sv" << false
                            << QStringList{" Brixa - Printerserver", "Radera ALLA jobb", "&Arkiv",
                                           "&Fullständig uppdatering", "&Återställ", "Arbetsstation", "Stoppad", "Klar"};
        QTest::newRow("en, silent mode") << "en" << true
                            << QStringList{" Brixa - Print Server", "Delete ALL jobs", "&File", "&Full refresh",
                                           "&Restore", "Workstation", "Stopped", "Ready"};
    }
    void captions()
    {
        QFETCH(QString, language);
        QFETCH(bool, silent);
        QFETCH(QStringList, expected);
        if (language == "en")
            useEnglish();
        inst().setUserSwitch("dwSilentMode", silent ? 1 : 0);
        QVERIFY2(inst().start(), qPrintable(inst().errorText()));
        addQuietPrinters(true);
        queueJobs({"Greenfee 18 hål", "Scorekort", "Bagtag"}, 4);
        queueJobs({"Greenfee 9 hål"}, 3);
        QVERIFY(startWindow());
        QVERIFY(settled());

        const QStringList shown{win().windowTitle(),
                                find<QPushButton>("cmdDeleteAllJob")->text(),
                                find<QMenu>("mnuFile")->title(),
                                action("mnuPrinterUpdateAllFull")->text(),
                                action("mnuSTPopupRestore")->text(),
                                find<QTreeView>("lvwJob")->model()->headerData(3, Qt::Horizontal).toString(),
                                text("panSBStatusText"),
                                printerList().index(printerList().rowOf(1), 1).data().toString()};
        QCOMPARE(shown, expected);
        QCOMPARE(find<QLabel>("panSBSilent")->isVisible(), silent);
        QCOMPARE(text("panSBSilent"), language == "en" ? "Silent mode" : "Tyst läge");
        // No caption is left in its marker form.
        for (QAction* a : win().findChildren<QAction*>())
            QVERIFY2(!a->text().startsWith("#"), qPrintable(a->objectName() + ": " + a->text()));
        for (QAbstractButton* b : win().findChildren<QAbstractButton*>())
            QVERIFY2(!b->text().startsWith("#"), qPrintable(b->objectName() + ": " + b->text()));
        QVERIFY(text("panSBServerText").startsWith(GetString(9003) + ' '));
        QVERIFY(text("panSBServerText").size() > GetString(9003).size() + 1);

        // A question in the same language, buttons included.
        BoxAnswerer question;
        question.answer({Btn::No});
        question.onBox = [&](QMessageBox* box) { Screenshot(box, "question-" + language); };
        QUILL_PRESS(find<QPushButton>("cmdDeleteAllJob"));
        QCOMPARE(question.texts, QStringList{GetString(12042)});
        QCOMPARE(question.titles.first(), GetString(9003));
        QStringList buttons = question.buttons.first();
        buttons.sort();
        QCOMPARE(buttons, (language == "en" ? QStringList{"&No", "&Yes"} : QStringList{"&Ja", "&Nej"}));
        QCOMPARE(jobList().count(), 4);

        // Every status in the list: 1 and 2 answer (Ready), 3 and 5 do not
        // (Error), 4 is passive; 5 is shown Checking for the picture.
        s_->server->printers().SrvSetPrinterStatus(5, quill::StatusChecking, GetString(12050));
        Screenshot(&win(), "mainwindow-" + language + "-stopped");
        QUILL_PRESS(find<QPushButton>("cmdService"));
        s_->server->printers().SrvSetPrinterStatus(2, quill::StatusWorking, GetString(12077));
        s_->server->printers().SrvSetPrinterStatus(5, quill::StatusConfiguring, GetString(12074));
        QCOMPARE(text("panSBStatusText"), language == "en" ? "Started" : "Startad");
        Screenshot(&win(), "mainwindow-" + language + "-started");
        auto* popup = find<QMenu>("mnuSTPopupSys");
        popup->popup(win().mapToGlobal(QPoint(40, 40)));
        QVERIFY(QTest::qWaitForWindowExposed(popup));
        Screenshot(popup, "traymenu-" + language);
        popup->close();
        action("mnuAbout")->trigger();
        QTRY_VERIFY(find<QDialog>("frmAbout") && find<QDialog>("frmAbout")->isVisible());
        find<QDialog>("frmAbout")->close();
    }

    // Every picture the window looks up exists, at 16 px and at twice that;
    // the sheet is for looking at them.
    void pictures()
    {
        QList<QIcon> icons;
        for (int code : {0, 1, 2, 3, 4, 5})
            icons << quill::StatusPicture(quill::StatusWord(code));
        QVERIFY(quill::StatusPicture("no such word").isNull());
        for (int t = 1; t <= 9; ++t)
            icons << quill::PrinterTypePicture("PType" + QString::number(t));
        icons << quill::ServicePicture(true) << quill::ServicePicture(false) << quill::TrayPicture(true)
              << quill::TrayPicture(false) << quill::ServerPicture();
        for (auto st : {quill::TrafficIndicator::NoTraffic, quill::TrafficIndicator::OtherTraffic,
                        quill::TrafficIndicator::ReceivingJob})
            icons << quill::TrafficPicture(st);
        // Made once: the lists ask on every paint and get the same icon (its
        // rendered pixmaps cached with it) each time.
        QCOMPARE(quill::StatusPicture(quill::StatusWord(1)).cacheKey(), icons[1].cacheKey());
        QCOMPARE(quill::PrinterTypePicture("PType3").cacheKey(), icons[6 + 2].cacheKey());
        QCOMPARE(quill::TrafficPicture(quill::TrafficIndicator::ReceivingJob).cacheKey(), icons.last().cacheKey());
        QImage sheet(icons.size() * 52 + 8, 60, QImage::Format_ARGB32);
        sheet.fill(Qt::white);
        QPainter p(&sheet);
        for (int i = 0; i < icons.size(); ++i) {
            const QPixmap small = icons[i].pixmap(16, 16);
            const QPixmap big = icons[i].pixmap(32, 32);
            QVERIFY2(!small.isNull() && !big.isNull(), qPrintable(QString::number(i)));
            QCOMPARE(small.size(), QSize(16, 16));
            p.drawPixmap(8 + i * 52, 4, small);
            p.drawPixmap(8 + i * 52, 24, big);
        }
        p.end();
        sheet.save(quill::test::ScreenshotDir() + "/pictures.png");
        // Each printer type looks different from the others.
        QSet<QByteArray> types;
        for (int t = 1; t <= 9; ++t) {
            const QImage img = quill::PrinterTypePicture("PType" + QString::number(t)).pixmap(16, 16).toImage();
            types << QByteArray(reinterpret_cast<const char*>(img.constBits()), img.sizeInBytes());
        }
        QCOMPARE(types.size(), 9);
    }

    // Without a display (and without --headless) one line that names
    // --headless, and an ordinary non-zero exit.
    void noDisplay_data()
    {
        QTest::addColumn<QString>("display");
        QTest::newRow("no DISPLAY") << QString();
        QTest::newRow("DISPLAY without a server") << ":57913";
    }
    void noDisplay()
    {
        QFETCH(QString, display);
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove("QT_QPA_PLATFORM");
        env.remove("WAYLAND_DISPLAY");
        env.remove("DISPLAY");
        if (!display.isEmpty())
            env.insert("DISPLAY", display);
        p.setProcessEnvironment(env);
        p.start(QStringLiteral(QUILL_BIN_DIR "/quillbase"), {"--home", inst().path()});
        QVERIFY(p.waitForFinished(20000));
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        QCOMPARE(p.exitCode(), 3);
        const QStringList lines = QString::fromUtf8(p.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().contains("--headless"), qPrintable(lines.first()));
        QVERIFY(!inst().log().contains("Quillbase succesfully started"));
    }
};

QTEST_MAIN(TstMainWindow)
#include "tst_mainwindow.moc"
