#include "support/mounts.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace quill::test {

namespace {
QString errnoText() { return QString::fromLocal8Bit(std::strerror(errno)); }
QByteArray native(const QString& path) { return QFile::encodeName(path); }

bool copyTree(const QString& from, const QString& to)
{
    return QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), from + QStringLiteral("/."), to}) == 0;
}
} // namespace

bool MountTmpfsOver(const QString& folder, int sizeKb, QString* why)
{
    QTemporaryDir side;
    if (!side.isValid() || !copyTree(folder, side.path())) {
        *why = QStringLiteral("cannot copy the folder aside");
        return false;
    }
    const QByteArray options = "size=" + QByteArray::number(sizeKb) + "k";
    if (::mount("tmpfs", native(folder).constData(), "tmpfs", 0, options.constData()) != 0) {
        *why = QStringLiteral("mount tmpfs: ") + errnoText();
        return false;
    }
    if (!copyTree(side.path(), folder)) {
        Unmount(folder);
        *why = QStringLiteral("cannot copy the folder onto the tmpfs");
        return false;
    }
    return true;
}

bool BindReadOnly(const QString& path, QString* why)
{
    if (::mount(native(path).constData(), native(path).constData(), nullptr, MS_BIND, nullptr) != 0) {
        *why = QStringLiteral("bind mount: ") + errnoText();
        return false;
    }
    if (::mount(nullptr, native(path).constData(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        *why = QStringLiteral("read-only remount: ") + errnoText();
        Unmount(path);
        return false;
    }
    return true;
}

bool Unmount(const QString& path) { return ::umount2(native(path).constData(), MNT_DETACH) == 0; }

qint64 FillUp(const QString& path)
{
    const int fd = ::open(native(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return -1;
    qint64 total = 0;
    static const QByteArray block(64 * 1024, 'f');
    // Smaller and smaller writes, so not even a byte is left.
    for (size_t chunk = size_t(block.size()); chunk >= 1;) {
        const ssize_t n = ::write(fd, block.constData(), chunk);
        if (n > 0)
            total += n;
        else
            chunk /= 2;
    }
    ::fsync(fd);
    ::close(fd);
    return total;
}

} // namespace quill::test
