// The MP104C driver object against real emulators (network box over TCP and a
// serial printer on a pty), and the creation of the five objects.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/messages.h"
#include "service/printservice.h"
#include "service/quillmotor.h"
#include "service/slots.h"
#include "shell/texts.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

using namespace quill;
using quill::test::Emulator;
using quill::test::TestInstallation;

namespace {

class RecordingSink final : public MessageSink {
public:
    QStringList texts;
    BoxAnswer show(const QString&, const QString& text, BoxIcon, BoxButtons) override
    {
        texts << text;
        return BoxAnswer::Ok;
    }
};

QString jobText(int printer, int templateId, int copies, const QString& caption, const QString& barcode = "123")
{
    return QStringList{"BRIXA", "1.00", "P", QString::number(printer), QString::number(templateId),
                       QString::number(copies), "KASSA1", "2", barcode, "", "user1", caption, "", "Rad 14"}
        .join('\t');
}

QList<QJsonObject> labels(const QString& dir)
{
    QList<QJsonObject> out;
    const QStringList files = QDir(dir).entryList({"*.json"}, QDir::Files, QDir::Name);
    for (const QString& f : files) {
        QFile file(QDir(dir).filePath(f));
        if (file.open(QIODevice::ReadOnly))
            out << QJsonDocument::fromJson(file.readAll()).object();
    }
    return out;
}

} // namespace

class TstQuillmotor : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void connectionTexts_data();
    void connectionTexts();
    void jobVariables();

    void checkResult_data();
    void checkResult();
    void printRun_data();
    void printRun();
    void noAnswerEndsWithErr_data();
    void noAnswerEndsWithErr();
    void unreachable();
    void checkAskedDuringPrintWaits();
    void checkAskedAgainRestarts();

    void creation_data();
    void creation();

private:
    void start(bool serial);
    std::unique_ptr<TestInstallation> inst_;
    std::unique_ptr<Emulator> emu_;
    std::unique_ptr<QTemporaryDir> out_;
    std::unique_ptr<MP104C> drv_;
    RecordingSink sink_;
};

void TstQuillmotor::init()
{
    inst_ = std::make_unique<TestInstallation>();
    QVERIFY(inst_->ok());
    SetMessageSink(&sink_);
    sink_.texts.clear();
    SetSilentMode(false);
    drv_ = std::make_unique<MP104C>();
    drv_->setAnswerTimeout(5000);
}

void TstQuillmotor::cleanup()
{
    drv_.reset();
    emu_.reset();
    out_.reset();
    SetMessageSink(nullptr);
    inst_.reset();
}

void TstQuillmotor::start(bool serial)
{
    out_ = std::make_unique<QTemporaryDir>();
    emu_ = std::make_unique<Emulator>();
    emu_->setOutDir(out_->path());
    if (serial) {
        QVERIFY2(emu_->startPty(9600), qPrintable(emu_->errorText()));
        emu_->mapComPort(3);
        drv_->setPort("COM3:");
        drv_->setSettings("9600,n,8,1,x");
    } else {
        QVERIFY2(emu_->startTcp(), qPrintable(emu_->errorText()));
        drv_->setPort("NETBOX:" + emu_->bareDevice());
        drv_->setSettings("");
    }
    drv_->setPrinterId(serial ? 2 : 1);
}

void TstQuillmotor::connectionTexts_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("connection");
    QTest::addColumn<QString>("string");
    QTest::addColumn<QString>("port");
    QTest::addColumn<QString>("settings");
    QTest::addColumn<int>("printerId");

    QTest::newRow("serial") << 1 << 1 << "COM2:#57600" << "COM2:" << "57600,n,8,1,x" << 4;
    QTest::newRow("serial, blanks") << 2 << 1 << " COM1: # 9600 " << "COM1:" << "9600 ,n,8,1,x" << 4;
    QTest::newRow("network") << 1 << 2 << "192.168.1.40#23" << "NETBOX:192.168.1.40#23" << "" << 4;
    QTest::newRow("connection 3") << 2 << 3 << "whatever" << "" << "" << 4;
    // Types other than 1 and 2 leave identity and connection as they were.
    QTest::newRow("type 3") << 3 << 1 << "COM2:#57600" << "old port" << "old settings" << 99;
    QTest::newRow("type 0") << 0 << 2 << "10.0.0.5#23" << "old port" << "old settings" << 99;
}

