// Which connection a device name is, and the gate that gives a connection to
// one party at a time: the driver never waits, a worker's hold does.
#include "foundation/settings.h"
#include "printers/linkgate.h"

#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <thread>

using namespace quill;

class TestLinkGate : public QObject {
    Q_OBJECT
    QTemporaryDir config_;

private slots:
    void initTestCase()
    {
        QVERIFY(config_.isValid());
        qputenv("XDG_CONFIG_DIRS", config_.path().toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", config_.filePath("user").toLocal8Bit());
        // COM2 is a link to a line, as the emulator's pty is.
        QFile line(config_.filePath("ttyQ0"));
        QVERIFY(line.open(QIODevice::WriteOnly));
        QVERIFY(QFile::link(line.fileName(), config_.filePath("com2")));
        RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM2"), REG_SZ,
                    config_.filePath("com2"));
    }

    void sameConnection_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("same");
        QTest::newRow("COMn with and without colon") << "COM2:" << "com2" << true;
        QTest::newRow("box without port is on 23") << "NETBOX:127.0.0.1" << "127.0.0.1#23" << true;
        QTest::newRow("box prefix or bare") << "NETBOX:10.0.0.7#9100" << "10.0.0.7#9100" << true;
        QTest::newRow("host names ignore case") << "NETBOX:Skrivare.Local#23" << "skrivare.local#23" << true;
        QTest::newRow("other port, other box") << "127.0.0.1#23" << "127.0.0.1#24" << false;
        QTest::newRow("other line") << "COM2:" << "COM3:" << false;
    }
    void sameConnection()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, same);
        QVERIFY(!LinkKey(a).isEmpty());
        QCOMPARE(LinkKey(a) == LinkKey(b), same);
    }

    void keys()
    {
        // A mapped port is the line its link leads to.
        QCOMPARE(LinkKey("COM2:"), "serial:" + QFileInfo(config_.filePath("ttyQ0")).canonicalFilePath());
        QCOMPARE(LinkKey("LPT1:"), QString());
    }

    void driverNeverWaitsWorkerDoes()
    {
        LinkGate& gate = LinkGate::instance();
        const QString line = LinkKey("COM2:"), box = LinkKey("127.0.0.1#23");
        QSignalSpy released(&gate, &LinkGate::released);

        // The driver has the line: a hold on line and box waits, holding neither.
        QVERIFY(gate.tryTake(line));
        QVERIFY(!gate.tryTake(line));
        std::atomic<int> stage{0};
        std::thread worker([&] {
            const LinkGate::Hold hold(gate, {line, box});
            stage = hold.cancelled() ? -1 : 1;
            while (stage == 1)
                std::this_thread::yield();
        });
        QTest::qWait(100);
        QCOMPARE(stage.load(), 0);
        QVERIFY(gate.tryTake(box)); // not taken while the line was busy
        gate.give(box);

        gate.give(line);
        QTRY_COMPARE_WITH_TIMEOUT(stage.load(), 1, 10000);
        QVERIFY(!gate.tryTake(line));
        QVERIFY(!gate.tryTake(box));
        stage = 2;
        worker.join();
        // The driver hears of it on its own thread and may go on.
        QTRY_VERIFY_WITH_TIMEOUT(released.size() >= 2, 10000);
        QVERIFY(gate.tryTake(line));
        gate.give(line);
    }

    void cancelEndsAWaitingHold()
    {
        LinkGate& gate = LinkGate::instance();
        const QString line = LinkKey("COM2:");
        QVERIFY(gate.tryTake(line));
        std::atomic<int> stage{0};
        std::thread worker([&] {
            const LinkGate::Hold hold(gate, {line});
            stage = hold.cancelled() ? -1 : 1;
        });
        QTest::qWait(50);
        gate.cancelAll(true);
        worker.join();
        gate.cancelAll(false);
        QCOMPARE(stage.load(), -1);
        // The cancelled hold took nothing: the driver still has the line.
        QVERIFY(gate.held(line));
        gate.give(line);
        QVERIFY(!gate.held(line));

        // Adopting keys taken up front gives them back at its end.
        QVERIFY(gate.tryTakeAll({line}));
        { const LinkGate::Hold hold(gate, {line}, LinkGate::Hold::Adopt); }
        QVERIFY(!gate.held(line));
    }
};

QTEST_GUILESS_MAIN(TestLinkGate)
#include "tst_linkgate.moc"
