// The `quillon` command line: parses the arguments and hands each subcommand to the libraries.
#include "cli/DocCommand.h"
#include "cli/EditCommand.h"
#include "cli/LibraryCommand.h"
#include "cli/StoreCommand.h"

#include <CLI/CLI.hpp>
#include <QApplication>
#include <QCoreApplication>

#include <iostream>
#include <memory>

int main(int argc, char** argv) {
    // Only the editor window needs widgets; the other commands run without a display.
    std::unique_ptr<QCoreApplication> application;
    if (argumentsOpenEditor(argc, argv))
        application = std::make_unique<QApplication>(argc, argv);
    else
        application = std::make_unique<QCoreApplication>(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quillon"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLON_VERSION));

    CLI::App app{"Quillon: a local-first laboratory notebook for experiments and protocols.", "quillon"};
    app.set_version_flag("--version", std::string("quillon ") + QUILLON_VERSION);
    app.require_subcommand(0, 1);
    addStoreCommand(app);
    addDocCommand(app);
    addEditCommand(app);
    addLibraryCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    if (app.get_subcommands().empty()) {
        std::cout << app.help();
    }
    return 0;
}
