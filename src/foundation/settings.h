#pragma once
#include <QString>
#include <QVariant>

namespace quill {

// Registry-style settings over QSettings (organisation "Norvu", application
// "Brixa"). "SOFTWARE\Norvu\Brixa" is the root, deeper keys are groups.
enum class Hive { LocalMachine, CurrentUser };
constexpr Hive HKEY_LOCAL_MACHINE = Hive::LocalMachine;
constexpr Hive HKEY_CURRENT_USER = Hive::CurrentUser;
constexpr int REG_SZ = 1;
constexpr int REG_DWORD = 4;

inline const QString KeyBrixa = QStringLiteral("SOFTWARE\\Norvu\\Brixa");
inline const QString KeyQuillbase = QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Quillbase");
inline const QString KeyRun = QStringLiteral("SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run");

// Missing values read as "". Numbers read as ten decimal digits ("0000000046").
QString RegGetValue(Hive root, const QString& path, const QString& name);
// type 4 writes a 32-bit number, anything else text. Errors are ignored.
void RegSetValue(Hive root, const QString& path, const QString& name, int type, const QVariant& value);

// Files behind the two scopes: per-machine under the first XDG_CONFIG_DIRS
// entry (default /etc/xdg), per-user under XDG_CONFIG_HOME (default ~/.config).
QString SettingsFile(Hive root);
// The log-on start entry that stands for the Run value.
QString AutostartFile(Hive root);

} // namespace quill
