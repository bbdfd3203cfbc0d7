#include "shell/messages.h"
#include "foundation/eventlog.h"
#include "foundation/texts.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QThread>

namespace quill {

namespace {

class LoggingSink final : public MessageSink {
public:
    BoxAnswer show(const Box& box) override
    {
        QString flat = box.text;
        flat.replace(QLatin1String("\r\n"), QLatin1String(" ")).replace(QLatin1Char('\n'), QLatin1Char(' '));
        LogWrite(QStringLiteral("Message: ") + flat);
        // Headless with logging on, the log line is on stderr already.
        if (!UseLog() || !LogToStderr())
            QTextStream(stderr) << box.title << ": " << flat << Qt::endl;
        return box.buttons == BoxButtons::YesNo ? BoxAnswer::Yes : BoxAnswer::Ok;
    }
};

LoggingSink defaultSink;
MessageSink* current = &defaultSink;
bool silent = false;
QObject* owner = nullptr;

} // namespace

MessageSink& Messages() { return *current; }
void SetMessageSink(MessageSink* sink) { current = sink ? sink : &defaultSink; }

QObject* CurrentBoxOwner()
{
    return owner;
}

BoxOwnerScope::BoxOwnerScope(QObject* o) : previous_(owner)
{
    owner = o;
}

BoxOwnerScope::~BoxOwnerScope()
{
    owner = previous_;
}

namespace {
BoxAnswer showBox(const Box& box)
{
    // Boxes belong to the event-loop thread; work on another thread hands
    // its questions over (a box raised there would meet a window from the
    // wrong thread). Should one slip through, it is logged and gets its default.
    const QCoreApplication* app = QCoreApplication::instance();
    if (app && QThread::currentThread() != app->thread()) {
        LogWrite(QStringLiteral("Message box off the main thread, not shown: ") + box.text);
        return box.defaultAnswer;
    }
    return current->show(box);
}
} // namespace

BoxAnswer MsgBox(const QString& text, BoxIcon icon, BoxButtons buttons)
{
    const BoxAnswer first = buttons == BoxButtons::YesNo ? BoxAnswer::Yes : BoxAnswer::Ok;
    return showBox(Box{GetString(9003), text, icon, buttons, first, owner});
}

BoxAnswer AskNoDefault(const QString& text)
{
    return showBox(Box{GetString(9003), text, BoxIcon::Question, BoxButtons::YesNo, BoxAnswer::No, owner});
}

void SetSilentMode(bool on) { silent = on; }
bool SilentMode() { return silent; }

void MsgBoxUnlessSilent(const QString& text, BoxIcon icon)
{
    if (!silent)
        MsgBox(text, icon);
}

} // namespace quill
