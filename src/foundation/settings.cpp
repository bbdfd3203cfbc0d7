#include "foundation/settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

namespace quill {

namespace {

constexpr int BufferChars = 2048;
const QString DwordPrefix = QStringLiteral("dword:");

QString configDir(Hive root)
{
    if (root == Hive::LocalMachine) {
        const QString dirs = qEnvironmentVariable("XDG_CONFIG_DIRS");
        const QString first = dirs.section(QLatin1Char(':'), 0, 0);
        return first.isEmpty() ? QStringLiteral("/etc/xdg") : first;
    }
    const QString home = qEnvironmentVariable("XDG_CONFIG_HOME");
    return home.isEmpty() ? QDir::homePath() + QStringLiteral("/.config") : home;
}

// Maps a key path below SOFTWARE\Norvu\Brixa to a settings group; false for
// any other key (those have no store here).
bool groupFor(const QString& path, QString* group)
{
    QString p = path;
    while (p.endsWith(QLatin1Char('\\')))
        p.chop(1);
    if (p.compare(KeyBrixa, Qt::CaseInsensitive) == 0) {
        group->clear();
        return true;
    }
    if (p.startsWith(KeyBrixa + QLatin1Char('\\'), Qt::CaseInsensitive)) {
        *group = p.mid(KeyBrixa.size() + 1).replace(QLatin1Char('\\'), QLatin1Char('/'));
        return true;
    }
    return false;
}

bool isRunKey(const QString& path)
{
    QString p = path;
    while (p.endsWith(QLatin1Char('\\')))
        p.chop(1);
    return p.compare(KeyRun, Qt::CaseInsensitive) == 0;
}

QString readAutostartExec(Hive root, const QString& name)
{
    QFile f(AutostartFile(root));
    if (name.compare(QLatin1String("Quillbase"), Qt::CaseInsensitive) != 0 || !f.open(QIODevice::ReadOnly))
        return {};
    while (!f.atEnd()) {
        const QString line = QString::fromUtf8(f.readLine()).trimmed();
        if (line.startsWith(QLatin1String("Exec=")))
            return line.mid(5);
    }
    return {};
}

void writeAutostartExec(Hive root, const QString& name, const QString& exec)
{
    if (name.compare(QLatin1String("Quillbase"), Qt::CaseInsensitive) != 0)
        return;
    const QString path = AutostartFile(root);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;
    f.write("[Desktop Entry]\nType=Application\nName=Quillbase\nExec=" + exec.toUtf8() + "\n");
}

} // namespace

QString SettingsFile(Hive root)
{
    return configDir(root) + QStringLiteral("/Norvu/Brixa.conf");
}

QString AutostartFile(Hive root)
{
    return configDir(root) + QStringLiteral("/autostart/quillbase.desktop");
}

QString RegGetValue(Hive root, const QString& path, const QString& name)
{
    if (isRunKey(path))
        return readAutostartExec(root, name);
    QString group;
    if (!groupFor(path, &group))
        return {};
    QSettings s(SettingsFile(root), QSettings::IniFormat);
    if (!group.isEmpty())
        s.beginGroup(group);
    const QVariant v = s.value(name);
    if (!v.isValid())
        return {};
    // A hand-written line with unquoted commas (an address list) reads as a
    // list: it is the text as written.
    const QString text = v.typeId() == QMetaType::QStringList ? v.toStringList().join(QLatin1Char(','))
                                                             : v.toString();
    if (text.startsWith(DwordPrefix)) {
        bool ok = false;
        const quint32 n = text.mid(DwordPrefix.size()).toUInt(&ok, 16);
        if (!ok)
            return {};
        return QStringLiteral("%1").arg(n, 10, 10, QLatin1Char('0'));
    }
    // The reader's buffer holds 2047 characters and the terminating NUL.
    if (text.size() + 1 > BufferChars)
        return {};
    return text;
}

void RegSetValue(Hive root, const QString& path, const QString& name, int type, const QVariant& value)
{
    if (isRunKey(path)) {
        writeAutostartExec(root, name, value.toString());
        return;
    }
    QString group;
    if (!groupFor(path, &group))
        return;
    QSettings s(SettingsFile(root), QSettings::IniFormat);
    if (!group.isEmpty())
        s.beginGroup(group);
    if (type == REG_DWORD) {
        bool ok = false;
        qint64 n = value.toLongLong(&ok);
        if (!ok) {
            const double d = value.toString().trimmed().toDouble(&ok);
            if (!ok)
                return;
            n = qint64(d);
        }
        if (n < std::numeric_limits<qint32>::min() || n > std::numeric_limits<quint32>::max())
            return;
        s.setValue(name, DwordPrefix + QStringLiteral("%1").arg(quint32(n), 8, 16, QLatin1Char('0')));
    } else {
        s.setValue(name, value.toString());
    }
    s.sync();
}

} // namespace quill
