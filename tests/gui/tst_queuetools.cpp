// The queue tools in the window: the job list's context menu (preview, move,
// cancel) and the history with its reprint, driven with the mouse and the
// keyboard over the whole server, printers 1 and 2 emulated.
#include "database/jobstore.h"
#include "foundation/texts.h"
#include "gui/guitest.h"
#include "gui/queuetools.h"
#include "service/printerlistmodel.h"
#include "support/dbfixture.h"

#include <QAction>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTreeView>

using quill::GetString;
using quill::dbtest::JobText;
using quill::test::BoxAnswerer;
using quill::test::Screenshot;
using quill::test::TestInstallation;
using quill::test::WindowSite;
using Btn = QMessageBox::StandardButton;

namespace {

// The popup menu shown now, or null.
QMenu* popup()
{
    return qobject_cast<QMenu*>(QApplication::activePopupWidget());
}

// Clicks a menu's entry where the menu shows it; fails when it is not there.
QString clickEntry(QMenu* menu, const QString& name)
{
    if (!menu)
        return QStringLiteral("no menu is open");
    for (QAction* a : menu->actions()) {
        const bool named = a->objectName() == name || (a->menu() && a->menu()->objectName() == name);
        if (!named)
            continue;
        const QRect r = menu->actionGeometry(a);
        if (r.isEmpty())
            return name + QStringLiteral(" has no area in the menu");
        QTest::mouseClick(menu, Qt::LeftButton, Qt::NoModifier, r.center());
        return {};
    }
    return name + QStringLiteral(" is not in the menu");
}
#define CLICK_ENTRY(menu, name)                                                                                        \
    do {                                                                                                               \
        const QString why_ = clickEntry(menu, QStringLiteral(name));                                                   \
        QVERIFY2(why_.isEmpty(), qPrintable(why_));                                                                    \
    } while (false)

} // namespace

class TstQueueTools : public QObject {
    Q_OBJECT

    std::unique_ptr<WindowSite> s_;

    quill::test::PrinterSite& inst() { return s_->site; }
    template <typename T = QWidget>
    T* find(const char* name) { return s_->find<T>(name); }
    quill::JobListModel& jobList() { return s_->server->jobs().jobList(); }
    QStringList jobCaptions()
    {
        QStringList out;
        for (int r = 0; r < jobList().count(); ++r)
            out << jobList().rowAt(r).text.section(QLatin1Char(' '), 1) + "@" + QString::number(jobList().jobAt(r).printerId);
        return out;
    }
    // Printer 3 answers nothing (its jobs wait), printer 4 is passive.
    void start(const QString& language, const QStringList& captions)
    {
        if (language == "en") {
            inst().setMachineValue(QString(), "tLanguage", "UK", false);
            inst().setMachineValue(QString(), "dwCountryNo", 44, true);
        }
        QVERIFY(inst().addNetworkPrinter(3, "Entré", TestInstallation::freePort()));
        QVERIFY(inst().addNetworkPrinter(4, "Lager", TestInstallation::freePort(), true));
        for (const QString& c : captions)
            QVERIFY(inst().sql("INSERT INTO tbJob (PrinterId, Job) VALUES (3, ?)",
                               {JobText(3, 1, "1", "KASSA1", "Anna", c)}));
        QCOMPARE(s_->start(), quill::Server::Started);
        QVERIFY(QTest::qWaitForWindowExposed(s_->window.get()));
        QVERIFY(QTest::qWaitFor([&] { return s_->server->printers().at(1).status == quill::StatusReady; }, 20000));
    }
    // A right click on the job list's row, as a person opens its menu.
    QMenu* rightClickJob(int row)
    {
        auto* view = find<QTreeView>("lvwJob");
        const QRect r = view->visualRect(view->model()->index(row, 0));
        if (r.isEmpty())
            return nullptr;
        // Through the window, as the platform delivers it: the context menu follows from it.
        QWidget* top = view->window();
        QTest::mouseClick(top->windowHandle(), Qt::RightButton, Qt::NoModifier, view->viewport()->mapTo(top, r.center()));
        return QTest::qWaitFor([] { return popup() != nullptr; }, 5000) ? popup() : nullptr;
    }
    void startService()
    {
        QUILL_PRESS(find<QPushButton>("cmdService"));
        QVERIFY(s_->op->serviceRunning());
    }

private slots:
    void init()
    {
        s_ = std::make_unique<WindowSite>();
        QVERIFY(s_->startEmulators());
        QVERIFY(inst().setServer(TestInstallation::freePort(), false));
        inst().setUserSwitch("dwUseLog", 1);
    }
    void cleanup()
    {
        if (QMenu* m = popup())
            m->close();
        s_.reset();
    }

