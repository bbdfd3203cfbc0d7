// The headless server as its own process, printing to two emulated printers
// (printer 1 a network box, printer 2 a serial printer on a pty): what the
// clients, the printers and the job table see of the whole road of a job.
// Nothing stops the service of a headless server short of its shutdown, so a
// stop in the middle of a run is tested in-process (tst_printservice).
#include "foundation/cp1252.h"
#include "support/dbfixture.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QProcess>
#include <QTcpSocket>
#include <QTest>

#include <algorithm>
#include <memory>

using quill::dbtest::JobText;
using quill::test::Emulator;
using quill::test::PrinterSite;
using quill::test::PrintedLabels;
using quill::test::TestInstallation;

namespace {

QByteArray printRequest(int printer, int templateId, int copies, const QString& caption)
{
    return quill::ToCp1252(JobText(printer, templateId, QString::number(copies), "KASSA1", "Anna", caption));
}

// Reply code: 0 for the plain "OK", else the four digits at its end.
int replyCode(const QString& reply)
{
    return reply == QLatin1String("BRIXA\tOK\t") ? 0 : reply.right(4).toInt();
}

} // namespace

class TstEndToEnd : public QObject {
    Q_OBJECT

    bool startServer(int statusIntervalMs = 500)
    {
        const int startsBefore = inst_->log().count("Quillbase succesfully started");
        server_ = std::make_unique<QProcess>();
        server_->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        server_->start(QStringLiteral(QUILL_BIN_DIR "/quillbase"),
                       {"--headless", "--home", inst_->path(), "--status-interval", QString::number(statusIntervalMs)});
        if (!server_->waitForStarted(10000))
            return false;
        // The listener opens before the status pass and the service start: the
        // log line says the whole start-up is done.
        if (!QTest::qWaitFor([&] { return inst_->log().count("Quillbase succesfully started") > startsBefore; }, 20000))
            return false;
        client_.abort();
        client_.connectToHost(QHostAddress::LocalHost, port_);
        return client_.waitForConnected(5000);
    }

    bool stopServer()
    {
        client_.abort();
        if (!server_)
            return true;
        server_->terminate();
        const bool ended = server_->waitForFinished(10000);
        const bool clean = ended && server_->exitStatus() == QProcess::NormalExit && server_->exitCode() == 0;
        if (!ended)
            server_->kill();
        server_.reset();
        return clean;
    }

    // Sends one request and returns its whole reply (empty after 10 s).
    QString send(const QByteArray& request)
    {
        client_.write(request);
        QByteArray got;
        auto complete = [&] {
            got += client_.readAll();
            const bool coded =
                got.size() > 13 && std::all_of(got.end() - 4, got.end(), [](char c) { return c >= '0' && c <= '9'; });
            return got == "BRIXA\tOK\t" || coded;
        };
        return QTest::qWaitFor(complete, 10000) ? quill::FromCp1252(got) : QString();
    }

    int queued() { return inst_->scalar("SELECT COUNT(*) FROM tbJob").toInt(); }
    Emulator& emu(int printer) { return printer == 1 ? inst_->net : inst_->ser; }
    QString out(int printer) { return (printer == 1 ? inst_->netOut : inst_->serOut).path(); }
    int calls(int printer, const QString& prefix)
    {
        const QStringList log = emu(printer).log();
        return std::count_if(log.cbegin(), log.cend(), [&](const QString& c) { return c.startsWith(prefix); });
    }

    std::unique_ptr<PrinterSite> inst_;
    std::unique_ptr<QProcess> server_;
    QTcpSocket client_;
    quint16 port_ = 0;

private slots:
    void initTestCase() { QUILL_SKIP_WITHOUT_ENGINE(); }
    void init()
    {
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        port_ = TestInstallation::freePort();
        QVERIFY(inst_->setServer(port_, true));
        inst_->setUserSwitch("dwUseLog", 1);
    }

    void cleanup()
    {
        stopServer();
        inst_.reset();
    }

