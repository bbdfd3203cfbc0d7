// The headless server as its own process, printing to two emulated printers
// (printer 1 a network box, printer 2 a serial printer on a pty): what the
// clients, the printers and the job table see of the whole road of a job,
// across a SIGTERM in the middle of a print run. Printer faults are the print
// service's and the request handler's to test.
#include "foundation/cp1252.h"
#include "support/dbfixture.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QDir>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTest>

using quill::dbtest::JobText;
using quill::test::HeadlessServer;
using quill::test::PrinterSite;
using quill::test::PrintedLabels;
using quill::test::TestInstallation;

class TstEndToEnd : public QObject {
    Q_OBJECT

    PrinterSite inst_;
    QTcpSocket client_;

    // Sends one print request and returns the start of its reply, as long as
    // an acceptance (empty after 10 s, or at once when the server closed the connection).
    QByteArray send(int printer, int templateId, int copies, const QString& caption)
    {
        const QString job = JobText(printer, templateId, QString::number(copies), "KASSA1", "Anna", caption);
        client_.write(quill::ToCp1252(job));
        const bool answered = QTest::qWaitFor(
            [&] { return client_.bytesAvailable() >= 9 || client_.state() != QAbstractSocket::ConnectedState; }, 10000);
        return answered ? client_.read(9) : QByteArray();
    }
    int queued() { return inst_.scalar("SELECT COUNT(*) FROM tbJob").toInt(); }

private slots:
    void initTestCase() { QUILL_SKIP_WITHOUT_ENGINE(); }

    void printsInOrderAcrossATermination()
    {
        QVERIFY2(inst_.start(), qPrintable(inst_.errorText()));
        const quint16 port = TestInstallation::freePort();
        QVERIFY(inst_.setServer(port, true));
        inst_.setUserSwitch("dwUseLog", 1);
        // No status pass after the start-up's: only the jobs talk to the printers.
        HeadlessServer server(inst_);
        QVERIFY(server.start({"--status-interval", "60000"}));
        QTRY_VERIFY_WITH_TIMEOUT(inst_.net.log().filter(QRegularExpression("^status")).size() >= 1, 10000);
        QCOMPARE(inst_.net.command("delay 200"), QStringLiteral("ok"));
        client_.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(client_.waitForConnected(5000));
        QCOMPARE(send(1, 1, 1, "kvar"), QByteArray("BRIXA\tOK\t"));
        QTRY_VERIFY_WITH_TIMEOUT(inst_.net.log().filter(QRegularExpression("^var ")).size() >= 1, 15000);

        QVERIFY(server.stop()); // SIGTERM in the middle of the run: ends cleanly, the job kept
        QCOMPARE(queued(), 1);

        // The job left is printed first; each printer prints its own.
        QCOMPARE(inst_.net.command("delay 0"), QStringLiteral("ok"));
        QVERIFY(server.start({"--status-interval", "60000"}));
        client_.abort();
        client_.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(client_.waitForConnected(5000));
        QCOMPARE(send(1, 2, 2, "A"), QByteArray("BRIXA\tOK\t"));
        QCOMPARE(send(2, 1, 1, "B"), QByteArray("BRIXA\tOK\t"));
        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 30000);
        const QStringList labels1{"kvar 1/1 t1", "A 1/2 t2", "A 2/2 t2"};
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(inst_.netOut.path()), labels1, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(inst_.serOut.path()), QStringList{"B 1/1 t1"}, 10000);
    }

    // Started for the window where none can be shown, the server says how to
    // run without one and ends with 3 instead of Qt's abort.
    void withoutADisplay_data()
    {
        QTest::addColumn<QString>("display");
        QTest::newRow("none named") << QString();
        QTest::newRow("named, not there") << ":nodisplay";
    }
    void withoutADisplay()
    {
        if (quill::dbtest::OnPostgres())
            QSKIP("ends before it opens a database");
        QFETCH(QString, display);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env.remove(name);
        if (!display.isEmpty())
            env.insert("DISPLAY", display);
        const quill::test::ProgramRun server = quill::test::RunProgram(
            QUILL_BIN_DIR "/quillbase", {"--home", QDir::tempPath() + "/quill-no-display"}, env, 20000);
        QCOMPARE(server.code, 3);
        QVERIFY(server.err.contains("run with --headless to serve without a window."));
    }
};

QTEST_GUILESS_MAIN(TstEndToEnd)
#include "tst_endtoend.moc"
