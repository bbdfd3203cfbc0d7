#include "foundation/messages.h"
#include "foundation/eventlog.h"
#include "foundation/texts.h"

#include <QTextStream>

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

BoxOwnerScope::BoxOwnerScope(QObject* o) : previous_(owner)
{
    owner = o;
}

BoxOwnerScope::~BoxOwnerScope()
{
    owner = previous_;
}

BoxAnswer MsgBox(const QString& text, BoxIcon icon, BoxButtons buttons)
{
    const BoxAnswer first = buttons == BoxButtons::YesNo ? BoxAnswer::Yes : BoxAnswer::Ok;
    return current->show(Box{GetString(9003), text, icon, buttons, first, owner});
}

BoxAnswer AskNoDefault(const QString& text)
{
    return current->show(Box{GetString(9003), text, BoxIcon::Question, BoxButtons::YesNo, BoxAnswer::No, owner});
}

void SetSilentMode(bool on) { silent = on; }
bool SilentMode() { return silent; }

void MsgBoxUnlessSilent(const QString& text, BoxIcon icon)
{
    if (!silent)
        MsgBox(text, icon);
}

} // namespace quill
