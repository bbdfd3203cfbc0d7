#include "shell/installation.h"
#include "database/engine.h"
#include "database/schema.h"
#include "foundation/settings.h"
#include "foundation/strutil.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

namespace quill {

namespace {

// Files an installed package ships in <prefix>/share/quillbase (where an
// operator may add a language); the copies built into the program otherwise.
QString shippedFile(const QString& name)
{
    const QString shipped = QCoreApplication::applicationDirPath() + QStringLiteral("/../share/quillbase/") + name;
    return QFileInfo::exists(shipped) ? QFileInfo(shipped).absoluteFilePath() : QStringLiteral(":/quill/") + name;
}

bool copyResource(const QString& resource, const QString& target)
{
    if (QFile::exists(target))
        return true;
    // Written as a new file rather than copied, so the umask decides who may
    // read it (the service's makes it 0640), not the shipped file's mode.
    QFile in(resource);
    QFile out(target);
    if (!in.open(QIODevice::ReadOnly) || !out.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return false;
    const QByteArray bytes = in.readAll();
    return out.write(bytes) == bytes.size() && out.flush();
}

} // namespace

bool WriteMachineDefaults()
{
    const QString key = KeyBrixa;
    auto setIfMissing = [](const QString& path, const QString& name, int type, const QVariant& value) {
        if (RegGetValue(HKEY_LOCAL_MACHINE, path, name).isEmpty())
            RegSetValue(HKEY_LOCAL_MACHINE, path, name, type, value);
    };
    setIfMissing(key, QStringLiteral("tLanguage"), REG_SZ, QStringLiteral("SE"));
    setIfMissing(key, QStringLiteral("dwCountryNo"), REG_DWORD, 46);
    setIfMissing(KeyQuillbase, QStringLiteral("dwAddinScala"), REG_DWORD, 0);
    for (int n = 1; n <= 4; ++n)
        setIfMissing(KeyBrixa + QStringLiteral("\\Ports"), QStringLiteral("COM%1").arg(n), REG_SZ,
                     QStringLiteral("/dev/ttyS%1").arg(n - 1));
    return !RegGetValue(HKEY_LOCAL_MACHINE, key, QStringLiteral("tLanguage")).isEmpty();
}

bool ProvisionInstallation(const QString& dir, QString* message)
{
    if (!QDir().mkpath(dir)) {
        *message = QStringLiteral("Cannot create the installation folder %1.").arg(dir);
        return false;
    }
    QString error;
    if (!CreateInstallation(dir, &error)) {
        *message = error;
        return false;
    }
    QStringList problems;
    if (!copyResource(shippedFile(QStringLiteral("0.lbl")), dir + QStringLiteral("/0.lbl")))
        problems << QStringLiteral("could not write 0.lbl");
    // Layouts for the templates the new database lists.
    for (const char* t : {"1.lbl", "2.lbl"})
        if (!copyResource(shippedFile(QStringLiteral("demo.lbl")), dir + QLatin1Char('/') + QLatin1String(t)))
            problems << QStringLiteral("could not write %1").arg(QLatin1String(t));
    QDir().mkpath(dir + QStringLiteral("/lang"));
    QDirIterator it(shippedFile(QStringLiteral("lang")), QDir::Files);
    while (it.hasNext()) {
        const QString res = it.next();
        if (!copyResource(res, dir + QStringLiteral("/lang/") + QFileInfo(res).fileName()))
            problems << QStringLiteral("could not write lang/%1").arg(QFileInfo(res).fileName());
    }
    if (!WriteMachineDefaults())
        problems << QStringLiteral("per-machine settings not writable (%1)").arg(SettingsFile(HKEY_LOCAL_MACHINE));
    // A fresh installation logs: a printer that stops is seen. Once set, the
    // operator's choice stays.
    if (RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseLog")).isEmpty())
        RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseLog"), REG_DWORD, 1);
    *message = QStringLiteral("Installation created in %1.").arg(QDir(dir).absolutePath());
    if (!problems.isEmpty())
        *message += QStringLiteral(" Warning: ") + problems.join(QStringLiteral("; ")) + QLatin1Char('.');
    return true;
}

QString NextSteps(const QString& dir)
{
    const QString home = QDir(dir).absolutePath();
    const QString exe = QCoreApplication::applicationFilePath();
    const QString ctl = QCoreApplication::applicationDirPath() + QStringLiteral("/quillbase-ctl");
    const bool logging = NullToLong(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseLog")), 0) > 0;
    QString database = QStringLiteral("database brixa.mdb");
    try {
        const DbTarget target = InstallationTarget(home);
        if (target.postgres())
            database = target.describe();
    } catch (const Error&) {
        // Said by the start that reads it.
    }
    QString t;
    QTextStream out(&t);
    out << "Installation: " << home << " (" << database << ", layouts <template>.lbl, weekly logs)\n"
        << "Settings: " << SettingsFile(HKEY_LOCAL_MACHINE) << " (machine: serial ports, tBindAddress, "
        << "tAllowedClients), " << SettingsFile(HKEY_CURRENT_USER) << " (this user: log switches)\n"
        << "Event logging is " << (logging ? "on" : "off") << " (dwUseLog in the user settings).\n"
        << "Next:\n"
        << "  1. Start the server: " << exe << " --headless --home " << home << "\n"
        << "     or, installed as a service: sudo systemctl start quillbase\n"
        << "  2. Add a printer, e.g. on a network box at 192.168.10.40 port 9100, and start the print service:\n"
        << "     " << ctl << " --home " << home
        << " printer add --name Reception --address 192.168.10.40 --net-port 9100\n"
        << "     " << ctl << " --home " << home << " start\n"
        << "     (serial: --connection serial --com 1 --rate 9600; COM1 maps to a device in the machine "
        << "settings, [Ports] COM1=/dev/ttyUSB0; quillbase-ctl --help lists every command)\n"
        << "  3. Send a print request: docs/protocol.md has the fields and a worked example.\n";
    return t;
}

} // namespace quill
