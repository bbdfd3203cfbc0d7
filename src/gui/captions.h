#pragma once
class QWidget;

namespace quill {

// Replaces the marker captions ("#£12102#Radera ALLA jobb", "##9003#...") of a
// window, its buttons, labels, check boxes, option buttons, frames, menus and
// menu entries by the texts of the language in use. Each window calls it on
// itself while it loads; other captions stay as they are.
void LocaliseCaptions(QWidget* window);

} // namespace quill
