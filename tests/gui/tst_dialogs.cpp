// The printer dialog, its advanced dialog and the settings dialog over the
// whole server: opened from the window's commands, driven by object name,
// against emulated printers (1 a network box, 2 a serial line).
#include "foundation/settings.h"
#include "foundation/texts.h"
#include "gui/guitest.h"
#include "gui/printerdialog.h"
#include "database/slots.h"
#include "protocol/listener.h"
#include "service/printerlistmodel.h"
#include "service/printservice.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QSignalSpy>
#include <QTreeView>

using quill::GetString;
using quill::test::BoxAnswerer;
using quill::test::Screenshot;
using quill::test::TestInstallation;
using quill::test::TopLevel;
using quill::test::WindowSite;
using Btn = QMessageBox::StandardButton;

class TstDialogs : public QObject {
    Q_OBJECT

    std::unique_ptr<WindowSite> s_;

    quill::test::PrinterSite& inst() { return s_->site; }
    const quill::PrinterSlot& slot(int n) { return s_->server->printers().at(n); }
    QVariant column(int printer, const QString& name)
    {
        return inst().scalar(QStringLiteral("SELECT %1 FROM tbPrinter WHERE Id = %2").arg(name).arg(printer));
    }

    bool startWindow()
    {
        if (s_->start() != quill::Server::Started || !QTest::qWaitForWindowExposed(s_->window.get()))
            return false;
        return QTest::qWaitFor(
            [&] {
                for (int n = 1; n <= 5; ++n)
                    if (s_->server->printers().SrvPrinterExists(n) && slot(n).status == quill::StatusChecking)
                        return false;
                return true;
            },
            20000);
    }
    void useEnglish()
    {
        inst().setMachineValue(QString(), "tLanguage", "UK", false);
        inst().setMachineValue(QString(), "dwCountryNo", 44, true);
    }
    // A serial printer at printerBaud on a pty mapped to COM3, the window up and
    // a new printer's dialog on COM3 at dialogRate.
    void newPrinterOnCom3(quill::test::Emulator& com3, int printerBaud, int dialogRate, quill::PrinterDialog** dialog)
    {
        QVERIFY2(com3.startPty(printerBaud), qPrintable(com3.errorText()));
        com3.mapComPort(3);
        QVERIFY(startWindow());
        auto* d = openPrinter(-1);
        QVERIFY(d);
        auto* ports = in<QComboBox>(d, "cboCOMPort");
        ports->setCurrentIndex(ports->findData(3));
        auto* rates = in<QComboBox>(d, "cboCOMRate");
        rates->setCurrentIndex(rates->findData(dialogRate));
        *dialog = d;
    }

    quill::PrinterDialog* openPrinter(int id)
    {
        if (id > 0) {
            auto* view = s_->find<QTreeView>("lvwPrinter");
            view->setCurrentIndex(view->model()->index(s_->server->printService().printerList().rowOf(id), 0));
            s_->find<QAction>("mnuPrinterEdit")->trigger();
        } else {
            s_->find<QAction>("mnuPrinterNew")->trigger();
        }
        return TopLevel<quill::PrinterDialog>("frmSrvPrinter");
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
        s_ = std::make_unique<WindowSite>();
        QVERIFY(inst().ok());
        QVERIFY2(s_->startEmulators(), qPrintable(inst().errorText()));
        QVERIFY(inst().setServer(TestInstallation::freePort(), false));
    }
    void cleanup() { s_.reset(); }

