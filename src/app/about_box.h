#pragma once
// Help > About: what an owner needs when asking the maker for help (the
// version, where the log file is, the support page), and the main window's
// keyboard shortcuts, which no menu shows otherwise.
class QMenuBar;
class QWidget;

namespace quendral::app {

// Adds the Help menu with its About item; the box opens over `parent`.
void addHelpMenu(QMenuBar& menuBar, QWidget* parent);
// Shows the About box, modal, until the user closes it.
void showAboutBox(QWidget* parent);

} // namespace quendral::app
