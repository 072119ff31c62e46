// `quillon edit PACKAGE`: opens one experiment or protocol package in an editor window (see EditCommand.cpp).
#pragma once

namespace CLI {
class App;
}

// True when the arguments ask for the editor window, which needs a QApplication rather than a
// QCoreApplication.
bool argumentsOpenEditor(int argc, char** argv);
void addEditCommand(CLI::App& app);
