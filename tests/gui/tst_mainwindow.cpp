// The operator's window and its dialogs over the whole server (offscreen),
// printer 1 on an emulated network box, printer 2 on an emulated serial line.
// Each control, driven as the operator would (mouse where it shows, keys to the
// focused widget, boxes answered as they come up), reaches its command and
// shows its outcome; the looks in Swedish and English go to build/screenshots/.
#include "database/jobstore.h"
#include "gui/guitest.h"
#include "gui/printerdialog.h"
#include "gui/queuetools.h"
#include "gui/trayicon.h"
#include "service/printerlistmodel.h"
#include "service/printservice.h"
#include "support/dbfixture.h"

#include <QAction>
#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTreeView>
#include <QWindow>

using quill::GetString;
using quill::test::BoxAnswerer;
using quill::test::Popup;
using quill::test::Screenshot;
using quill::test::TestInstallation;
using quill::test::TopLevel;
using Btn = QMessageBox::StandardButton;


class TstMainWindow : public QObject {
    Q_OBJECT

    std::unique_ptr<quill::test::WindowSite> s_;
    quint16 port_ = 0;

    quill::test::PrinterSite& inst() { return s_->site; }
    quill::MainWindow& win() { return *s_->window; }
    template <typename T = QWidget>
    T* find(const char* name) { return s_->window->findChild<T*>(QLatin1String(name)); }
    quill::PrinterListModel& printerList() { return s_->server->printService().printerList(); }
    quill::JobListModel& jobList() { return s_->server->jobs().jobList(); }
    // Printers without an emulator: 3 (and 5) answer nothing, so their jobs
    // wait; 4 is passive. The jobs are queued on the printer given.
    void addQuietPrinters(const QStringList& jobs = {}, int printer = 3, bool withFive = false)
    {
        QVERIFY(inst().addNetworkPrinter(3, "Entré", TestInstallation::freePort()));
        QVERIFY(inst().addNetworkPrinter(4, "Lager", TestInstallation::freePort(), true));
        if (withFive)
            QVERIFY(inst().addNetworkPrinter(5, "Shop", TestInstallation::freePort()));
        for (const QString& c : jobs)
            QVERIFY(inst().sql("INSERT INTO tbJob (PrinterId, Job) VALUES (?, ?)",
                               {printer, quill::dbtest::JobText(printer, 1, "1", "KASSA1", "Anna", c)}));
    }
    void checkServiceShown(bool running)
    {
        QCOMPARE(find<QPushButton>("cmdService")->text(), GetString(running ? 12054 : 12053));
        QCOMPARE(find<QLabel>("panSBStatusText")->text(), GetString(running ? 12084 : 12085));
        QCOMPARE(win().trayIcon()->showsStarted(), running);
        QCOMPARE(find<QPushButton>("cmdDeleteJob")->isEnabled(), !running);
        QCOMPARE(find<QPushButton>("cmdDeleteAllJob")->isEnabled(), !running);
    }
    void selectRow(const char* list, int row)
    {
        auto* view = find<QTreeView>(list);
        view->setCurrentIndex(view->model()->index(row, 0));
    }
    // A right click on the job list's row, through the window as the platform
    // delivers it: the context menu follows from it.
    QMenu* rightClickJob(int row)
    {
        auto* view = find<QTreeView>("lvwJob");
        const QRect r = view->visualRect(view->model()->index(row, 0));
        if (r.isEmpty())
            return nullptr;
        QTest::mouseClick(win().windowHandle(), Qt::RightButton, Qt::NoModifier,
                          view->viewport()->mapTo(&win(), r.center()));
        return QTest::qWaitFor([] { return Popup() != nullptr; }, 5000) ? Popup() : nullptr;
    }
    // The job's move submenu of the given name, opened.
    QMenu* moveMenu(int row, const char* name)
    {
        if (!quill::test::ClickEntryFailure(rightClickJob(row), QLatin1String(name)).isEmpty())
            return nullptr;
        const auto open = [name] { return Popup() && Popup()->objectName() == QLatin1String(name); };
        return QTest::qWaitFor(open, 5000) ? Popup() : nullptr;
    }
    QVariant column(int printer, const QString& name)
    {
        return inst().scalar(QStringLiteral("SELECT %1 FROM tbPrinter WHERE Id = %2").arg(name).arg(printer));
    }
    // Swedish and English rows; the code names the screenshots.
    static void languageRows()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("Swedish") << "sv";
        QTest::newRow("English") << "en";
    }
    QString rowLanguage()
    {
        QFETCH(QString, language);
        if (language == "en") {
            inst().setMachineValue(QString(), "tLanguage", "UK", false);
            inst().setMachineValue(QString(), "dwCountryNo", 44, true);
        }
        return language;
    }
    // The printer's dialog from the window's menu; id -1 for a new printer.
    quill::PrinterDialog* openPrinter(int id)
    {
        if (id > 0)
            selectRow("lvwPrinter", printerList().rowOf(id));
        const QString why = quill::test::ChooseFailure(&win(), id > 0 ? "mnuPrinterEdit" : "mnuPrinterNew");
        if (!why.isEmpty()) {
            qWarning("%s", qPrintable(why));
            return nullptr;
        }
        const auto open = [] { return TopLevel("frmSrvPrinter") != nullptr; };
        return QTest::qWaitFor(open, 5000) ? TopLevel<quill::PrinterDialog>("frmSrvPrinter") : nullptr;
    }
    template <typename T = QWidget>
    static T* in(QWidget* dialog, const char* name)
    {
        return dialog->findChild<T*>(QLatin1String(name));
    }
    // Pressed with the mouse where the button shows; a hidden or zero-size one fails.
    static void click(QWidget* dialog, const char* name) { QUILL_PRESS(in<QAbstractButton>(dialog, name)); }

