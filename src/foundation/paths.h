#pragma once
#include <QString>

namespace quill {

// The installation folder (the program folder of the original layout), with
// no trailing slash. Set once at start-up from --home.
QString HomeDir();
void SetHomeDir(const QString& dir);
// HomeDir() + "/" + name.
QString HomePath(const QString& name);

} // namespace quill
