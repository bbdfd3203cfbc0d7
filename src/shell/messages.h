#pragma once
#include <QString>

class QObject;

namespace quill {

// Every message box and question of the server goes through here, so the
// window, the headless server and the tests each answer them their own way.
enum class BoxIcon { None, Information, Exclamation, Critical, Question };
enum class BoxButtons { Ok, YesNo, OkCancel };
enum class BoxAnswer { Ok, Yes, No, Cancel };

// One box: what it says and which answers it offers.
struct Box {
    QString title;
    QString text;
    BoxIcon icon = BoxIcon::None;
    BoxButtons buttons = BoxButtons::Ok;
    BoxAnswer defaultAnswer = BoxAnswer::Ok; // the button Enter presses
    QObject* owner = nullptr;                // the window the box is modal to (BoxOwnerScope)
};

class MessageSink {
public:
    virtual ~MessageSink() = default;
    virtual BoxAnswer show(const Box& box) = 0;
};

// The owner boxes raised now would get.
QObject* CurrentBoxOwner();

// The window that boxes raised within this scope belong to (the dialog whose
// button ran the command); scopes nest.
class BoxOwnerScope {
public:
    explicit BoxOwnerScope(QObject* owner);
    ~BoxOwnerScope();
    BoxOwnerScope(const BoxOwnerScope&) = delete;
    BoxOwnerScope& operator=(const BoxOwnerScope&) = delete;

private:
    QObject* previous_;
};

// The sink in use; the default one logs the box and answers Ok/Yes.
MessageSink& Messages();
void SetMessageSink(MessageSink* sink); // nullptr restores the default

// Shows a box titled with the display title (text 9003).
BoxAnswer MsgBox(const QString& text, BoxIcon icon = BoxIcon::None, BoxButtons buttons = BoxButtons::Ok);
// A Yes/No question whose default button is No.
BoxAnswer AskNoDefault(const QString& text);

// The silent-mode switch: error and warning boxes are only logged while it is on.
void SetSilentMode(bool on);
bool SilentMode();
// An error or warning box: shown unless silent mode is on.
void MsgBoxUnlessSilent(const QString& text, BoxIcon icon);

} // namespace quill
