// What the operator is told when a start-up step fails or falls short: each
// fault of a real installation, started with silent mode off and on, ends in
// its start result and at most one box, with its text and icon.
#include "foundation/error.h"
#include "foundation/texts.h"
#include "service/printservice.h"
#include "shell/server.h"
#include "support/dbfixture.h"
#include "support/installation.h"
#include "support/mounts.h"

#include <QDir>
#include <QFile>
#include <QLockFile>
#include <QTcpServer>
#include <QTest>

#include <unistd.h>

using namespace quill;
using quill::dbtest::RecordingSink;
using quill::test::TestInstallation;

class TstStartup : public QObject {
    Q_OBJECT

private slots:
    void failureBoxes_data()
    {
        const QString checkInstallation = "\n" + GetString(12029, GetString(9003));
        QTest::addColumn<QString>("fault");
        QTest::addColumn<bool>("silent");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("box"); // "<icon> <text>", empty for none

        struct Row {
            const char* name;
            QString fault;
            Server::StartResult result;
            BoxIcon icon;
            QString text;
            bool evenSilent = false;
        };
        const QString drivers = "CreateQuillmotor1 failed. Error: 441 no class\r\r" + GetString(12018) + "\r"
            + GetString(12019);
        const Row rows[] = {
            {"account file missing", "-brixa.mda", Server::NoDatabase, BoxIcon::Exclamation,
             GetString(12030) + checkInstallation},
            {"database missing", "-brixa.mdb", Server::NoDatabase, BoxIcon::Exclamation,
             GetString(12031) + checkInstallation},
            {"database is not a database", "garbage", Server::NoDatabase, BoxIcon::Critical,
             "SrvOpenDatabases failed. Error: 26 file is not a database" + checkInstallation},
            {"printer table unreadable", "drop tbPrinter", Server::NoDatabase, BoxIcon::None,
             "SrvPrinterOpenDB failed. Error: 1 no such table: tbPrinter" + checkInstallation},
            {"job table unreadable", "drop tbJob", Server::StartupFailed, BoxIcon::None,
             "SrvJobOpenDB failed. Error: 1 no such table: tbJob" + checkInstallation},
            {"driver objects not made", "drivers", Server::StartupFailed, BoxIcon::Critical, drivers},
            {"port taken: starts without a listener", "port", Server::Started, BoxIcon::Exclamation,
             GetString(12014)},
            {"another copy runs", "lock", Server::OtherInstance, BoxIcon::Information,
             GetString(12009, GetString(9003))},
            // The log may be in that very folder: shown even in silent mode.
            {"folder not writable", "read-only", Server::HomeNotWritable, BoxIcon::Critical,
             GetString(12144, "%1|Read-only file system"), true},
        };
        for (const Row& r : rows)
            for (bool silent : {false, true})
                QTest::addRow("%s%s", r.name, silent ? ", silent" : "")
                    << r.fault << silent << int(r.result)
                    << (silent && !r.evenSilent ? QString() : QString::number(int(r.icon)) + ' ' + r.text);
    }

    void failureBoxes()
    {
        QFETCH(QString, fault);
        QFETCH(bool, silent);
        QFETCH(int, result);
        QFETCH(QString, box);
        TestInstallation inst;
        QVERIFY(inst.ok());
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any, 0));
        QVERIFY(inst.setServer(fault == "port" ? taken.serverPort() : TestInstallation::freePort(), false));
        inst.setUserSwitch("dwSilentMode", silent ? 1 : 0);

        QLockFile other(inst.file("quillbase.lock"));
        bool mounted = false;
        auto server = std::make_unique<Server>(Server::Options{3600000});
        if (fault.startsWith('-')) {
            QVERIFY(QFile::remove(inst.file(fault.mid(1))));
        } else if (fault == "garbage") {
            QFile file(inst.file("brixa.mdb"));
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(QByteArray(8192, 'q')) == 8192);
        } else if (fault.startsWith("drop ")) {
            QVERIFY(inst.sql("DROP TABLE " + fault.mid(5)));
        } else if (fault == "drivers") {
            server->printService().setDriverFactory([](QObject*) -> MP104C* { throw Error(441, "no class"); });
        } else if (fault == "lock") {
            QVERIFY(other.tryLock(0));
        } else if (fault == "read-only") {
            QString why;
            if (!test::BindReadOnly(inst.path(), &why))
                QSKIP(qPrintable(why));
            mounted = true;
            box = box.arg(QDir::toNativeSeparators(inst.path()));
        }

        RecordingSink sink;
        const Server::StartResult started = server->startup();
        server.reset();
        if (mounted)
            QVERIFY(test::Unmount(inst.path()));
        QCOMPARE(int(started), result);
        QStringList shown;
        for (const quill::dbtest::ShownBox& b : sink.boxes)
            shown << QString::number(int(b.icon)) + ' ' + b.text;
        QCOMPARE(shown, box.isEmpty() ? QStringList() : QStringList{box});
    }
};

QTEST_GUILESS_MAIN(TstStartup)
#include "tst_startup.moc"
