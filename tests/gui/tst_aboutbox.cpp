// The about box: its version line by language, and the system-information
// button with and without a tool on PATH.
#include "foundation/texts.h"
#include "gui/aboutbox.h"
#include "gui/guitest.h"

#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryDir>

using quill::AboutBox;
using quill::test::BoxAnswerer;
using quill::test::TestInstallation;

class TstAboutBox : public QObject {
    Q_OBJECT

    QByteArray path_ = qgetenv("PATH");

private slots:
    void cleanup()
    {
        qputenv("PATH", path_);
        quill::ResetLanguage();
    }

    void versionLine_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<int>("countryNo");
        QTest::addColumn<QString>("caption");
        QTest::addColumn<QString>("tail");
        QTest::newRow("no language file") << "SE" << 46 << " Om Brixa - Printerserver" << "SE,  Default (Swedish)";
        QTest::newRow("UK language file") << "UK" << 44 << " About Brixa - Print Server" << "UK,  English(UK)";
    }
    void versionLine()
    {
        QFETCH(QString, code);
        QFETCH(int, countryNo);
        QFETCH(QString, caption);
        QFETCH(QString, tail);
        TestInstallation inst; // its lang/ holds the UK file only
        QVERIFY(inst.ok());
        quill::ResetLanguage();
        quill::SetLanguageSettings(code, countryNo);
        AboutBox box;
        box.show();
        QVERIFY(QTest::qWaitForWindowExposed(&box));
        QCOMPARE(box.windowTitle(), caption);
        QCOMPARE(box.findChild<QLabel*>("lblTitle")->text(), quill::GetString(9003));
        QCOMPARE(box.findChild<QLabel*>("lblVersion")->text(),
                 QStringLiteral("Version " QUILL_VERSION ",  Kedra Version 1.00,  ") + tail);
        QVERIFY(!box.findChild<QPushButton*>("cmdOK")->text().startsWith('#'));
        quill::test::Screenshot(&box, "aboutbox-" + code.toLower());
        QUILL_PRESS(box.findChild<QPushButton*>("cmdOK"));
        QVERIFY(!box.isVisible());
    }

    void sysInfo_data()
    {
        QTest::addColumn<bool>("toolInstalled");
        QTest::newRow("no tool") << false;
        QTest::newRow("tool on PATH") << true;
    }
    void sysInfo()
    {
        QFETCH(bool, toolInstalled);
        QTemporaryDir bin;
        const QString marker = bin.filePath("started");
        if (toolInstalled) {
            QFile tool(bin.filePath("hardinfo"));
            QVERIFY(tool.open(QIODevice::WriteOnly));
            tool.write(QStringLiteral("#!/bin/sh\necho started > '%1'\n").arg(marker).toUtf8());
            tool.close();
            tool.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        }
        qputenv("PATH", bin.path().toUtf8());
        quill::WidgetMessageSink sink;
        AboutBox box;
        box.show();
        QVERIFY(QTest::qWaitForWindowExposed(&box));
        BoxAnswerer boxes;
        boxes.answer({QMessageBox::Ok});
        QUILL_PRESS(box.findChild<QPushButton*>("cmdSysInfo"));
        if (toolInstalled) {
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(marker), 10000);
            QCOMPARE(boxes.texts, QStringList{});
        } else {
            QCOMPARE(boxes.texts, QStringList{"System Information Is Unavailable At This Time"});
            QCOMPARE(boxes.parents.first(), &box);
        }
    }
};

QTEST_MAIN(TstAboutBox)
#include "tst_aboutbox.moc"
