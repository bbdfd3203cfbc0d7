#include "foundation/paths.h"

#include <QCoreApplication>
#include <QDir>

namespace quill {

namespace {
QString& home()
{
    static QString h;
    return h;
}
} // namespace

QString HomeDir()
{
    if (home().isEmpty() && QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    return home().isEmpty() ? QDir::currentPath() : home();
}

void SetHomeDir(const QString& dir)
{
    QString d = QDir(dir).absolutePath();
    while (d.size() > 1 && d.endsWith(QLatin1Char('/')))
        d.chop(1);
    home() = d;
}

QString HomePath(const QString& name)
{
    return HomeDir() + QLatin1Char('/') + name;
}

} // namespace quill