void TstQuillmotor::connectionTexts()
{
    QFETCH(int, type);
    QFETCH(int, connection);
    QFETCH(QString, string);
    MP104C obj;
    obj.setPrinterId(99);
    obj.setPort("old port");
    obj.setSettings("old settings");
    PrinterSlot s;
    s.printerId = 4;
    s.printerTypeId = type;
    s.connectionType = connection;
    s.connectionString = string;
    PrintService::MainSetQuillmotorConnection(&obj, s);
    QTEST(obj.Port(), "port");
    QTEST(obj.Settings(), "settings");
    QTEST(obj.PrinterId(), "printerId");
}

void TstQuillmotor::jobVariables()
{
    const auto vars = JobVariables(jobText(2, 15, 3, QStringLiteral("Grönt kort")));
    QCOMPARE(vars.size(), 14);
    QCOMPARE(vars.at(0), qMakePair(1, QStringLiteral("BRIXA")));
    QCOMPARE(vars.at(9), qMakePair(10, QString())); // empty fields go out too
    QCOMPARE(vars.at(11), qMakePair(12, QStringLiteral("Grönt kort")));
    QCOMPARE(vars.at(13), qMakePair(14, QStringLiteral("Rad 14")));
    // The add-in form's text ends with TAB CR LF.
    const auto addin = JobVariables(QStringLiteral("BRIXA\t1.00\tP\t1\t5\t1\tWS\t0\tx\r\n\t\r\n"));
    QCOMPARE(addin.at(8), qMakePair(9, QStringLiteral("x")));
    for (const auto& v : addin)
        QVERIFY(!v.second.contains('\r') && !v.second.contains('\n'));
}

void TstQuillmotor::checkResult_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("result");
    for (bool serial : {false, true}) {
        const char* kind = serial ? "serial" : "network";
        QTest::addRow("%s ready", kind) << serial << "" << "OK\t";
        QTest::addRow("%s paper out", kind) << serial << "paper out" << QString("ERR\t") + GetString(13005);
        QTest::addRow("%s ribbon out", kind) << serial << "ribbon out" << QString("ERR\t") + GetString(13009);
        QTest::addRow("%s head up", kind) << serial << "head up" << QString("ERR\t") + GetString(13010);
    }
}

