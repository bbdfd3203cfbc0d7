#include "shell/installation.h"
#include "database/schema.h"
#include "foundation/settings.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

namespace quill {

namespace {

bool copyResource(const QString& resource, const QString& target)
{
    if (QFile::exists(target))
        return true;
    if (!QFile::copy(resource, target))
        return false;
    // Resource copies come out read-only.
    return QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
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
    if (!copyResource(QStringLiteral(":/quill/0.lbl"), dir + QStringLiteral("/0.lbl")))
        problems << QStringLiteral("could not write 0.lbl");
    // Layouts for the templates the new database lists.
    for (const char* t : {"1.lbl", "2.lbl"})
        if (!copyResource(QStringLiteral(":/quill/demo.lbl"), dir + QLatin1Char('/') + QLatin1String(t)))
            problems << QStringLiteral("could not write %1").arg(QLatin1String(t));
    QDir().mkpath(dir + QStringLiteral("/lang"));
    QDirIterator it(QStringLiteral(":/quill/lang"));
    while (it.hasNext()) {
        const QString res = it.next();
        if (!copyResource(res, dir + QStringLiteral("/lang/") + QFileInfo(res).fileName()))
            problems << QStringLiteral("could not write lang/%1").arg(QFileInfo(res).fileName());
    }
    if (!WriteMachineDefaults())
        problems << QStringLiteral("per-machine settings not writable (%1)").arg(SettingsFile(HKEY_LOCAL_MACHINE));
    *message = QStringLiteral("Installation created in %1.").arg(QDir(dir).absolutePath());
    if (!problems.isEmpty())
        *message += QStringLiteral(" Warning: ") + problems.join(QStringLiteral("; ")) + QLatin1Char('.');
    return true;
}

} // namespace quill
