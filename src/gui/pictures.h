#pragma once
// The window's pictures: the desktop's icon theme where a standard name fits,
// our own SVG drawings (compiled in) otherwise.
#include "shell/window.h"

#include <QIcon>
#include <QString>

namespace quill {

// The picture of a status word as the printer list shows it ("Klar",
// "Fel"...; the words of the language in use). Null for an unknown word.
QIcon StatusPicture(const QString& statusWord);
// "PType" + type id, the printer row's picture; an unknown type gets type 1's.
QIcon PrinterTypePicture(const QString& key);
QIcon ServicePicture(bool started);
QIcon TrafficPicture(TrafficIndicator::State state);
// The notification-area icon: started or stopped service.
QIcon TrayPicture(bool started);
// The server itself (status bar panel 1, window icon).
QIcon ServerPicture();

// Our own drawing by file name ("status-ready"), without the theme.
QIcon OwnPicture(const QString& name);

} // namespace quill