    // Moved from a printer that cannot print to one that can, the job prints
    // there; another is cancelled after the question, while the service runs.
    void moveAndCancelFromTheMenu()
    {
        start("se", {"A", "B", "C"});
        startService();
        QMenu* menu = rightClickJob(1);
        QVERIFY(menu);
        CLICK_ENTRY(menu, "mnuJobMove");
        QVERIFY(QTest::qWaitFor([&] { return popup() && popup()->objectName() == "mnuJobMove"; }, 5000));
        // Its own printer and the passive one are not offered.
        QStringList targets;
        for (QAction* a : popup()->actions())
            targets << a->objectName() + "=" + a->text();
        QCOMPARE(targets, (QStringList{"mnuJobMove1=Kassa", "mnuJobMove2=Bar"}));
        CLICK_ENTRY(popup(), "mnuJobMove1");
        QTRY_COMPARE_WITH_TIMEOUT(quill::test::PrintedLabels(inst().netOut.path()), QStringList{"B 1/1 t1"}, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(jobCaptions(), (QStringList{"A@3", "C@3"}), 10000);

        BoxAnswerer boxes;
        boxes.answer({Btn::No, Btn::Yes});
        for (int round = 0; round < 2; ++round) {
            menu = rightClickJob(1);
            QVERIFY(menu);
            CLICK_ENTRY(menu, "mnuJobCancel");
            QTRY_COMPARE_WITH_TIMEOUT(boxes.texts.size(), round + 1, 5000);
        }
        QCOMPARE(boxes.texts, QStringList(2, GetString(12154, "3 C")));
        QCOMPARE(boxes.unexpected, 0);
        QCOMPARE(jobCaptions(), QStringList{"A@3"});
        QCOMPARE(inst().scalar("SELECT COUNT(*) FROM tbJob").toInt(), 1);
    }

    // The job a printer is printing can be neither moved nor cancelled; the
    // rest of its printer's jobs can be moved.
    void jobBeingPrintedStays()
    {
        start("se", {});
        QCOMPARE(inst().net.command("delay 60000"), QStringLiteral("ok"));
        startService();
        QVERIFY(s_->server->jobs().SrvAddJob(quill::PrintJob::fromText(JobText(1, 1, "1", "KASSA1", "Anna", "Pågår"))));
        QVERIFY(QTest::qWaitFor([&] { return s_->op->jobPrinting(jobList().jobAt(0).id); }, 10000));
        QTRY_COMPARE_WITH_TIMEOUT(find<QTreeView>("lvwJob")->model()->rowCount(), 1, 5000);
        QMenu* menu = rightClickJob(0);
        QVERIFY(menu);
        QMap<QString, bool> enabled;
        for (QAction* a : menu->actions())
            if (!a->isSeparator())
                enabled[a->menu() ? a->menu()->objectName() : a->objectName()] = a->isEnabled();
        QCOMPARE(enabled, (QMap<QString, bool>{{"mnuJobPreview", true},
                                               {"mnuJobMove", false},
                                               {"mnuJobMoveAll", true},
                                               {"mnuJobCancel", false}}));
    }

    // The preview shows the label the printer then prints, pixel for pixel;
    // the history lists what was printed, and a reprint on another printer
    // chosen with the keyboard prints there. Screenshots in each language.
    void previewAndHistory_data()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("Swedish") << "se";
        QTest::newRow("English") << "en";
    }
    void previewAndHistory()
    {
        QFETCH(QString, language);
        start(language, {"Greenfee", "Rangekort"});
        QMenu* menu = rightClickJob(0);
        QVERIFY(menu);
        CLICK_ENTRY(menu, "mnuJobPreview");
        QTRY_VERIFY_WITH_TIMEOUT(s_->window->findChild<quill::PreviewDialog*>("frmPreview"), 5000);
        auto* preview = s_->window->findChild<quill::PreviewDialog*>("frmPreview");
        QVERIFY(QTest::qWaitForWindowExposed(preview));
        QCOMPARE(preview->windowTitle(), GetString(12160, "1") + " - " + GetString(9003));
        const QImage shown = preview->findChild<QLabel*>("picPreview")->pixmap().toImage();
        QCOMPARE(shown.size(), QSize(480, 640));
        Screenshot(preview, "preview-" + language);
        QUILL_PRESS(preview->findChild<QPushButton*>("cmdClose"));
        QTRY_VERIFY_WITH_TIMEOUT(!s_->window->findChild<quill::PreviewDialog*>("frmPreview"), 5000);

        // Moved to printer 1, it prints what the preview showed.
        startService();
        menu = rightClickJob(0);
        QVERIFY(menu);
        CLICK_ENTRY(menu, "mnuJobMove");
        QVERIFY(QTest::qWaitFor([&] { return popup() && popup()->objectName() == "mnuJobMove"; }, 5000));
        CLICK_ENTRY(popup(), "mnuJobMove1");
        const QString png = QDir(inst().netOut.path()).filePath("label-000001.png");
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(png) && !QImage(png).isNull(), 20000);
        QCOMPARE(QImage(png).convertToFormat(QImage::Format_RGB32), shown.convertToFormat(QImage::Format_RGB32));
        QTRY_COMPARE_WITH_TIMEOUT(jobList().count(), 1, 10000);
        QCOMPARE(s_->op->moveJobs({jobList().jobAt(0).id}, 1).outcome, quill::Operator::Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(quill::test::PrintedLabels(inst().netOut.path()).size(), 2, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(jobList().count(), 0, 10000);

        QUILL_PRESS(find<QPushButton>("cmdHistory"));
        auto* dialog = s_->window->findChild<quill::HistoryDialog*>("frmHistory");
        QVERIFY(dialog);
        QVERIFY(QTest::qWaitForWindowExposed(dialog));
        auto* list = dialog->findChild<QTreeView*>("lvwHistory");
        QStringList rows;
        for (int r = 0; r < list->model()->rowCount(); ++r)
            rows << list->model()->index(r, 1).data().toString() + "/" + list->model()->index(r, 2).data().toString()
                        + "/" + list->model()->index(r, 4).data().toString();
        QCOMPARE(rows, (QStringList{"2 Rangekort/Kassa/" + GetString(12167), "1 Greenfee/Kassa/" + GetString(12167)}));
        Screenshot(dialog, "history-" + language);

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
        Screenshot(dialog, "history-reprinted-" + language);
    }
};

QTEST_MAIN(TstQueueTools)
#include "tst_queuetools.moc"