    // Lists, connection rules, the port label's double click and the key
    // filters of a new printer's dialog; screenshots in both languages.
    void newPrinterDialog_data()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("Swedish") << "se";
        QTest::newRow("English") << "uk";
    }
    void newPrinterDialog()
    {
        QFETCH(QString, language);
        if (language == "uk")
            useEnglish();
        QVERIFY(startWindow());
        auto* d = openPrinter(-1);
        QVERIFY(d);
        QVERIFY(!s_->window->isEnabled());
        QVERIFY(d->windowTitle().endsWith(GetString(12132) + ' ' + GetString(12076)));
        QCOMPARE(in<QAbstractButton>(d, "cmdOK")->text(), GetString(12129));
        QCOMPARE(in<QAbstractButton>(d, "cmdAdvanced")->text(), GetString(12147));

        auto* types = in<QComboBox>(d, "cboPrinterType");
        QCOMPARE(types->count(), inst().scalar("SELECT COUNT(*) FROM tbPrinterType").toInt());
        QCOMPARE(types->currentData().toInt(), 1);
        QVERIFY(!in<QLabel>(d, "picPrinterType")->pixmap().isNull());
        auto* ports = in<QComboBox>(d, "cboCOMPort");
        QCOMPARE(ports->itemText(0), "COM1:");
        QCOMPARE(ports->itemText(3), "COM4:");
        QCOMPARE(in<QComboBox>(d, "cboCOMRate")->currentData().toInt(), 9600);
        QCOMPARE(in<QComboBox>(d, "cboAdjStrobe")->currentIndex(), 4);
        QCOMPARE(in<QComboBox>(d, "cboAdjSpeed")->currentIndex(), 2);

        auto* ip = in<QLineEdit>(d, "txtNetIP");
        auto* port = in<QLineEdit>(d, "txtNetPort");
        auto* portLabel = in<QLabel>(d, "lblNetPort");
        QVERIFY(!ip->isEnabled() && !port->isEnabled() && !in<QWidget>(d, "chkNetConnectOnly")->isEnabled());
        Screenshot(d, "printerdialog-serial-" + language);

        click(d, "optConnection_1");
        QVERIFY(ip->isEnabled() && portLabel->isEnabled() && !port->isEnabled());
        QVERIFY(ports->isEnabled());
        QTest::mouseDClick(portLabel, Qt::LeftButton);
        QVERIFY(port->isEnabled());
        QTest::keyClicks(ip, " 12a7.0,.0.1x");
        QCOMPARE(ip->text(), "127.0.0.1");
        QTest::keyClicks(port, "2.3b");
        QTest::keyClick(port, Qt::Key_Backspace);
        QTest::keyClicks(port, "4");
        QCOMPARE(port->text(), "24");
        Screenshot(d, "printerdialog-network-" + language);
        click(d, "cmdAdvanced");
        QTRY_VERIFY(TopLevel("frmSrvPrinterAdvanced"));
        QVERIFY(QTest::qWaitForWindowExposed(TopLevel("frmSrvPrinterAdvanced")));
        Screenshot(TopLevel("frmSrvPrinterAdvanced"), "printer-advanced-" + language);
        click(TopLevel("frmSrvPrinterAdvanced"), "cmdCancel");
        QTRY_VERIFY(!TopLevel("frmSrvPrinterAdvanced"));
        click(d, "optConnection_0");
        QVERIFY(!port->isEnabled() && !ip->isEnabled());

        // Focus selects the whole text.
        d->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(d));
        auto* name = in<QLineEdit>(d, "txtPrinterName");
        name->setText("Disk");
        name->setFocus();
        QTRY_COMPARE(name->selectedText(), "Disk");

        click(d, "cmdCancel");
        QTRY_VERIFY(s_->window->isEnabled());
        QVERIFY(!s_->op->printerDialogOpen());
        QCOMPARE(inst().scalar("SELECT COUNT(*) FROM tbPrinter").toInt(), 2);
    }

    // Edit asked for while the check after a save still waits on a slow box:
    // the dialog opens once the check is over.
    void editDuringTheCheckAfterASave()
    {
        QVERIFY(startWindow());
        auto* d = openPrinter(1);
        QVERIFY(d);
        QCOMPARE(inst().net.command("delay 800"), QStringLiteral("ok"));
        click(d, "cmdOK");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        QVERIFY(s_->op->deviceOperationRunning());
        QCOMPARE(slot(1).status, quill::StatusChecking);
        d = openPrinter(2);
        QVERIFY(!d);
        QTRY_VERIFY_WITH_TIMEOUT(TopLevel("frmSrvPrinter"), 20000);
        d = TopLevel<quill::PrinterDialog>("frmSrvPrinter");
        QVERIFY(d);
        QCOMPARE(slot(1).status, quill::StatusReady);
        QCOMPARE(in<QLineEdit>(d, "txtPrinterName")->text(), slot(2).name.trimmed());
        QCOMPARE(inst().net.command("delay 0"), QStringLiteral("ok"));
        click(d, "cmdCancel");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
    }

    // A serial printer on COM3 at 57600 is stored as such and comes back in edit.
    void newSerialPrinter()
    {
        quill::test::Emulator com3;
        quill::PrinterDialog* d = nullptr;
        newPrinterOnCom3(com3, 57600, 57600, &d);
        QVERIFY(d);
        in<QLineEdit>(d, "txtPrinterName")->setText("Disk");
        // The strip says where the device buttons would go.
        QCOMPARE(in<QLabel>(d, "Label5")->text(), " Port:");
        QCOMPARE(in<QLabel>(d, "lblDevice")->text(), "COM3:  57600");
        in<QRadioButton>(d, "optConnection_1")->click();
        QCOMPARE(in<QLabel>(d, "lblDevice")->text(), ""); // nothing typed yet
        in<QLineEdit>(d, "txtNetIP")->setText(" 10.1.2.3 ");
        QCOMPARE(in<QLabel>(d, "lblDevice")->text(), "10.1.2.3#"); // no port yet
        in<QRadioButton>(d, "optConnection_0")->click();
        QCOMPARE(in<QLabel>(d, "lblDevice")->text(), "COM3:  57600");
        BoxAnswerer boxes;
        click(d, "cmdOK");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        QCOMPARE(boxes.texts, QStringList{});
        QCOMPARE(column(3, "Connection1").toString(), "COM3:#57600");
        QCOMPARE(column(3, "Name").toString(), "Disk");
        QTRY_VERIFY_WITH_TIMEOUT(slot(3).status != quill::StatusChecking, 20000);

        d = openPrinter(3);
        QVERIFY(d);
        QVERIFY(d->windowTitle().endsWith(GetString(12075)));
        QCOMPARE(in<QLineEdit>(d, "txtPrinterName")->text(), "Disk");
        QVERIFY(in<QRadioButton>(d, "optConnection_0")->isChecked());
        QCOMPARE(in<QComboBox>(d, "cboCOMPort")->currentText(), "COM3:");
        QCOMPARE(in<QComboBox>(d, "cboCOMRate")->currentText(), "57600");
        click(d, "cmdCancel");
    }

    // A refused OK keeps the dialog open with the field in focus; the empty
    // port gets 23, and a second OK saves with it.
    void validation()
    {
        QVERIFY(startWindow());
        auto* d = openPrinter(-1);
        QVERIFY(d);
        d->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(d));
        in<QLineEdit>(d, "txtPrinterName")->setText("Disk");
        click(d, "optConnection_1");
        in<QLineEdit>(d, "txtNetIP")->setText("127.0.0.1");
        QTest::mouseDClick(in<QLabel>(d, "lblNetPort"), Qt::LeftButton);
        // Passive: the save's check asks no device.
        in<QCheckBox>(d, "chkPassive")->setChecked(true);
        BoxAnswerer boxes;
        boxes.answer({Btn::Ok});
        click(d, "cmdOK");
        QTRY_COMPARE(boxes.texts, QStringList{GetString(12027)});
        QCOMPARE(TopLevel("frmSrvPrinter"), d);
        QTRY_COMPARE(d->focusWidget(), in<QWidget>(d, "txtNetPort"));
        QCOMPARE(inst().scalar("SELECT COUNT(*) FROM tbPrinter").toInt(), 2);
        QCOMPARE(in<QLineEdit>(d, "txtNetPort")->text(), "23");
        click(d, "cmdOK");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        QCOMPARE(column(3, "Connection2").toString(), "127.0.0.1#23");
        QCOMPARE(slot(3).status, quill::StatusPassive);
    }

    // Cancel, Escape and the close box give the edited printer its status back.
    void cancelRestoresStatus_data()
    {
        QTest::addColumn<QString>("way");
        QTest::newRow("Cancel") << "cancel";
        QTest::newRow("Escape") << "escape";
        QTest::newRow("close box") << "close";
    }
    void cancelRestoresStatus()
    {
        QFETCH(QString, way);
        QVERIFY(startWindow());
        QCOMPARE(slot(2).status, quill::StatusReady);
        auto* d = openPrinter(2);
        QVERIFY(d);
        QCOMPARE(slot(2).status, quill::StatusConfiguring);
        in<QLineEdit>(d, "txtPrinterName")->setText("Changed");
        if (way == "cancel")
            click(d, "cmdCancel");
        else if (way == "escape")
            QTest::keyClick(in<QWidget>(d, "txtPrinterName"), Qt::Key_Escape);
        else
            d->close();
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        QCOMPARE(slot(2).status, quill::StatusReady);
        QCOMPARE(column(2, "Name").toString(), "Bar");
        QVERIFY(s_->window->isEnabled());
    }

    // Each device button reaches the serial printer, with the dialog's buttons
    // off and the busy pointer while it runs; a printer that does not answer
    // says so in a box.
    void deviceButtons_data()
    {
        QTest::addColumn<QString>("button");
        QTest::addColumn<bool>("reachable");
        QTest::newRow("clear memory") << "cmdClearMem" << true;
        QTest::newRow("calibrate") << "cmdCalibrate" << true;
        QTest::newRow("test print") << "cmdTestPrint" << true;
        QTest::newRow("test print, no contact") << "cmdTestPrint" << false;
    }
    void deviceButtons()
    {
        QFETCH(QString, button);
        QFETCH(bool, reachable);
        QVERIFY(startWindow());
        auto* d = openPrinter(2);
        QVERIFY(d);
        if (!reachable) {
            click(d, "optConnection_1");
            in<QLineEdit>(d, "txtNetIP")->setText("127.0.0.1");
            in<QLineEdit>(d, "txtNetPort")->setText(QString::number(TestInstallation::freePort()));
        }
        const int calls = inst().ser.log().size();
        BoxAnswerer boxes;
        boxes.answer({Btn::Ok});
        QSignalSpy finished(s_->op, &quill::Operator::deviceOperationFinished);
        d->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(d));
        click(d, qPrintable(button));
        if (reachable)
            QVERIFY(!in<QWidget>(d, "cmdOK")->isEnabled() && !in<QWidget>(d, "cmdCancel")->isEnabled()
                    && QApplication::overrideCursor());
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 60000);
        QVERIFY(in<QWidget>(d, "cmdOK")->isEnabled() && !QApplication::overrideCursor());
        QCOMPARE(boxes.texts.size(), reachable ? 0 : 1);
        // The button pressed has the focus again once it is enabled again.
        QTRY_COMPARE(QApplication::focusWidget(), in<QWidget>(d, qPrintable(button)));
        if (reachable)
            QVERIFY(inst().ser.log().size() > calls);
        else
            QCOMPARE(boxes.texts.first().trimmed(), GetString(12024) + " Ingen kontakt");
        click(d, "cmdCancel");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        QCOMPARE(slot(2).status, quill::StatusReady);
    }

    // A box whose loaded address does not answer is configured through the
    // serial port after the question: Yes takes the new address, No keeps it.
    void configureThroughSerial_data()
    {
        QTest::addColumn<Btn>("answer");
        QTest::addColumn<QString>("loaded");
        QTest::newRow("yes") << Btn::Yes << "127.0.0.3";
        QTest::newRow("no") << Btn::No << "127.0.0.1";
    }
    void configureThroughSerial()
    {
        QFETCH(Btn, answer);
        QFETCH(QString, loaded);
        quill::test::Emulator box;
        QVERIFY2(box.startBoth(9600), qPrintable(box.errorText()));
        box.mapComPort(4);
        QVERIFY(startWindow());
        auto* d = openPrinter(1);
        QVERIFY(d);
        in<QLineEdit>(d, "txtNetIP")->setText("127.0.0.3");
        auto* ports = in<QComboBox>(d, "cboCOMPort");
        ports->setCurrentIndex(ports->findData(4));
        BoxAnswerer boxes;
        boxes.answer({answer, Btn::Ok});
        QSignalSpy finished(s_->op, &quill::Operator::deviceOperationFinished);
        click(d, "cmdConfig");
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 60000);
        QCOMPARE(boxes.texts.value(0), GetString(12036) + '\r' + GetString(12037) + "\r\r" + GetString(12017));
        QCOMPARE(boxes.texts.size(), answer == Btn::Yes ? 1 : 2);
        QCOMPARE(d->values().loadedAddress, loaded);
        click(d, "cmdCancel");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
    }

    // The advanced dialog writes its text back on OK only; empty feeds are 60 and 0.
    void advanced_data()
    {
        QTest::addColumn<QString>("feed");
        QTest::addColumn<QString>("reverse");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QString>("expected");
        QTest::newRow("empty feeds") << "" << "" << true << "1;60;0";
        QTest::newRow("typed") << "12x5" << "3" << true << "1;125;3";
        QTest::newRow("cancel") << "" << "" << false << "1;40;7";
    }
    void advanced()
    {
        QFETCH(QString, feed);
        QFETCH(QString, reverse);
        QFETCH(bool, ok);
        QFETCH(QString, expected);
        QVERIFY(inst().sql("UPDATE tbPrinter SET CutterInstalled = 1, DispensingFeed = 40, ReverseFeed = 7 "
                           "WHERE Id = 2"));
        QVERIFY(startWindow());
        auto* d = openPrinter(2);
        QVERIFY(d);
        click(d, "cmdAdvanced");
        auto* a = TopLevel("frmSrvPrinterAdvanced");
        QVERIFY(a);
        QVERIFY(!d->isEnabled());
        QCOMPARE(in<QComboBox>(a, "cboCutterInstalled")->currentData().toInt(), 1);
        QCOMPARE(in<QLineEdit>(a, "txtDispensingFeed")->text(), "40");
        QCOMPARE(in<QLineEdit>(a, "txtReverseFeed")->text(), "7");
        for (const char* box : {"txtDispensingFeed", "txtReverseFeed"})
            in<QLineEdit>(a, box)->clear();
        QTest::keyClicks(in<QWidget>(a, "txtDispensingFeed"), feed);
        QTest::keyClicks(in<QWidget>(a, "txtReverseFeed"), reverse);
        click(a, ok ? "cmdOK" : "cmdCancel");
        QTRY_VERIFY(!TopLevel("frmSrvPrinterAdvanced"));
        QVERIFY(d->isEnabled());
        QCOMPARE(d->values().advancedSettings, expected);

        click(d, "cmdOK");
        QTRY_VERIFY(!TopLevel("frmSrvPrinter"));
        const QStringList stored{column(2, "CutterInstalled").toString(), column(2, "DispensingFeed").toString(),
                                 column(2, "ReverseFeed").toString()};
        QCOMPARE(stored.join(';'), expected);
    }

    // Tab leaves each filtered box, Enter presses its dialog's default button
    // (the change is saved), Escape cancels it (the change is not).
    void filteredBoxKeys_data()
    {
        QTest::addColumn<QString>("dialog");
        QTest::addColumn<QString>("box");
        QTest::addColumn<int>("key");
        const std::pair<const char*, const char*> boxes[] = {{"printer", "txtNetIP"},
                                                             {"printer", "txtNetPort"},
                                                             {"advanced", "txtDispensingFeed"},
                                                             {"advanced", "txtReverseFeed"},
                                                             {"settings", "txtServerPort"}};
        const std::pair<const char*, int> keys[] = {{"Tab", Qt::Key_Tab}, {"Enter", Qt::Key_Return}, {"Escape", Qt::Key_Escape}};
        for (const auto& [dialog, box] : boxes)
            for (const auto& [name, key] : keys)
                QTest::addRow("%s %s", box, name) << dialog << box << key;
    }
    void filteredBoxKeys()
    {
        QFETCH(QString, dialog);
        QFETCH(QString, box);
        QFETCH(int, key);
        QVERIFY(startWindow());
        QWidget* d = nullptr;
        quill::PrinterDialog* printer = nullptr;
        if (dialog == "settings") {
            s_->find<QAction>("mnuSettings")->trigger();
            d = TopLevel("frmSrvAdj");
            QVERIFY(d);
            // A change Enter saves and Escape drops.
            in<QCheckBox>(d, "chkAutoStartService")->setChecked(true);
        } else {
            printer = openPrinter(1);
            QVERIFY(printer);
            in<QLineEdit>(printer, "txtPrinterName")->setText("Renamed");
            QTest::mouseDClick(in<QLabel>(printer, "lblNetPort"), Qt::LeftButton);
            d = printer;
            if (dialog == "advanced") {
                click(printer, "cmdAdvanced");
                d = TopLevel("frmSrvPrinterAdvanced");
                QVERIFY(d);
                auto* cutter = in<QComboBox>(d, "cboCutterInstalled");
                QCOMPARE(cutter->currentData().toInt(), 0);
                cutter->setCurrentIndex(cutter->findData(1));
            }
        }
        auto* field = in<QLineEdit>(d, qPrintable(box));
        QVERIFY(field && field->isEnabled());
        const QString before = field->text();
        QVERIFY(quill::test::FocusOn(field));
        QUILL_KEY(key);
        QCOMPARE(field->text(), before);
        if (key == Qt::Key_Tab) {
            QVERIFY(TopLevel(qPrintable(d->objectName())));
            QVERIFY(QApplication::focusWidget() != field);
            QCOMPARE(QApplication::focusWidget()->window(), d);
            return;
        }
        const bool saved = key == Qt::Key_Return;
        QTRY_VERIFY(!TopLevel(qPrintable(d->objectName())));
        if (dialog == "settings") {
            QCOMPARE(inst().scalar("SELECT AutoStartService FROM tbServer").toInt(), saved ? 1 : 0);
        } else if (dialog == "advanced") {
            QCOMPARE(printer->values().advancedSettings.section(';', 0, 0), saved ? "1" : "0");
            click(printer, "cmdCancel");
        } else {
            QCOMPARE(column(1, "Name").toString(), saved ? "Renamed" : "Kassa");
        }
        QTRY_VERIFY(s_->window->isEnabled());
    }

    // Settings: opened from a running service once the operator agrees to stop
    // it; a port out of range keeps the dialog open and saves nothing, letters
    // never reach the port field, the switches are saved and the silent-mode
    // mark follows.
    void settings_data()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("Swedish") << "se";
        QTest::newRow("English") << "uk";
    }
    void settings()
    {
        QFETCH(QString, language);
        if (language == "uk")
            useEnglish();
        QVERIFY(inst().setServer(TestInstallation::freePort(), true));
        QVERIFY(startWindow());
        const quint16 port = s_->server->listener().localPort();
        BoxAnswerer boxes;
        boxes.answer({Btn::Yes, Btn::Ok});
        s_->find<QAction>("mnuSettings")->trigger();
        auto* d = TopLevel("frmSrvAdj");
        QVERIFY(d);
        QCOMPARE(boxes.texts.size(), 1);
        QVERIFY(boxes.texts.first().startsWith(GetString(12016)));
        QVERIFY(!s_->op->serviceRunning());
        QVERIFY(!s_->window->isEnabled());
        QCOMPARE(d->windowTitle(), GetString(12104) + " - " + GetString(9003));
        auto* field = in<QLineEdit>(d, "txtServerPort");
        QCOMPARE(field->text(), QString::number(port));
        QVERIFY(!in<QWidget>(d, "chkAutoStart")->isEnabled());
        Screenshot(d, "settings-" + language);

        field->clear();
        QTest::keyClicks(field, "7x0a000");
        QCOMPARE(field->text(), "70000");
        in<QCheckBox>(d, "chkSilentMode")->setChecked(true);
        in<QCheckBox>(d, "chkUseLog")->setChecked(false);
        click(d, "cmdOK");
        QTRY_COMPARE(boxes.texts.size(), 2);
        QCOMPARE(boxes.texts.last(), GetString(12143));
        QCOMPARE(TopLevel("frmSrvAdj"), d);
        QCOMPARE(quill::RegGetValue(quill::HKEY_CURRENT_USER, quill::KeyQuillbase, "dwSilentMode").toInt(), 0);

        field->setText(QString::number(port));
        click(d, "cmdOK");
        QTRY_VERIFY(!TopLevel("frmSrvAdj"));
        QVERIFY(s_->window->isEnabled());
        QCOMPARE(boxes.texts.size(), 2);
        QCOMPARE(s_->server->listener().localPort(), port);
        QVERIFY(s_->server->listener().isListening());
        QCOMPARE(quill::RegGetValue(quill::HKEY_CURRENT_USER, quill::KeyQuillbase, "dwSilentMode").toInt(), 1);
        QCOMPARE(quill::RegGetValue(quill::HKEY_CURRENT_USER, quill::KeyQuillbase, "dwUseLog").toInt(), 0);
        QVERIFY(s_->find<QLabel>("panSBSilent")->isVisible());
    }
};

QTEST_MAIN(TstDialogs)
#include "tst_dialogs.moc"
