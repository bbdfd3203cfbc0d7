// Which connection a device name is, and the links that give a connection to
// one party at a time, in turn.
#include "foundation/settings.h"
#include "printers/printerlink.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>

using namespace quill;

class TestPrinterLink : public QObject {
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
        QTest::newRow("host names ignore case") << "NETBOX:Skrivare.Local#23" << "skrivare.local#23" << true;
        QTest::newRow("other port, other box") << "127.0.0.1#23" << "127.0.0.1#24" << false;
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

    // Every party takes its turn on a connection in the order it asked; work
    // that needs two connections is queued on both at once, and blocking work
    // runs on a worker, with `done` back on the event loop.
    void turnsInOrder()
    {
        PrinterLinks links;
        const QString line = LinkKey("COM2:"), box = LinkKey("127.0.0.1#23");
        QStringList order;
        bool onWorker = false;
        const auto first = links.acquire({line}, [&] { order << "driver 1"; });
        QVERIFY(!links.granted(first)); // never before acquire returns
        QTRY_VERIFY_WITH_TIMEOUT(links.granted(first), 10000);
        links.run({line, box}, this,
                  [&](const DeviceContext& c) {
                      onWorker = QThread::currentThread() != qApp->thread() && c.timeoutMs == links.deviceTimeout();
                  },
                  [&] { order << "device work"; });
        const auto second = links.acquire({box}, [&] { order << "driver 2"; });
        QTest::qWait(100);
        QCOMPARE(order, QStringList{"driver 1"});
        QVERIFY(links.link(box)->busy() && links.link(line)->waiting() == 2);
        links.release(first);
        QTRY_COMPARE_WITH_TIMEOUT(order, (QStringList{"driver 1", "device work", "driver 2"}), 10000);
        QVERIFY(onWorker);
        QVERIFY(!links.link(line)->busy());
        // Withdrawing a turn that was never granted lets the next one go.
        const auto third = links.acquire({box}, [&] { order << "driver 3"; });
        links.release(second);
        QTRY_VERIFY_WITH_TIMEOUT(links.granted(third), 10000);
        links.release(third);
        QVERIFY(!links.link(box)->busy());
    }

    // Stopping a party's work ends its waits at once and drops what it still
    // had queued, without its `done`; the others go on, and so does later work.
    void stopWorkCancelsOnlyItsOwn()
    {
        PrinterLinks links;
        links.setDeviceTimeout(60000);
        const QString line = LinkKey("COM2:");
        QObject owner, other;
        std::atomic<bool> started{false}, cancelled{false};
        bool ended = false, otherDone = false, laterDone = false;
        links.run({line}, &owner,
                  [&](const DeviceContext& c) {
                      started = true;
                      QDeadlineTimer limit(c.timeoutMs);
                      while (!c.cancelled() && !limit.hasExpired())
                          QThread::msleep(5);
                      cancelled = c.cancelled();
                  },
                  [&] { ended = true; });
        links.run({line}, &owner, [](const DeviceContext&) {}, [&] { ended = true; });
        links.run({line}, &other, [](const DeviceContext&) {}, [&] { otherDone = true; });
        QTRY_VERIFY_WITH_TIMEOUT(started.load(), 10000);
        links.stopWork(&owner);
        QVERIFY(cancelled);
        QVERIFY(!links.hasWork(&owner));
        QTRY_VERIFY_WITH_TIMEOUT(otherDone, 10000);
        std::atomic<bool> laterCancelled{true};
        links.run({line}, &owner, [&](const DeviceContext& c) { laterCancelled = c.cancelled(); },
                  [&] { laterDone = true; });
        QTRY_VERIFY_WITH_TIMEOUT(laterDone, 10000);
        QVERIFY(!laterCancelled);
        QVERIFY(!ended);
    }
};

QTEST_GUILESS_MAIN(TestPrinterLink)
#include "tst_printerlink.moc"
