// `quillon library`, `new`, `delete`, `restore` and `sync`: the library's commands (see LibraryCommand.cpp).
#pragma once

namespace CLI {
class App;
}

void addLibraryCommands(CLI::App& app);
