#include "foundation/descriptors.h"
#include "foundation/eventlog.h"

#include <QElapsedTimer>

#include <fcntl.h>
#include <unistd.h>

namespace quill {

namespace {
int reserve = -1;
bool noted = false;
// A shortage that comes and goes is logged at most once a minute.
QElapsedTimer lastNote;
} // namespace

void ReserveDescriptor()
{
    if (reserve < 0)
        reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool ReleaseReservedDescriptor()
{
    if (reserve < 0)
        return false;
    ::close(reserve);
    reserve = -1;
    return true;
}

void NoteOutOfDescriptors(const QString& what, const QString& error)
{
    if (noted || (lastNote.isValid() && lastNote.elapsed() < 60000))
        return;
    noted = true;
    lastNote.start();
    // Writing the log takes a descriptor too: the reserve lends it.
    const bool lent = ReleaseReservedDescriptor();
    LogWrite(QStringLiteral("Out of file descriptors: ") + what + QStringLiteral(" cannot accept (") + error
             + QStringLiteral("); new connections wait until some are free."));
    if (lent)
        ReserveDescriptor();
}

void NoteDescriptorsAgain()
{
    noted = false;
}

} // namespace quill
