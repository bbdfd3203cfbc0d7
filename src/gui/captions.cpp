#include "gui/captions.h"
#include "shell/window.h"

#include <QAbstractButton>
#include <QAction>
#include <QGroupBox>
#include <QLabel>
#include <QMenu>
#include <QWidget>

namespace quill {

namespace {

void localiseAction(QAction* action)
{
    action->setText(LocaliseCaption(action->text()));
}

} // namespace

void LocaliseCaptions(QWidget* window)
{
    if (!window)
        return;
    for (QAbstractButton* b : window->findChildren<QAbstractButton*>())
        b->setText(LocaliseCaption(b->text()));
    for (QLabel* l : window->findChildren<QLabel*>())
        l->setText(LocaliseCaption(l->text()));
    for (QGroupBox* g : window->findChildren<QGroupBox*>())
        g->setTitle(LocaliseCaption(g->title()));
    // Menus that are not children of the window (a pop-up of its own) are
    // reached through the actions the window holds.
    for (QMenu* m : window->findChildren<QMenu*>()) {
        m->setTitle(LocaliseCaption(m->title()));
        m->menuAction()->setText(m->title());
    }
    for (QAction* a : window->findChildren<QAction*>())
        localiseAction(a);
    // The window's own caption: only the "##" form.
    const QString title = window->windowTitle();
    if (title.startsWith(QLatin1String("##")))
        window->setWindowTitle(LocaliseCaption(title));
}

} // namespace quill