void TstQuillmotor::checkResult()
{
    QFETCH(bool, serial);
    QFETCH(QString, fault);
    start(serial);
    if (!fault.isEmpty())
        QCOMPARE(emu_->command(fault), QStringLiteral("ok"));
    QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
    QSignalSpy printed(drv_.get(), &MP104C::MPPrintJobFinished);
    QVERIFY(drv_->MPCheck());
    QVERIFY(done.isEmpty()); // nothing happens before the event loop runs
    QVERIFY(done.wait(10000));
    QTEST(drv_->Result(), "result");
    QCOMPARE(printed.count(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(emu_->log().contains("status 4"), 5000);
    QCOMPARE(emu_->state().value("printed").toInt(), 0);
}

void TstQuillmotor::printRun_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<QString>("layoutFile"); // written as 1.lbl ("-" removes it)
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("result");
    QTest::newRow("network") << false << "" << "" << "OK\t";
    QTest::newRow("serial") << true << "" << "" << "OK\t";
    QTest::newRow("paper out") << false << "" << "paper out" << QString("ERR\t") + GetString(13005);
    QTest::newRow("layout file missing") << false << "-" << "" << QString("ERR\t") + GetString(13004);
    QTest::newRow("layout unparsable") << true << "this is no layout\n" << "" << QString("ERR\t") + GetString(13004);
}

void TstQuillmotor::printRun()
{
    QFETCH(bool, serial);
    QFETCH(QString, layoutFile);
    QFETCH(QString, fault);
    QFETCH(QString, result);
    const bool ok = result.startsWith("OK");
    start(serial);
    SetUseLog(true);
    if (layoutFile == "-") {
        QVERIFY(QFile::remove(inst_->file("1.lbl")));
    } else if (!layoutFile.isEmpty()) {
        QFile f(inst_->file("1.lbl"));
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(layoutFile.toUtf8());
    }
    if (!fault.isEmpty())
        QCOMPARE(emu_->command(fault), QStringLiteral("ok"));
    QSignalSpy done(drv_.get(), &MP104C::MPPrintJobFinished);
    QSignalSpy checked(drv_.get(), &MP104C::MPCheckFinished);
    const qint32 id = drv_->PrinterId();
    drv_->setTemplateId(1);
    drv_->setJobId(7);
    drv_->setJobData(jobText(id, 1, 2, "Första"));
    drv_->setNewTemplate(true);
    QVERIFY(drv_->MPPrintJob());
    // What the server reads back is the run's own identity, whatever was
    // written meanwhile.
    drv_->setJobId(99);
    drv_->setTemplateId(98);
    QVERIFY(done.wait(10000));
    QCOMPARE(drv_->Result(), result);
    QCOMPARE(drv_->JobId(), 7);
    QCOMPARE(drv_->TemplateId(), 1);
    QCOMPARE(checked.count(), 0);

    const QString line = QStringLiteral("MPPrintJob PId = %1 JId = 7: ").arg(id);
    QFile logFile(inst_->file(WeeklyLogName("Quillmotor", QDate::currentDate())));
    QVERIFY(logFile.open(QIODevice::ReadOnly));
    const QString logText = QString::fromUtf8(logFile.readAll());
    QVERIFY2(logText.contains(line + (ok ? "2 label(s) printed, layout 1 sent" : result)), qPrintable(logText));
    SetUseLog(false);
    if (!ok) {
        QCOMPARE(emu_->state().value("printed").toInt(), 0);
        return;
    }
    QTRY_COMPARE_WITH_TIMEOUT(labels(out_->path()).size(), 2, 10000);

    // Without NewTemplate: variables and print only; every field goes out again.
    drv_->setJobId(8);
    drv_->setJobData(jobText(id, 1, 1, "Andra", "456"));
    drv_->setNewTemplate(false);
    QVERIFY(drv_->MPPrintJob());
    QVERIFY(done.wait(10000));
    QCOMPARE(drv_->Result(), QStringLiteral("OK\t"));
    QCOMPARE(emu_->log().count("layout 1"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(labels(out_->path()).size(), 3, 10000);
    const auto l = labels(out_->path());
    QCOMPARE(l[0]["variables"].toObject()["12"].toString(), QStringLiteral("Första"));
    QCOMPARE(l[1]["copy"].toInt(), 2);
    QCOMPARE(l[1]["copies"].toInt(), 2);
    QCOMPARE(l[2]["variables"].toObject()["12"].toString(), QStringLiteral("Andra"));
    QCOMPARE(l[2]["variables"].toObject()["9"].toString(), QStringLiteral("456"));
    QCOMPARE(l[2]["template"].toString(), QStringLiteral("1"));
}

void TstQuillmotor::noAnswerEndsWithErr_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<bool>("print");
    QTest::newRow("network check") << false << false;
    QTest::newRow("network print") << false << true;
    QTest::newRow("serial check") << true << false;
    QTest::newRow("serial print") << true << true;
}

void TstQuillmotor::noAnswerEndsWithErr()
{
    QFETCH(bool, serial);
    QFETCH(bool, print);
    start(serial);
    QCOMPARE(emu_->command("silent on"), QStringLiteral("ok"));
    drv_->setAnswerTimeout(300);
    QSignalSpy checked(drv_.get(), &MP104C::MPCheckFinished);
    QSignalSpy printed(drv_.get(), &MP104C::MPPrintJobFinished);
    if (print) {
        drv_->setTemplateId(1);
        drv_->setJobData(jobText(1, 1, 1, "x"));
        drv_->setNewTemplate(true);
        QVERIFY(drv_->MPPrintJob());
        QVERIFY(printed.wait(10000));
    } else {
        QVERIFY(drv_->MPCheck());
        QVERIFY(checked.wait(10000));
    }
    QCOMPARE(drv_->Result(), QString("ERR\t") + GetString(13003));
    QVERIFY(!drv_->busy());
    // The printer heard the request but never answered.
    QVERIFY(emu_->log().contains(serial ? "open 9600" : "open"));
    // The driver is usable again once the printer talks.
    QCOMPARE(emu_->command("silent off"), QStringLiteral("ok"));
    QVERIFY(drv_->MPCheck());
    QTRY_COMPARE_WITH_TIMEOUT(checked.count(), print ? 1 : 2, 10000);
    QCOMPARE(drv_->Result(), QStringLiteral("OK\t"));
}

void TstQuillmotor::unreachable()
{
    // A port nobody listens on, and a serial port that does not exist.
    QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
    drv_->setPort(QStringLiteral("NETBOX:127.0.0.1#%1").arg(TestInstallation::freePort()));
    QVERIFY(drv_->MPCheck());
    QVERIFY(done.wait(10000));
    QCOMPARE(drv_->Result(), QString("ERR\t") + GetString(12038));

    inst_->setMachineValue("Ports", "COM4", inst_->file("no-such-tty"), false);
    drv_->setPort("COM4:");
    drv_->setSettings("9600,n,8,1,x");
    QVERIFY(drv_->MPCheck());
    QVERIFY(done.wait(10000));
    QCOMPARE(drv_->Result(), QString("ERR\t") + GetString(12038));

    drv_->setPort("");
    QVERIFY(drv_->MPCheck());
    QVERIFY(done.wait(10000));
    QCOMPARE(drv_->Result(), QString("ERR\t") + GetString(12038));
}

void TstQuillmotor::checkAskedDuringPrintWaits()
{
    start(false);
    QCOMPARE(emu_->command("delay 50"), QStringLiteral("ok"));
    QStringList events;
    connect(drv_.get(), &MP104C::MPPrintJobFinished, this, [&] {
        events << "print " + drv_->Result() + " " + QString::number(drv_->JobId()) + " "
                + QString::number(drv_->PrinterId());
    });
    connect(drv_.get(), &MP104C::MPCheckFinished, this,
            [&] { events << "check " + drv_->Result() + " " + QString::number(drv_->PrinterId()); });
    drv_->setTemplateId(1);
    drv_->setJobId(11);
    drv_->setJobData(jobText(1, 1, 1, "x"));
    drv_->setNewTemplate(true);
    QVERIFY(drv_->MPPrintJob());
    // The status pass re-asks a printer that has been Working too long, with
    // the identity written again (here a different id, to see whose result is read).
    drv_->setPrinterId(5);
    QVERIFY(drv_->MPCheck());
    QVERIFY(drv_->MPCheck()); // asked twice while waiting: one check
    QTRY_COMPARE_WITH_TIMEOUT(events.size(), 2, 15000);
    QCOMPARE(events, (QStringList{"print OK\t 11 1", "check OK\t 5"}));
    QTest::qWait(300);
    QCOMPARE(events.size(), 2);
}

void TstQuillmotor::checkAskedAgainRestarts()
{
    start(false);
    QCOMPARE(emu_->command("silent on"), QStringLiteral("ok"));
    drv_->setAnswerTimeout(60000);
    QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
    QVERIFY(drv_->MPCheck());
    QTRY_COMPARE_WITH_TIMEOUT(emu_->log().count("open"), 1, 10000);
    QVERIFY(drv_->MPCheck());
    QTRY_COMPARE_WITH_TIMEOUT(emu_->log().count("open"), 2, 10000);
    QCOMPARE(done.count(), 0);
    QCOMPARE(emu_->command("silent off"), QStringLiteral("ok"));
    QVERIFY(drv_->MPCheck());
    QVERIFY(done.wait(10000));
    QCOMPARE(drv_->Result(), QStringLiteral("OK\t"));
    QTest::qWait(200);
    QCOMPARE(done.count(), 1); // the dropped attempts never report
}

void TstQuillmotor::creation_data()
{
    QTest::addColumn<int>("failingSlot");
    QTest::addColumn<int>("failures");  // attempts that fail there; -1: every one
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("silent");
    QTest::addColumn<QList<int>>("attempts"); // per slot; -1: retried (more than 2)
    QTest::addColumn<QString>("logLine");     // empty: creation succeeds

    QTest::newRow("all created") << 0 << 0 << 0 << false << QList<int>{1, 1, 1, 1, 1} << "";
    QTest::newRow("441 fails at once")
        << 1 << 1 << 441 << false << QList<int>{1, 0, 0, 0, 0} << "CreateQuillmotor1 failed. Error: 441 no class";
    QTest::newRow("retried until it works") << 2 << 2 << 429 << false << QList<int>{1, 3, 1, 1, 1} << "";
    QTest::newRow("third fails, rest not tried")
        << 3 << -1 << 429 << false << QList<int>{1, 1, -1, 0, 0} << "CreateQuillmotor3 failed. Error: 429 no class";
    QTest::newRow("silent: logged only")
        << 5 << 1 << 441 << true << QList<int>{1, 1, 1, 1, 1} << "CreateQuillmotor5 failed. Error: 441 no class";
}

void TstQuillmotor::creation()
{
    QFETCH(int, failingSlot);
    QFETCH(int, failures);
    QFETCH(int, error);
    QFETCH(bool, silent);
    QFETCH(QList<int>, attempts);
    QFETCH(QString, logLine);
    SetUseLog(true);
    LogInit("Quillbase");
    SetSilentMode(silent);

    JobDatabase jdb;
    PrinterSlots slotTable;
    JobStore store(jdb, slotTable);
    PrintService svc(slotTable, jdb, store);
    svc.setCreateRetryWindow(400);
    // Objects are made in slot order: the next one made is for slot created + 1.
    int created = 0;
    QList<int> tried(5, 0);
    svc.setDriverFactory([&](QObject* parent) -> MP104C* {
        const int slot = created + 1;
        ++tried[slot - 1];
        if (slot == failingSlot && (failures < 0 || tried[slot - 1] <= failures))
            throw Error(error, "no class");
        ++created;
        return new MP104C(parent);
    });
    const bool ok = svc.MainCreateQuillmotors();
    QCOMPARE(ok, logLine.isEmpty());
    for (int n = 1; n <= 5; ++n) {
        if (attempts[n - 1] >= 0)
            QCOMPARE(tried[n - 1], attempts[n - 1]);
        else
            QVERIFY2(tried[n - 1] > 2, "a failing creation is retried");
        QCOMPARE(svc.driver(n) != nullptr, ok || n < failingSlot);
    }
    const QString log = inst_->log();
    if (ok) {
        QVERIFY(!log.contains("CreateQuillmotor"));
        QVERIFY(sink_.texts.isEmpty());
    } else {
        QVERIFY2(log.contains(logLine), qPrintable(log));
        QCOMPARE(log.count("CreateQuillmotor"), 1); // the first failure ends the creation
        QCOMPARE(sink_.texts, silent ? QStringList()
                                     : QStringList{logLine + "\r\r" + GetString(12018) + "\r" + GetString(12019)});
    }
    SetUseLog(false);
    SetSilentMode(false);
}

QTEST_GUILESS_MAIN(TstQuillmotor)
#include "tst_quillmotor.moc"