    void printsInOrderPerPrinter()
    {
        QVERIFY(startServer());
        struct Job {
            int printer, templateId, copies;
            const char* caption;
        };
        const Job jobs[] = {{1, 1, 2, "A"}, {2, 1, 1, "B"}, {1, 2, 3, "C"}, {2, 1, 1, "D"}, {1, 1, 1, "E"}};
        for (const Job& j : jobs)
            QCOMPARE(replyCode(send(printRequest(j.printer, j.templateId, j.copies, j.caption))), 0);

        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 30000);
        const QStringList labels1{"A 1/2 t1", "A 2/2 t1", "C 1/3 t2", "C 2/3 t2", "C 3/3 t2", "E 1/1 t1"};
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(out(1)), labels1, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(out(2)), (QStringList{"B 1/1 t1", "D 1/1 t1"}), 10000);
    }

    void faultKeepsJobs_data()
    {
        QTest::addColumn<int>("printer");
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("clear");
        QTest::addColumn<QString>("seen");        // in the driver's log, twice, once the fault is met
        QTest::addColumn<QList<int>>("codes");    // of a request meeting the fault
        QTest::addColumn<QString>("replyText");

        QTest::newRow("paper out, serial") << 2 << "paper out" << "paper in" << QStringLiteral("Slut på papper")
                                           << QList<int>{1101, 1102}
                                           << QStringLiteral("Status skrivare: Slut på papper\r");
        // Each pass past the limit asks a silent printer again; it stays Checking
        // after Ready, so requests get the plain "OK".
        QTest::newRow("no answer, network") << 1 << "silent on" << "silent off" << "asked again, check restarted"
                                            << QList<int>{0} << "";
    }

    void faultKeepsJobs()
    {
        QFETCH(int, printer);
        QFETCH(QString, fault);
        QFETCH(QString, clear);
        QFETCH(QString, seen);
        QFETCH(QList<int>, codes);
        QFETCH(QString, replyText);
        QCOMPARE(emu(printer).command(fault), QStringLiteral("ok"));
        QVERIFY(startServer());
        // Stored whether or not the start-up check has met the fault yet.
        QVERIFY(send(printRequest(printer, 1, 2, "först")).startsWith("BRIXA\tOK\t"));
        QTRY_VERIFY_WITH_TIMEOUT(inst_->log("Quillmotor").count(seen) >= 2, 15000);

        const QString reply = send(printRequest(printer, 1, 1, "sen"));
        QVERIFY2(codes.contains(replyCode(reply)) && reply.contains(replyText), qPrintable(reply));
        // Two more passes meet the fault, with the job timer's ticks between them.
        const int passes = int(inst_->log("Quillmotor").count(seen));
        QTRY_VERIFY_WITH_TIMEOUT(inst_->log("Quillmotor").count(seen) >= passes + 2, 15000);
        QCOMPARE(queued(), 2);
        QCOMPARE(PrintedLabels(out(printer)), QStringList());
        // A printer not Ready is not handed its jobs: only a run started before
        // the first check met the fault.
        QVERIFY(inst_->log("Quillmotor").count("MPPrintJob") <= 1);

        // Once the fault is gone the next pass makes it ready, and both jobs print in order.
        QCOMPARE(emu(printer).command(clear), QStringLiteral("ok"));
        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 15000);
        const QStringList labels{"först 1/2 t1", "först 2/2 t1", "sen 1/1 t1"};
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(out(printer)), labels, 10000);
    }

    void terminateMidRunLosesNothing()
    {
        // No status pass during the run: only the job talks to the printer.
        QVERIFY(startServer(60000));
        QTRY_VERIFY_WITH_TIMEOUT(calls(1, "status") >= 1, 10000); // the start-up check is done
        QCOMPARE(inst_->net.command("delay 200"), QStringLiteral("ok"));
        QCOMPARE(replyCode(send(printRequest(1, 1, 1, "kvar"))), 0);
        QTRY_VERIFY_WITH_TIMEOUT(calls(1, "var ") >= 1, 15000);

        QVERIFY(stopServer()); // SIGTERM in the middle of the run
        QCOMPARE(queued(), 1);
        const QString log = inst_->log();
        QVERIFY(log.indexOf("Quillbase succesfully started") < log.lastIndexOf("Quillbase terminated."));

        QCOMPARE(inst_->net.command("delay 0"), QStringLiteral("ok"));
        QVERIFY(startServer(60000));
        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 15000);
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(out(1)), QStringList{"kvar 1/1 t1"}, 5000);
    }
};

QTEST_GUILESS_MAIN(TstEndToEnd)
#include "tst_endtoend.moc"