private slots:
    void init()
    {
        s_ = std::make_unique<quill::test::WindowSite>();
        QVERIFY2(inst().start(), qPrintable(inst().errorText()));
        port_ = TestInstallation::freePort();
        QVERIFY(inst().setServer(port_, false));
        inst().setUserSwitch("dwUseLog", 1);
    }
    void cleanup() { s_.reset(); }

    // Every element the service state drives, from the automatic start on;
    // without a listener the service cannot be started from the window.
    void serviceToggle_data()
    {
        QTest::addColumn<bool>("listener");
        QTest::newRow("auto-started") << true;
        QTest::newRow("port taken") << false;
    }
    void serviceToggle()
    {
        QFETCH(bool, listener);
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::Any, 0));
        QVERIFY(inst().setServer(listener ? port_ : squatter.serverPort(), true));
        BoxAnswerer boxes; // the port's, when taken
        QVERIFY(s_->startSettled());
        QCOMPARE(find<QPushButton>("cmdService")->isEnabled(), listener);
        QCOMPARE(find<QAction>("mnuSTPopupService")->isEnabled(), listener);
        checkServiceShown(listener);
        if (!listener)
            return;
        QUILL_PRESS(find<QPushButton>("cmdService"));
        checkServiceShown(false);
        QUILL_CHOOSE(&win(), "mnuSTPopupService");
        checkServiceShown(true);
    }

    // The delete commands reach the core with the selected job; the selection
    // stays on the same row, or the last one. A question answered, the focus
    // is back in the job list (not in the printer list, as on activation).
    void deleteJobs_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("select");
        QTest::addColumn<QString>("question"); // empty: nothing asked, nothing deleted
        QTest::newRow("button, last row") << "button" << 2 << "Vill du radera utskriftsjobbet '3 C' ?";
        QTest::newRow("delete key") << "key" << 1 << "Vill du radera utskriftsjobbet '2 B' ?";
        QTest::newRow("shift+delete") << "shift key" << 1 << "";
    }
    void deleteJobs()
    {
        QFETCH(QString, command);
        QFETCH(int, select);
        QFETCH(QString, question);
        addQuietPrinters({"A", "B", "C"}, 4);
        QVERIFY(s_->startSettled());
        selectRow("lvwJob", select);
        auto* jobs = find<QTreeView>("lvwJob");
        BoxAnswerer answers;
        answers.answer({Btn::Yes});
        if (command == "button")
            QUILL_PRESS(find<QPushButton>("cmdDeleteJob"));
        else if (quill::test::FocusOn(jobs))
            QUILL_KEY(Qt::Key_Delete, command == "key" ? Qt::NoModifier : Qt::ShiftModifier);
        else
            QFAIL("the job list takes no focus");
        QCOMPARE(answers.texts, question.isEmpty() ? QStringList{} : QStringList{question});
        QCOMPARE(answers.parents, question.isEmpty() ? QList<QWidget*>{} : QList<QWidget*>{&win()});
        QCOMPARE(jobList().count(), question.isEmpty() ? 3 : 2);
        QCOMPARE(jobs->currentIndex().row(), 1);
        if (command == "key")
            QTRY_COMPARE(QApplication::focusWidget(), jobs);
    }

    // The printer list's commands: the dialog opens (on the selected printer
    // for an edit), a deletion asks first. Cancel, Escape in a filtered box and
    // the close box close the dialog, and the printer has its status back.
    void printerCommands_data()
    {
        QTest::addColumn<QString>("trigger");
        QTest::addColumn<QString>("question"); // empty: the printer dialog opens
        QTest::addColumn<QString>("close");
        const QString q = "Vill du ta bort skrivaren '3 Entré på 127.0.0.1' ?";
        QTest::newRow("new, menu, Cancel") << "mnuPrinterNew" << "" << "cancel";
        QTest::newRow("edit, enter, Escape") << "enter" << "" << "escape";
        QTest::newRow("edit, double-click, close box") << "double-click" << "" << "close box";
        QTest::newRow("delete, key") << "delete" << q << "";
        QTest::newRow("delete, menu") << "mnuPrinterDelete" << q << "";
    }
    void printerCommands()
    {
        QFETCH(QString, trigger);
        QFETCH(QString, question);
        QFETCH(QString, close);
        addQuietPrinters();
        QVERIFY(s_->startSettled());
        selectRow("lvwPrinter", printerList().rowOf(3));
        const int status = s_->slot(3).status;
        auto* view = find<QTreeView>("lvwPrinter");
        const QPoint row = view->visualRect(view->currentIndex()).center();
        BoxAnswerer boxes;
        boxes.answer({Btn::Yes});
        if (trigger == "enter" || trigger == "delete") {
            QVERIFY(quill::test::FocusOn(view));
            QUILL_KEY(trigger == "enter" ? Qt::Key_Return : Qt::Key_Delete);
        } else if (trigger == "double-click") {
            QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, row);
            QTest::mouseDClick(view->viewport(), Qt::LeftButton, {}, row);
        } else {
            QUILL_CHOOSE(&win(), qPrintable(trigger));
        }
        QCOMPARE(boxes.texts, question.isEmpty() ? QStringList{} : QStringList{question});
        QCOMPARE(printerList().rowCount(), question.isEmpty() ? 4 : 3);
        if (!question.isEmpty())
            return;
        auto* dialog = TopLevel("frmSrvPrinter");
        QVERIFY(dialog);
        QVERIFY(!win().isEnabled());
        QCOMPARE(in<QLineEdit>(dialog, "txtPrinterName")->text(), trigger == "mnuPrinterNew" ? "" : "Entré");
        if (close == "escape") {
            QVERIFY(quill::test::FocusOn(in<QWidget>(dialog, "txtNetIP")));
            QUILL_KEY(Qt::Key_Escape);
        } else if (close == "close box") {
            dialog->close();
        } else {
            click(dialog, "cmdCancel");
        }
        QTRY_VERIFY(!TopLevel("frmSrvPrinter") && win().isEnabled());
        QCOMPARE(s_->slot(3).status, status);
    }

    // Both refresh commands reach their pass; the busy pointer shows while it runs.
    void refresh()
    {
        QVERIFY(s_->startSettled());
        QList<int> cursors;
        connect(&printerList(), &QAbstractItemModel::dataChanged, this, [&] {
            cursors << (QApplication::overrideCursor() ? int(QApplication::overrideCursor()->shape()) : -1);
        });
        for (const char* command : {"mnuPrinterUpdateAll", "mnuPrinterUpdateAllFull"}) {
            s_->server->printers().SrvSetPrinterStatus(1, quill::StatusError, "Papper slut");
            cursors.clear();
            QUILL_CHOOSE(&win(), command);
            QCOMPARE(cursors.value(0, -1), int(Qt::WaitCursor));
            // The full refresh's serial lines are set on the worker: busy until then.
            QTRY_COMPARE_WITH_TIMEOUT(QApplication::overrideCursor(), nullptr, 20000);
            QTRY_COMPARE_WITH_TIMEOUT(s_->slot(1).status, int(quill::StatusReady), 20000);
        }
    }

    // The exit commands ask the quit question; the session's end never asks.
    // Closing from the title bar keeps the server running (no notification
    // area offscreen: the window is minimised instead of hidden).
    void exitCommands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<Btn>("answer");
        QTest::addColumn<int>("finished");
        QTest::newRow("menu, Cancel") << "mnuExit" << Btn::Cancel << 0;
        QTest::newRow("tray menu, OK") << "mnuSTPopupExit" << Btn::Ok << 1;
        QTest::newRow("escape, OK") << "escape" << Btn::Ok << 1;
        QTest::newRow("session ends, printer working") << "session" << Btn::NoButton << 1;
        QTest::newRow("title bar") << "close" << Btn::NoButton << 0;
    }
    void exitCommands()
    {
        QFETCH(QString, command);
        QFETCH(Btn, answer);
        QFETCH(int, finished);
        inst().setUserSwitch("dwQuitQuestion", 1);
        addQuietPrinters();
        QVERIFY(s_->startSettled());
        BoxAnswerer boxes;
        boxes.answer({answer});
        if (command == "escape") {
            QVERIFY(quill::test::FocusOn(find<QWidget>("lvwPrinter")));
            QUILL_KEY(Qt::Key_Escape);
        } else if (command == "session") {
            s_->server->printers().SrvSetPrinterStatus(3, quill::StatusWorking, GetString(12077));
            win().endSession();
        } else if (command == "close") {
            QVERIFY(!win().close());
            QTRY_VERIFY(win().isMinimized());
        } else {
            QUILL_CHOOSE(&win(), qPrintable(command));
        }
        QCOMPARE(boxes.texts, answer != Btn::NoButton ? QStringList{GetString(12023, GetString(9003))} : QStringList{});
        QCOMPARE(s_->finished, finished);
        QCOMPARE(inst().log().contains("Quillbase terminated."), finished == 1);
        QVERIFY(finished || win().isVisible());
    }

    // The window's captions (its title, buttons, menus and entries) and the
    // about box in Swedish and, with the UK language file, in English;
    // screenshots of both, service stopped and started, with printers in
    // every status and jobs queued.
    void captions_data() { languageRows(); }
    void captions()
    {
        const QString language = rowLanguage();
        const bool silent = language == "en";
        inst().setUserSwitch("dwSilentMode", silent ? 1 : 0);
        addQuietPrinters({"Greenfee 18 hål", "Scorekort", "Bagtag"}, 4, true);
        QVERIFY(s_->startSettled());
        QUILL_CHOOSE(&win(), "mnuAbout");
        auto* about = find<QDialog>("frmAbout");
        QVERIFY(about && QTest::qWaitForWindowExposed(about));
        const QStringList shown{win().windowTitle(),
                                find<QPushButton>("cmdDeleteAllJob")->text(),
                                find<QMenu>("mnuFile")->title(),
                                find<QAction>("mnuSTPopupRestore")->text(),
                                find<QLabel>("panSBSilent")->text(),
                                about->findChild<QLabel*>("lblVersion")->text().section(",  ", 2, -1)};
        const QStringList sv{" Brixa - Printerserver", "Radera ALLA jobb", "&Arkiv", "&Återställ", "Tyst läge",
                             "SE,  Default (Swedish)"};
        const QStringList en{" Brixa - Print Server", "Delete ALL jobs", "&File", "&Restore", "Silent mode",
                             "UK,  English(UK)"};
        QCOMPARE(shown, language == "en" ? en : sv);
        QCOMPARE(find<QLabel>("panSBSilent")->isVisible(), silent);
        Screenshot(about, "aboutbox-" + language);
        QUILL_PRESS(about->findChild<QPushButton*>("cmdOK"));
        QTRY_VERIFY(!find<QDialog>("frmAbout"));

        // A question in the same language, buttons included.
        BoxAnswerer question;
        question.answer({Btn::No});
        QStringList buttons;
        question.onBox = [&](QMessageBox* box) {
            Screenshot(box, "question-" + language);
            for (QAbstractButton* b : box->buttons())
                buttons << b->text();
        };
        QUILL_PRESS(find<QPushButton>("cmdDeleteAllJob"));
        QCOMPARE(question.texts, QStringList{GetString(12042)});
        buttons.sort();
        QCOMPARE(buttons, (language == "en" ? QStringList{"&No", "&Yes"} : QStringList{"&Ja", "&Nej"}));

        // Every status in the list: 1 and 2 answer (Ready), 3 and 5 do not
        // (Error), 4 is passive; 5 is shown Checking for the picture.
        s_->server->printers().SrvSetPrinterStatus(5, quill::StatusChecking, GetString(12050));
        Screenshot(&win(), "mainwindow-" + language + "-stopped");
        QUILL_PRESS(find<QPushButton>("cmdService"));
        s_->server->printers().SrvSetPrinterStatus(2, quill::StatusWorking, GetString(12077));
        s_->server->printers().SrvSetPrinterStatus(5, quill::StatusConfiguring, GetString(12074));
        Screenshot(&win(), "mainwindow-" + language + "-started");
        auto* popup = find<QMenu>("mnuSTPopupSys");
        popup->popup(win().mapToGlobal(QPoint(40, 40)));
        QVERIFY(QTest::qWaitForWindowExposed(popup));
        Screenshot(popup, "traymenu-" + language);
        popup->close();
    }

    // --- the queue tools in the job list's context menu, and the history.

    // Moved from a printer that cannot print to one that can, the job is
    // printed there; while it is, it can be neither moved nor cancelled, but
    // its printer's jobs can all be moved. Another job is cancelled after
    // the question.
    void queueToolsInTheJobMenu()
    {
        addQuietPrinters({"A", "B", "C"});
        QVERIFY(s_->startSettled());
        QCOMPARE(inst().net.command("delay 60000"), QStringLiteral("ok"));
        QUILL_PRESS(find<QPushButton>("cmdService"));
        const qint32 moved = jobList().jobAt(1).id;
        const qint32 cancelled = jobList().jobAt(2).id;
        QMenu* targets = moveMenu(1, "mnuJobMove");
        QVERIFY(targets);
        // Its own printer and the passive one are not offered.
        QStringList offered;
        for (QAction* a : targets->actions())
            offered << a->objectName() + "=" + a->text();
        QCOMPARE(offered, (QStringList{"mnuJobMove1=Kassa", "mnuJobMove2=Bar"}));
        CLICK_ENTRY(targets, "mnuJobMove1");
        QVERIFY(QTest::qWaitFor([&] { return s_->server->commands().jobPrinting(moved); }, 10000));

        QMenu* menu = rightClickJob(jobList().findJob(moved));
        QVERIFY(menu);
        QMap<QString, bool> enabled;
        for (QAction* a : menu->actions())
            if (!a->isSeparator())
                enabled[a->menu() ? a->menu()->objectName() : a->objectName()] = a->isEnabled();
        QCOMPARE(enabled, (QMap<QString, bool>{{"mnuJobPreview", true},
                                               {"mnuJobMove", false},
                                               {"mnuJobMoveAll", true},
                                               {"mnuJobCancel", false}}));
        menu->close();
        QTRY_VERIFY(!Popup());
        BoxAnswerer boxes;
        boxes.answer({Btn::Yes});
        CLICK_ENTRY(rightClickJob(jobList().findJob(cancelled)), "mnuJobCancel");
        QTRY_COMPARE_WITH_TIMEOUT(boxes.texts, QStringList{GetString(12154, "3 C")}, 5000);
        QCOMPARE(jobList().count(), 2);
    }

    // The preview shows the label the printer then prints, pixel for pixel;
    // all of a printer's jobs move at once; the history lists what was
    // printed, and a reprint on another printer chosen with the keyboard
    // prints there. Screenshots in each language.
    void previewAndHistory_data() { languageRows(); }
    void previewAndHistory()
    {
        const QString language = rowLanguage();
        addQuietPrinters({"Greenfee", "Rangekort"});
        QVERIFY(s_->startSettled());
        CLICK_ENTRY(rightClickJob(0), "mnuJobPreview");
        QTRY_VERIFY_WITH_TIMEOUT(win().findChild<quill::PreviewDialog*>("frmPreview"), 5000);
        auto* preview = win().findChild<quill::PreviewDialog*>("frmPreview");
        QVERIFY(QTest::qWaitForWindowExposed(preview));
        const QImage shown = preview->findChild<QLabel*>("picPreview")->pixmap().toImage();
        Screenshot(preview, "preview-" + language);
        QUILL_PRESS(preview->findChild<QPushButton*>("cmdClose"));
        QTRY_VERIFY_WITH_TIMEOUT(!win().findChild<quill::PreviewDialog*>("frmPreview"), 5000);

        QUILL_PRESS(find<QPushButton>("cmdService"));
        CLICK_ENTRY(moveMenu(0, "mnuJobMoveAll"), "mnuJobMoveAll1");
        QTRY_COMPARE_WITH_TIMEOUT(quill::test::PrintedLabels(inst().netOut.path()),
                                  (QStringList{"Greenfee 1/1 t1", "Rangekort 1/1 t1"}), 20000);
        const QImage printed(QDir(inst().netOut.path()).filePath("label-000001.png"));
        QCOMPARE(printed.convertToFormat(QImage::Format_RGB32), shown.convertToFormat(QImage::Format_RGB32));
        QTRY_COMPARE_WITH_TIMEOUT(jobList().count(), 0, 10000);

        QUILL_PRESS(find<QPushButton>("cmdHistory"));
        auto* dialog = win().findChild<quill::HistoryDialog*>("frmHistory");
        QVERIFY(dialog && QTest::qWaitForWindowExposed(dialog));
        auto* list = dialog->findChild<QTreeView*>("lvwHistory");
        QStringList rows;
        for (int r = 0; r < list->model()->rowCount(); ++r)
            rows << list->model()->index(r, 1).data().toString() + "/" + list->model()->index(r, 2).data().toString()
                        + "/" + list->model()->index(r, 4).data().toString();
        QCOMPARE(rows, (QStringList{"2 Rangekort/Kassa/" + GetString(12167), "1 Greenfee/Kassa/" + GetString(12167)}));

        // The older one, on printer 2: Down in the list, then in the drop-down.
        list->setFocus();
        QUILL_KEY(Qt::Key_Down);
        auto* printers = dialog->findChild<QComboBox*>("cboReprintPrinter");
        printers->setFocus();
        QUILL_KEY(Qt::Key_Down);
        QUILL_KEY(Qt::Key_Down);
        QCOMPARE(printers->currentText(), QStringLiteral("Bar"));
        QUILL_PRESS(dialog->findChild<QPushButton*>("cmdReprint"));
        QCOMPARE(dialog->findChild<QLabel*>("lblReprintResult")->text(), GetString(12173, "1"));
        QTRY_COMPARE_WITH_TIMEOUT(quill::test::PrintedLabels(inst().serOut.path()), QStringList{"Greenfee 1/1 t1"},
                                  20000);
        Screenshot(dialog, "history-" + language);
    }

    // --- the dialogs.

    // A new printer's dialog: connection rules, the port label's double click,
    // the key filters (Tab still leaves a box); a refused
    // OK keeps it open with the field in focus and the empty port made 23;
    // Enter then saves. Screenshots in both languages.
    void newPrinterDialog_data() { languageRows(); }
    void newPrinterDialog()
    {
        const QString language = rowLanguage();
        QVERIFY(s_->startSettled());
        auto* d = openPrinter(-1);
        QVERIFY(d);
        QVERIFY(d->windowTitle().endsWith(GetString(12132) + ' ' + GetString(12076)));
        auto* ip = in<QLineEdit>(d, "txtNetIP");
        auto* port = in<QLineEdit>(d, "txtNetPort");
        QVERIFY(!ip->isEnabled() && !port->isEnabled());
        Screenshot(d, "printerdialog-serial-" + language);

        click(d, "optConnection_1");
        QVERIFY(ip->isEnabled() && !port->isEnabled());
        QTest::mouseDClick(in<QLabel>(d, "lblNetPort"), Qt::LeftButton);
        QVERIFY(port->isEnabled());
        QVERIFY(quill::test::FocusOn(ip));
        QTest::keyClicks(ip, " 12a7.0,.0.1x");
        QCOMPARE(ip->text(), "127.0.0.1");
        QUILL_KEY(Qt::Key_Tab);
        QCOMPARE(QApplication::focusWidget(), port);
        QTest::keyClicks(port, "2.3b");
        QTest::keyClick(port, Qt::Key_Backspace);
        QTest::keyClicks(port, "4");
        QCOMPARE(port->text(), "24");
        Screenshot(d, "printerdialog-network-" + language);

        // Passive: the save's check asks no device.
        in<QLineEdit>(d, "txtPrinterName")->setText("Disk");
        click(d, "chkPassive");
        port->clear();
        BoxAnswerer boxes;
        boxes.answer({Btn::Ok});
        click(d, "cmdOK");
        QTRY_COMPARE(boxes.texts, QStringList{GetString(12027)});
        QCOMPARE(TopLevel("frmSrvPrinter"), d);
        QTRY_COMPARE(QApplication::focusWidget(), port);
        QCOMPARE(port->text(), "23");
        QUILL_KEY(Qt::Key_Return);
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        QCOMPARE(column(3, "Connection2").toString(), "127.0.0.1#23");
        QCOMPARE(s_->slot(3).status, quill::StatusPassive);
    }

    // Edit's dialog, titled so, shows the device its buttons use. Each button
    // runs its own operation on the serial printer, with the dialog's buttons
    // off and the busy pointer while it runs; the focus is back on it after.
    void deviceButtons_data()
    {
        QTest::addColumn<QString>("button");
        QTest::addColumn<QString>("call"); // what only this operation asks of the printer
        QTest::newRow("clear memory") << "cmdClearMem" << "init a";
        QTest::newRow("calibrate") << "cmdCalibrate" << "service 3196";
        QTest::newRow("test print") << "cmdTestPrint" << "print 1 i";
        QTest::newRow("configure") << "cmdConfig" << "getcounter 1";
    }
    void deviceButtons()
    {
        QFETCH(QString, button);
        QFETCH(QString, call);
        QVERIFY(s_->startSettled());
        auto* d = openPrinter(2);
        QVERIFY(d);
        QVERIFY(d->windowTitle().endsWith(GetString(12075)));
        QCOMPARE(in<QLabel>(d, "lblDevice")->text(), "COM2:  9600");
        const qsizetype before = inst().ser.log().size();
        BoxAnswerer boxes;
        QSignalSpy finished(&s_->server->commands(), &quill::Operator::deviceOperationFinished);
        QVERIFY(quill::test::FocusOn(in<QWidget>(d, "txtPrinterName")));
        click(d, qPrintable(button));
        QVERIFY(!in<QWidget>(d, "cmdOK")->isEnabled() && !in<QWidget>(d, "cmdCancel")->isEnabled());
        QVERIFY(QApplication::overrideCursor());
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 60000);
        QVERIFY(in<QWidget>(d, "cmdOK")->isEnabled() && !QApplication::overrideCursor());
        QTRY_COMPARE(QApplication::focusWidget(), in<QWidget>(d, qPrintable(button)));
        const QStringList calls = inst().ser.log().mid(before);
        QVERIFY2(calls.contains(call), qPrintable(calls.join(", ")));
        QCOMPARE(boxes.texts, QStringList{});
    }

    // The advanced dialog writes its text back on OK only; an empty reverse
    // feed is 0. The serial line's drop-downs are saved as they were shown.
    // Screenshots in both languages.
    void advanced_data() { languageRows(); }
    void advanced()
    {
        const QString language = rowLanguage();
        QVERIFY(inst().sql("UPDATE tbPrinter SET CutterInstalled = 1, DispensingFeed = 40, ReverseFeed = 7 "
                           "WHERE Id = 2"));
        QVERIFY(s_->startSettled());
        auto* d = openPrinter(2);
        QVERIFY(d);
        for (const char* button : {"cmdCancel", "cmdOK"}) {
            click(d, "cmdAdvanced");
            QPointer<QWidget> a = TopLevel("frmSrvPrinterAdvanced");
            QVERIFY(a && !d->isEnabled());
            // What the cancelled round typed was not kept.
            QCOMPARE(in<QLineEdit>(a, "txtDispensingFeed")->text(), "40");
            QVERIFY(QTest::qWaitForWindowExposed(a));
            Screenshot(a, "printer-advanced-" + language);
            in<QLineEdit>(a, "txtReverseFeed")->clear();
            in<QLineEdit>(a, "txtDispensingFeed")->clear();
            QTest::keyClicks(in<QWidget>(a, "txtDispensingFeed"), "12x5");
            click(a, button);
            QTRY_VERIFY(!a && d->isEnabled()); // closed and gone
        }
        click(d, "cmdOK");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        const QStringList stored{column(2, "CutterInstalled").toString(), column(2, "DispensingFeed").toString(),
                                 column(2, "ReverseFeed").toString(), column(2, "Connection1").toString()};
        QCOMPARE(stored, (QStringList{"1", "125", "0", "COM2:#9600"}));
    }

    // Settings: letters never reach the port field, a port out of range keeps
    // the dialog open, Enter in the field saves and a silent mode shows at once.
    void settings_data() { languageRows(); }
    void settings()
    {
        const QString language = rowLanguage();
        QVERIFY(s_->startSettled());
        BoxAnswerer boxes;
        boxes.answer({Btn::Ok});
        QUILL_CHOOSE(&win(), "mnuSettings");
        auto* d = TopLevel("frmSrvAdj");
        QVERIFY(d);
        // Transient for the window: the desktop keeps it above its owner.
        QCOMPARE(d->windowHandle()->transientParent(), win().windowHandle());
        Screenshot(d, "settings-" + language);

        auto* field = in<QLineEdit>(d, "txtServerPort");
        QVERIFY(quill::test::FocusOn(field));
        field->clear();
        QTest::keyClicks(field, "7x0a000");
        QCOMPARE(field->text(), "70000");
        click(d, "chkSilentMode");
        click(d, "cmdOK");
        QTRY_COMPARE(boxes.texts, QStringList{GetString(12143)});
        QCOMPARE(TopLevel("frmSrvAdj"), d);
        field->setText(QString::number(port_));
        QVERIFY(quill::test::FocusOn(field));
        QUILL_KEY(Qt::Key_Return);
        QTRY_VERIFY(!TopLevel("frmSrvAdj"));
        QVERIFY(win().isEnabled());
        QCOMPARE(boxes.texts.size(), 1);
        QVERIFY(find<QLabel>("panSBSilent")->isVisible());
    }
};

QTEST_MAIN(TstMainWindow)
#include "tst_mainwindow.moc"
